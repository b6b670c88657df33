// Renders and formats generated events the way the channel reader does (system
// values, classic fields, message) and reports events per second, with SID
// translation off and then on.
//
//   bench_render [event count, default 100000] [suppress list]
// The optional suppress list (comma-separated: text, sourcename, type, task,
// opcode, keywords) leaves those fields out, to see what each one costs.

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "EvtsimInProcess.h"
#include "channel/WinEventLogChannelBase.h"
#include "directory/SidTextTranslator.h"
#include "platform/Logger.h"
#include "platform/Strings.h"

using namespace skorva;

namespace {

struct PassResult {
    size_t events = 0;
    size_t failures = 0;
    size_t textChars = 0;  // keeps the work observable
    double seconds = 0;
};

double nowSeconds() {
    LARGE_INTEGER f, c;
    ::QueryPerformanceFrequency(&f);
    ::QueryPerformanceCounter(&c);
    return static_cast<double>(c.QuadPart) / static_cast<double>(f.QuadPart);
}

std::string suppressList;

PassResult renderChannel(const char* channelName, bool translateSids) {
    ChannelSettings settings;
    for (const std::string& f : split(suppressList, ',')) {
        if (f == "text") settings.suppressText = true;
        else if (f == "sourcename") settings.suppressSourceName = true;
        else if (f == "type") settings.suppressType = true;
        else if (f == "task") settings.suppressTask = true;
        else if (f == "opcode") settings.suppressOpcode = true;
        else if (f == "keywords") settings.suppressKeywords = true;
    }
    settings.resolveAdObj = translateSids;
    WinEventLogChannelBase channel(channelName, settings);
    PassResult r;
    if (!channel.setRenderContext()) return r;
    const EvtApi& api = apiTable().evt;
    UniqueEvtHandle query(api.EvtQuery(nullptr, widen(channelName).c_str(), nullptr,
                                       EvtQueryChannelPath | EvtQueryForwardDirection));
    if (!query) return r;

    std::vector<uint8_t> values;
    DWORD valuesSize = 0;
    SidTextTranslator sids;
    std::string noXml;
    EVT_HANDLE batch[100];
    DWORD returned = 0;
    EventRecord record;  // reused, as the reader reuses its records
    const double start = nowSeconds();
    while (api.EvtNext(query.get(), 100, batch, INFINITE, 0, &returned)) {
        for (DWORD i = 0; i < returned; ++i) {
            record.reset();
            record.handle.reset(batch[i]);
            DWORD rc = channel.renderEvent(record, values, valuesSize);
            if (rc == 0) rc = channel.setEventProperties(reinterpret_cast<const EVT_VARIANT*>(values.data()), record);
            if (rc != 0) ++r.failures;
            if (translateSids) sids.translate(record.message, L"", noXml);
            r.textChars += record.message.size();
            for (const auto f : record.fields) r.textChars += f.value.size();
            ++r.events;
        }
        channel.cleanMetadataHandleCache(false);
    }
    r.seconds = nowSeconds() - start;
    return r;
}

}  // namespace

int main(int argc, char** argv) {
    const size_t count = argc > 1 ? static_cast<size_t>(std::strtoull(argv[1], nullptr, 10)) : 100000;
    if (argc > 2) suppressList = argv[2];
    LoggerConfig quiet;
    quiet.level = LogLevel::Warn;  // the per-event INFO lines would measure the logger
    Logger::instance().apply(quiet);

    test::EvtsimStore store;
    store.createChannel("Security");
    store.addGeneratorProviders();
    const double genStart = nowSeconds();
    store.generate("Security", count, 7);
    std::printf("generated %zu Security events in %.1f s\n", count, nowSeconds() - genStart);

    for (bool sids : {false, true}) {
        const PassResult r = renderChannel("Security", sids);
        std::printf("SID translation %-3s: %zu events in %.2f s = %.0f events/s (%zu failures, %zu chars)\n",
                    sids ? "on" : "off", r.events, r.seconds, r.seconds > 0 ? r.events / r.seconds : 0.0,
                    r.failures, r.textChars);
    }
    return 0;
}
