// Calls per entry point, misuse, and the counters file other processes read.
#include <atomic>
#include <cstdio>
#include <cwctype>
#include <mutex>

#include "Internal.h"

namespace dssim {

namespace {

const char* const kEntryNames[kEntryCount] = {"DsGetDcNameW",      "NetApiBufferFree", "DsBindW",
                                              "DsUnBindW",         "DsMapSchemaGuidsW", "DsCrackNamesW",
                                              "DsFreeNameResultW", "DsFreeSchemaGuidMapW"};

struct CounterState {
    std::atomic<uint64_t> calls[kEntryCount] = {};
    std::atomic<uint64_t> misuse{0};
    std::atomic<uint64_t> liveBuffers{0};
    std::atomic<uint64_t> liveBindings{0};
};

CounterState& counterState() {
    static CounterState* s = new CounterState;  // outlives static destruction: late frees still count
    return *s;
}

// <pid>-<process start>-<module>: unique per process and per DLL (each stand-in DLL
// keeps its own counts).
std::wstring countersStem() {
    FILETIME created{}, ignored{};
    GetProcessTimes(GetCurrentProcess(), &created, &ignored, &ignored, &ignored);
    HMODULE self = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                       reinterpret_cast<LPCWSTR>(&countersStem), &self);
    wchar_t path[MAX_PATH] = L"";
    GetModuleFileNameW(self, path, MAX_PATH);
    std::wstring module = path;
    module = module.substr(module.find_last_of(L"\\/") + 1);
    module = module.substr(0, module.rfind(L'.'));
    for (wchar_t& ch : module) ch = static_cast<wchar_t>(towlower(ch));  // loaded by any spelling of its name
    wchar_t stem[64];
    std::swprintf(stem, 64, L"%lu-%08lx%08lx-", GetCurrentProcessId(), created.dwHighDateTime, created.dwLowDateTime);
    return stem + module;
}

// Replaced whole (write, then rename), so a reader never sees half a file.
void writeCountersFile() {
    static std::mutex* fileMutex = new std::mutex;  // both outlive static destruction, as the calls may
    static const std::wstring* stem = new std::wstring(countersStem());
    const std::wstring root = directoryRoot();
    if (root.empty()) return;
    std::lock_guard<std::mutex> lock(*fileMutex);
    const Counters c = counters();
    std::string text;
    for (int e = 0; e < kEntryCount; ++e) text += std::string(kEntryNames[e]) + "=" + std::to_string(c.calls[e]) + "\n";
    text += "misuse=" + std::to_string(c.misuse) + "\nlive_buffers=" + std::to_string(c.liveBuffers) +
            "\nlive_bindings=" + std::to_string(c.liveBindings) + "\n";
    const std::wstring dir = root + L"\\calls";
    CreateDirectoryW(dir.c_str(), nullptr);
    const std::wstring tmp = dir + L"\\" + *stem + L".tmp", final = dir + L"\\" + *stem + L".txt";
    HANDLE f = CreateFileW(tmp.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (f == INVALID_HANDLE_VALUE) return;
    DWORD written = 0;
    const bool ok = WriteFile(f, text.data(), static_cast<DWORD>(text.size()), &written, nullptr) && written == text.size();
    CloseHandle(f);
    if (!ok || !MoveFileExW(tmp.c_str(), final.c_str(), MOVEFILE_REPLACE_EXISTING)) DeleteFileW(tmp.c_str());
}

}  // namespace

const char* entryName(Entry e) { return e >= 0 && e < kEntryCount ? kEntryNames[e] : "?"; }

CallScope::CallScope(Entry entry) {
    ++counterState().calls[entry];
    if (DWORD ms = injectedFault("Delay", std::string_view(kEntryNames[entry]))) Sleep(ms);
}

CallScope::~CallScope() { writeCountersFile(); }

Counters counters() {
    CounterState& s = counterState();
    Counters c;
    for (int e = 0; e < kEntryCount; ++e) c.calls[e] = s.calls[e];
    c.misuse = s.misuse;
    c.liveBuffers = s.liveBuffers;
    c.liveBindings = s.liveBindings;
    return c;
}

void resetCounters() {
    CounterState& s = counterState();
    for (auto& n : s.calls) n = 0;
    s.misuse = 0;
}

void countMisuse() { ++counterState().misuse; }
void countLiveBuffers(int delta) { counterState().liveBuffers += delta; }
void countLiveBindings(int delta) { counterState().liveBindings += delta; }

}  // namespace dssim
