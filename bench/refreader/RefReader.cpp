// The least a collector does with the event log: subscribe, read in batches,
// render each event and write it out. Its rate is the yardstick for the product's
// own benchmark, and shows the simulated event log is not the limit.
//
//   refreader --channel NAME[,NAME...] [--mode xml|values|xmlvalues] [--batch N] [--count N]
//
// Several channels are read at once, one thread each, N events each: the
// yardstick of the product reading several channels at once.
//
// The modes make the event log calls a collector must make per event:
//   values     the eleven system values, the publisher's metadata (cached) and
//              the formatted fields and message: classic text;
//   xmlvalues  the eleven system values (record number, time, event code) and the
//              XML: XML rendering;
//   xml        the XML alone: the floor of any reader.
//
// Loads wevtapi.dll from the system directory by full path, as the product does.
// Writes the events to stdout and one summary line to stderr.
#include <windows.h>
#include <winevt.h>

#include <algorithm>
#include <cstdio>
#include <cwchar>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "eventlog/BufferGrowth.h"  // the sizing protocol, as the product follows it

namespace {

struct Api {
    decltype(&::EvtSubscribe) Subscribe;
    decltype(&::EvtNext) Next;
    decltype(&::EvtRender) Render;
    decltype(&::EvtClose) Close;
    decltype(&::EvtCreateRenderContext) CreateRenderContext;
    decltype(&::EvtOpenPublisherMetadata) OpenPublisherMetadata;
    decltype(&::EvtFormatMessage) FormatMessage;
};

template <class T>
bool resolve(HMODULE m, const char* name, T& fn) {
    fn = reinterpret_cast<T>(reinterpret_cast<void*>(GetProcAddress(m, name)));
    return fn != nullptr;
}

std::mutex outputLock;  // one channel's block at a time on standard output

// Buffered standard output: one WriteFile per 1 MiB.
class Out {
public:
    Out() : h_(GetStdHandle(STD_OUTPUT_HANDLE)) { buf_.reserve(1 << 20); }
    ~Out() { flush(); }
    void put(const wchar_t* text, size_t chars) {
        size_t at = buf_.size();
        buf_.resize(at + chars * 3 + 1);
        int n = chars ? WideCharToMultiByte(CP_UTF8, 0, text, static_cast<int>(chars), buf_.data() + at,
                                            static_cast<int>(chars * 3), nullptr, nullptr)
                      : 0;
        buf_.resize(at + static_cast<size_t>(n));
        if (buf_.size() >= (1 << 20)) flush();
    }
    void put(const std::wstring& s) { put(s.c_str(), s.size()); }
    void flush() {
        DWORD w = 0;
        std::lock_guard<std::mutex> guard(outputLock);
        if (!buf_.empty()) WriteFile(h_, buf_.data(), static_cast<DWORD>(buf_.size()), &w, nullptr);
        buf_.clear();
    }

private:
    HANDLE h_;
    std::vector<char> buf_;
};

const wchar_t* kPaths[] = {
    L"Event/System/EventRecordID", L"Event/System/TimeCreated/@SystemTime", L"Event/System/Channel",
    L"Event/System/Provider/@Name", L"Event/System/EventID", L"Event/System/Level", L"Event/System/Computer",
    L"Event/System/Security/@UserID", L"Event/System/Task", L"Event/System/Opcode", L"Event/System/Keywords",
};

// Reads `expected` events of one channel (0: to its end); the exit code.
int readChannel(const Api& api, const std::wstring& channel, const std::wstring& mode, DWORD batch,
                unsigned long long expected);

}  // namespace

int wmain(int argc, wchar_t** argv) {
    std::wstring channel, mode = L"xml";
    DWORD batch = 100;
    unsigned long long expected = 0;
    for (int i = 1; i + 1 < argc; i += 2) {
        std::wstring k = argv[i];
        if (k == L"--channel") channel = argv[i + 1];
        else if (k == L"--mode") mode = argv[i + 1];
        else if (k == L"--batch") batch = static_cast<DWORD>(_wtoi(argv[i + 1]));
        else if (k == L"--count") expected = _wcstoui64(argv[i + 1], nullptr, 10);
    }
    if (channel.empty() || batch == 0 || (mode != L"xml" && mode != L"values" && mode != L"xmlvalues")) {
        std::fputs("usage: refreader --channel NAME[,NAME...] [--mode xml|values|xmlvalues] [--batch N] [--count N]\n", stderr);
        return 2;
    }
    wchar_t sysdir[MAX_PATH];
    UINT n = GetSystemDirectoryW(sysdir, MAX_PATH);
    std::wstring path = std::wstring(sysdir, n) + L"\\wevtapi.dll";
    HMODULE lib = LoadLibraryW(path.c_str());
    Api api{};
    if (!lib || !resolve(lib, "EvtSubscribe", api.Subscribe) || !resolve(lib, "EvtNext", api.Next) ||
        !resolve(lib, "EvtRender", api.Render) || !resolve(lib, "EvtClose", api.Close) ||
        !resolve(lib, "EvtCreateRenderContext", api.CreateRenderContext) ||
        !resolve(lib, "EvtOpenPublisherMetadata", api.OpenPublisherMetadata) ||
        !resolve(lib, "EvtFormatMessage", api.FormatMessage)) {
        std::fprintf(stderr, "refreader: cannot load %ls (%lu)\n", path.c_str(), GetLastError());
        return 1;
    }
    std::vector<std::wstring> channels;
    for (size_t at = 0; at <= channel.size();) {
        const size_t comma = std::min(channel.find(L',', at), channel.size());
        channels.push_back(channel.substr(at, comma - at));
        at = comma + 1;
    }
    std::vector<int> codes(channels.size());
    std::vector<std::thread> readers;
    for (size_t i = 0; i < channels.size(); ++i)
        readers.emplace_back([&, i] { codes[i] = readChannel(api, channels[i], mode, batch, expected); });
    int code = 0;
    for (size_t i = 0; i < readers.size(); ++i) {
        readers[i].join();
        code = std::max(code, codes[i]);
    }
    return code;
}

namespace {

int readChannel(const Api& api, const std::wstring& channel, const std::wstring& mode, DWORD batch,
                unsigned long long expected) {
    HANDLE signal = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    LARGE_INTEGER freq, t0, t1;
    QueryPerformanceFrequency(&freq);
    QueryPerformanceCounter(&t0);
    EVT_HANDLE sub = api.Subscribe(nullptr, signal, channel.c_str(), L"*", nullptr, nullptr, nullptr,
                                   EvtSubscribeStartAtOldestRecord);
    if (!sub) {
        std::fprintf(stderr, "refreader: EvtSubscribe failed (%lu)\n", GetLastError());
        return 1;
    }
    const bool withValues = mode == L"values" || mode == L"xmlvalues";
    const bool asXml = mode != L"values";
    EVT_HANDLE ctx = withValues ? api.CreateRenderContext(11, const_cast<LPCWSTR*>(kPaths), EvtRenderContextValues) : nullptr;
    std::vector<BYTE> values(1 << 12);
    DWORD valuesSize = static_cast<DWORD>(values.size());
    std::map<std::wstring, EVT_HANDLE> publishers;
    std::vector<EVT_HANDLE> events(batch);
    std::vector<BYTE> buffer(1 << 16);
    DWORD bufferSize = static_cast<DWORD>(buffer.size());
    std::vector<wchar_t> text(1 << 14);
    Out out;
    unsigned long long total = 0;
    DWORD lastError = 0;

    // Formats one field into `text`, growing it as the service asks.
    // A too small buffer may also come back "successful" with the text cut and
    // the full size in `used`.
    DWORD textSize = static_cast<DWORD>(text.size());
    skorva::BufferGrowth textGrowth;
    textGrowth.extra = 1;
    textGrowth.cutAnswer = [](bool ok, DWORD) { return ok; };
    auto format = [&](EVT_HANDLE meta, EVT_HANDLE ev, DWORD flag) -> bool {
        return skorva::callSized(text, textSize, textGrowth, [&](wchar_t* data, DWORD size, DWORD& used) {
                   return api.FormatMessage(meta, ev, 0, 0, nullptr, flag, size, data, &used);
               }).ok;
    };

    while (expected == 0 || total < expected) {
        DWORD got = 0;
        if (!api.Next(sub, batch, events.data(), INFINITE, 0, &got)) {
            lastError = GetLastError();
            // An idle subscription may answer ERROR_INVALID_OPERATION instead.
            if (lastError == ERROR_INVALID_OPERATION) lastError = ERROR_NO_MORE_ITEMS;
            if (lastError != ERROR_NO_MORE_ITEMS) break;
            if (expected == 0) break;  // a finished store: stop at its end
            // The service only sets the signal; resetting it is the reader's job,
            // before it pulls again.
            WaitForSingleObject(signal, 1000);
            ResetEvent(signal);
            continue;
        }
        for (DWORD i = 0; i < got; ++i) {
            DWORD count = 0;
            // Renders through the sizing protocol; the bytes used.
            auto render = [&](EVT_HANDLE context, DWORD flags, std::vector<BYTE>& into, DWORD& intoSize) {
                return skorva::callSized(into, intoSize, skorva::BufferGrowth{},
                                         [&](BYTE* data, DWORD size, DWORD& reported) {
                                             return api.Render(context, events[i], flags, size, data, &reported,
                                                               &count);
                                         }).used;
            };
            if (asXml && withValues) render(ctx, EvtRenderEventValues, values, valuesSize);
            const DWORD used = render(asXml ? nullptr : ctx, asXml ? EvtRenderEventXml : EvtRenderEventValues, buffer,
                                      bufferSize);
            if (asXml) {
                const auto* xml = reinterpret_cast<const wchar_t*>(buffer.data());
                out.put(xml, used / sizeof(wchar_t) - 1);
                out.put(L"\n", 1);
            } else {
                const auto* v = reinterpret_cast<const EVT_VARIANT*>(buffer.data());
                wchar_t line[128];
                std::swprintf(line, 128, L"RecordNumber=%llu\nEventCode=%u\n", v[0].UInt64Val, v[4].UInt16Val);
                out.put(line, wcslen(line));
                EVT_HANDLE meta = nullptr;
                if (v[3].Type == EvtVarTypeString) {
                    auto it = publishers.find(v[3].StringVal);
                    if (it == publishers.end())
                        it = publishers.emplace(v[3].StringVal, api.OpenPublisherMetadata(nullptr, v[3].StringVal, nullptr, 0, 0)).first;
                    meta = it->second;
                }
                static const std::pair<DWORD, const wchar_t*> fields[] = {
                    {EvtFormatMessageProvider, L"SourceName="}, {EvtFormatMessageLevel, L"Type="},
                    {EvtFormatMessageKeyword, L"Keywords="},    {EvtFormatMessageTask, L"TaskCategory="},
                    {EvtFormatMessageOpcode, L"OpCode="},       {EvtFormatMessageEvent, L"Message="}};
                for (const auto& [flag, key] : fields) {
                    out.put(key, wcslen(key));
                    if (format(meta, events[i], flag)) out.put(text.data(), wcslen(text.data()));
                    out.put(L"\n", 1);
                }
            }
            api.Close(events[i]);
        }
        total += got;
    }
    out.flush();
    QueryPerformanceCounter(&t1);
    double seconds = static_cast<double>(t1.QuadPart - t0.QuadPart) / static_cast<double>(freq.QuadPart);
    std::fprintf(stderr, "refreader: mode=%ls channel=%ls events=%llu seconds=%.3f events_per_second=%.0f\n", mode.c_str(),
                 channel.c_str(), total, seconds, seconds > 0 ? static_cast<double>(total) / seconds : 0.0);
    for (auto& [name, meta] : publishers)
        if (meta) api.Close(meta);
    if (ctx) api.Close(ctx);
    api.Close(sub);
    CloseHandle(signal);
    return (expected && total < expected) || (lastError && lastError != ERROR_NO_MORE_ITEMS) ? 1 : 0;
}

}  // namespace
