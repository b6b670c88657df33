// evtsim-store: changes the simulated event log's store from tests and scripts.
#include <windows.h>

#include <fcntl.h>
#include <io.h>

#include <cstdio>
#include <string>
#include <vector>

#include "Faults.h"
#include "Generator.h"
#include "Store.h"
#include "Text.h"
#include "Xml.h"

using namespace evtsim;

namespace {

const char* kUsage =
    "usage: evtsim-store [--store DIR] COMMAND ...\n"
    "  create CHANNEL                 make an empty channel\n"
    "  delete CHANNEL                 remove a channel and its records\n"
    "  clear CHANNEL                  drop the records; record ids keep counting\n"
    "  append CHANNEL FILE...         append the <Event> elements of each file ('-' = stdin)\n"
    "  generate CHANNEL COUNT [--seed N] [--first I] [--batch B] [--hold-last MS]\n"
    "                                 append COUNT generated events (channel made if missing)\n"
    "  stream CHANNEL COUNT RATE [--seed N]\n"
    "                                 append COUNT generated events one per commit, RATE a second,\n"
    "                                 printing each one's record id and commit time (FILETIME, UTC)\n"
    "  providers                      write the generator's providers\n"
    "  provider FILE                  install a provider file\n"
    "  faults TEXT                    write the fault rules (empty text clears them)\n"
    "  list                           print each channel and its number of records\n"
    "The store is --store or EVTSIM_STORE.\n";

int fail(const std::string& message) {
    std::fprintf(stderr, "evtsim-store: %s\n", message.c_str());
    return 1;
}

bool readInput(const std::wstring& path, std::string& out) {
    if (path == L"-") {
        _setmode(_fileno(stdin), _O_BINARY);
        char buf[65536];
        size_t n;
        while ((n = std::fread(buf, 1, sizeof buf, stdin)) > 0) out.append(buf, n);
        return true;
    }
    return readWholeFile(path, out);
}

// Every <Event> element of a file, as its original text.
bool splitEvents(const std::string& text, std::vector<std::string>& events, std::string& error) {
    XmlNode doc;
    if (!parseXml(text, doc, &error)) return false;
    for (const auto& top : doc.children) {
        if (top.localName() == "Event") {
            events.push_back(text.substr(top.begin, top.end - top.begin));
            continue;
        }
        for (const auto& c : top.children)
            if (c.localName() == "Event") events.push_back(text.substr(c.begin, c.end - c.begin));
    }
    return true;
}

size_t countRecords(const std::wstring& root, const std::string& name) {
    ChannelMeta meta;
    std::string data;
    std::wstring dir = channelDir(root, name);
    if (!readChannelMeta(dir, meta) || !readWholeFile(recordsPath(dir, meta), data)) return 0;
    FrameList frames;
    bool partial, corrupt;
    scanFrames(data, frames, partial, corrupt);
    return frames.size();
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    _setmode(_fileno(stdout), _O_BINARY);
    std::vector<std::wstring> args(argv + 1, argv + argc);
    std::wstring root = storeRootFromEnvironment();
    if (args.size() >= 2 && args[0] == L"--store") {
        root = args[1];
        args.erase(args.begin(), args.begin() + 2);
    }
    if (args.empty() || args[0] == L"--help") {
        std::fputs(kUsage, args.empty() ? stderr : stdout);
        return args.empty() ? 2 : 0;
    }
    if (root.empty()) return fail("no store: pass --store DIR or set EVTSIM_STORE");
    StoreWriter store(root);
    std::string error;
    const std::wstring& cmd = args[0];
    std::string channel = args.size() > 1 ? toUtf8(args[1]) : std::string();
    auto need = [&](size_t n) { return args.size() >= n; };

    if (cmd == L"create" && need(2)) return store.createChannel(channel, error) ? 0 : fail(error);
    if (cmd == L"delete" && need(2)) return store.deleteChannel(channel, error) ? 0 : fail(error);
    if (cmd == L"clear" && need(2)) return store.clearChannel(channel, error) ? 0 : fail(error);
    if (cmd == L"append" && need(3)) {
        std::vector<std::string> events;
        for (size_t i = 2; i < args.size(); ++i) {
            std::string text;
            if (!readInput(args[i], text)) return fail("cannot read " + toUtf8(args[i]));
            if (!splitEvents(text, events, error)) return fail(toUtf8(args[i]) + ": " + error);
        }
        uint64_t first = 0;
        if (!store.append(channel, events, error, &first)) return fail(error);
        std::printf("%llu %zu\n", static_cast<unsigned long long>(first), events.size());
        return 0;
    }
    if (cmd == L"generate" && need(3)) {
        auto count = parseUnsigned(toUtf8(args[2]));
        if (!count) return fail("bad COUNT");
        uint64_t seed = 1, firstIndex = 0, batch = 0, holdMs = 0;
        for (size_t i = 3; i + 1 < args.size(); i += 2) {
            auto v = parseUnsigned(toUtf8(args[i + 1]));
            if (!v) return fail("bad value for " + toUtf8(args[i]));
            if (args[i] == L"--seed") seed = *v;
            else if (args[i] == L"--first") firstIndex = *v;
            else if (args[i] == L"--batch") batch = *v;
            else if (args[i] == L"--hold-last") holdMs = *v;
            else return fail("unknown option " + toUtf8(args[i]));
        }
        ChannelMeta meta;
        if (!readChannelMeta(channelDir(root, channel), meta) && !store.createChannel(channel, error)) return fail(error);
        for (const auto& p : generatorProviders())
            if (!store.writeProvider(p, error)) return fail(error);
        // Batches make several commits, as a live log does.
        uint64_t step = batch ? batch : (*count ? *count : 1);
        for (uint64_t done = 0; done < *count; done += step) {
            uint64_t n = std::min(step, *count - done);
            auto events = generateEvents(channel, static_cast<size_t>(n), seed, firstIndex + done);
            bool last = done + n >= *count;
            if (!store.append(channel, events, error, nullptr, last ? static_cast<DWORD>(holdMs) : 0)) return fail(error);
        }
        return 0;
    }
    if (cmd == L"stream" && need(4)) {
        auto count = parseUnsigned(toUtf8(args[2]));
        auto rate = parseUnsigned(toUtf8(args[3]));
        if (!count || !rate || *rate == 0) return fail("bad COUNT or RATE");
        uint64_t seed = 1;
        if (args.size() == 6 && args[4] == L"--seed") {
            auto v = parseUnsigned(toUtf8(args[5]));
            if (!v) return fail("bad value for --seed");
            seed = *v;
        }
        ChannelMeta meta;
        if (!readChannelMeta(channelDir(root, channel), meta) && !store.createChannel(channel, error)) return fail(error);
        for (const auto& p : generatorProviders())
            if (!store.writeProvider(p, error)) return fail(error);
        const auto events = generateEvents(channel, static_cast<size_t>(*count), seed, 0);
        LARGE_INTEGER freq, start, now;
        QueryPerformanceFrequency(&freq);
        QueryPerformanceCounter(&start);
        std::vector<std::string> due;
        for (uint64_t i = 0; i < *count;) {
            // Paced against the start, so a slow commit does not slow the rate: what fell due
            // during a slow commit goes in the next one, as a busy log commits several at once.
            const LONGLONG at = start.QuadPart + static_cast<LONGLONG>(i * freq.QuadPart / *rate);
            for (QueryPerformanceCounter(&now); now.QuadPart < at; QueryPerformanceCounter(&now)) {
                const LONGLONG ms = (at - now.QuadPart) * 1000 / freq.QuadPart;
                Sleep(ms > 1 ? static_cast<DWORD>(ms - 1) : 0);
            }
            const uint64_t reached = static_cast<uint64_t>((now.QuadPart - start.QuadPart) * *rate / freq.QuadPart) + 1;
            const uint64_t end = std::min(*count, std::max(i + 1, reached));
            due.assign(events.begin() + static_cast<ptrdiff_t>(i), events.begin() + static_cast<ptrdiff_t>(end));
            uint64_t id = 0;
            if (!store.append(channel, due, error, &id)) return fail(error);
            FILETIME committed;
            GetSystemTimePreciseAsFileTime(&committed);
            const auto stamp = (static_cast<unsigned long long>(committed.dwHighDateTime) << 32) | committed.dwLowDateTime;
            for (uint64_t k = 0; k < end - i; ++k)
                std::printf("%llu %llu\n", static_cast<unsigned long long>(id + k), stamp);
            std::fflush(stdout);
            i = end;
        }
        return 0;
    }
    if (cmd == L"providers") {
        for (const auto& p : generatorProviders())
            if (!store.writeProvider(p, error)) return fail(error);
        return 0;
    }
    if (cmd == L"provider" && need(2)) {
        std::string text;
        ProviderDef def;
        XmlNode doc;
        if (!readWholeFile(args[1], text) || !parseXml(text, doc, &error) || doc.children[0].localName() != "Provider" ||
            !doc.children[0].attr("Name"))
            return fail("not a provider file: " + toUtf8(args[1]) + " " + error);
        std::wstring tmp = root + L"\\providers";
        CreateDirectoryW(root.c_str(), nullptr);
        CreateDirectoryW(tmp.c_str(), nullptr);
        if (!CopyFileW(args[1].c_str(), providerPath(root, *doc.children[0].attr("Name")).c_str(), FALSE))
            return fail("cannot install provider");
        return 0;
    }
    if (cmd == L"faults" && need(2)) {
        std::string rules = toUtf8(args[1]);
        if (!checkFaultRules(rules, &error)) return fail(error);
        return store.writeFaults(rules, error) ? 0 : fail(error);
    }
    if (cmd == L"list") {
        for (const auto& name : listChannels(root)) std::printf("%s\t%zu\n", name.c_str(), countRecords(root, name));
        return 0;
    }
    std::fputs(kUsage, stderr);
    return 2;
}
