#include <atomic>
#include <cstdio>
#include <cwctype>
#include <map>
#include <mutex>
#include <unordered_map>

#include "FaultRules.h"  // evtsim's rule syntax, shared by the stand-ins
#include "Internal.h"
#include "Store.h"       // evtsim::readWholeFile
#include "Text.h"

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

struct RootState {
    std::mutex mutex;
    std::wstring root;
    bool overridden = false;
};

RootState& rootState() {
    static RootState* s = new RootState;
    return *s;
}

std::wstring rootFromEnvironment() {
    wchar_t buf[1024];
    DWORD n = GetEnvironmentVariableW(L"DSSIM_DIRECTORY", buf, 1024);
    return n == 0 || n >= 1024 ? std::wstring() : std::wstring(buf, n);
}

// Rules may name the entry points that report failures, and three pseudo entries:
// Delay (milliseconds), NameStatus (a DS_NAME_ERROR status) and StaleHandle.
const char* validateRule(std::string_view function, const DWORD* code) {
    for (std::string_view f : {"DsGetDcNameW", "NetApiBufferFree", "DsBindW", "DsMapSchemaGuidsW", "DsCrackNamesW",
                               "Delay", "StaleHandle"})
        if (function == f) return nullptr;
    if (function == "NameStatus")
        return !code || (*code >= DS_NAME_ERROR_RESOLVING && *code <= DS_NAME_ERROR_TRUST_REFERRAL)
                   ? nullptr
                   : "a name status is 1 to 7";
    if (function == "DsUnBindW" || function == "DsFreeNameResultW" || function == "DsFreeSchemaGuidMapW")
        return "entry point that cannot fail";
    return "unknown entry point";
}

evtsim::FaultRules& faultRules() {
    static evtsim::FaultRules* r = new evtsim::FaultRules("DSSIM_FAULTS", directoryRoot, validateRule);
    return *r;
}

struct DirectoryCache {
    std::mutex mutex;
    bool reload = true;
    std::wstring root;
    bool exists = false;
    uint64_t size = 0;
    FILETIME time{};
    std::shared_ptr<const Directory> directory = std::make_shared<Directory>();
    std::string error;
};

DirectoryCache& directoryCache() {
    static DirectoryCache* c = new DirectoryCache;
    return *c;
}

struct Registry {
    std::mutex mutex;
    std::unordered_map<void*, BufferKind> buffers;
    std::map<uintptr_t, Binding> bindings;
    uintptr_t nextHandle = 0xD5000;  // handle values are never used twice
};

Registry& registry() {
    static Registry* r = new Registry;
    return *r;
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

std::string utf8(std::wstring_view s) { return evtsim::toUtf8(s); }

void setDirectoryRoot(const std::wstring& root) {
    RootState& s = rootState();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.root = root;
    s.overridden = !root.empty();
    DirectoryCache& c = directoryCache();
    std::lock_guard<std::mutex> cacheLock(c.mutex);
    c.reload = true;
}

std::wstring directoryRoot() {
    RootState& s = rootState();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.overridden ? s.root : rootFromEnvironment();
}

std::string directoryError() {
    DWORD error = 0;
    currentDirectory(error);
    DirectoryCache& c = directoryCache();
    std::lock_guard<std::mutex> lock(c.mutex);
    return c.error;
}

std::shared_ptr<const Directory> currentDirectory(DWORD& error) {
    const std::wstring root = directoryRoot();
    const std::wstring path = root + L"\\directory.txt";
    WIN32_FILE_ATTRIBUTE_DATA attr{};
    const bool exists = !root.empty() && GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &attr);
    const uint64_t size = exists ? (static_cast<uint64_t>(attr.nFileSizeHigh) << 32) | attr.nFileSizeLow : 0;
    DirectoryCache& c = directoryCache();
    std::lock_guard<std::mutex> lock(c.mutex);
    if (c.reload || root != c.root || exists != c.exists || size != c.size || CompareFileTime(&attr.ftLastWriteTime, &c.time) != 0) {
        c.reload = false;
        c.root = root, c.exists = exists, c.size = size, c.time = attr.ftLastWriteTime;
        c.error.clear();
        auto fresh = std::make_shared<Directory>();
        std::string text;
        if (exists && !evtsim::readWholeFile(path, text)) c.error = "directory.txt cannot be read";
        else if (exists && !parseDirectory(text, *fresh, c.error)) fresh.reset();
        c.directory = c.error.empty() ? std::shared_ptr<const Directory>(fresh) : nullptr;
    }
    error = c.directory ? 0 : ERROR_FILE_CORRUPT;
    return c.directory;
}

DWORD injectedFault(std::string_view function, std::wstring_view target) {
    return faultRules().match(function, utf8(target));
}

bool setFaults(std::string_view rules, std::string* error) { return faultRules().set(rules, error); }

void clearFaults() { faultRules().clear(); }

CallScope::CallScope(Entry entry) {
    ++counterState().calls[entry];
    if (DWORD ms = injectedFault("Delay", evtsim::toWide(kEntryNames[entry]))) Sleep(ms);
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

void* allocateBuffer(size_t bytes, BufferKind kind) {
    void* p = ::operator new(bytes);
    std::memset(p, 0, bytes);
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.buffers.emplace(p, kind);
    ++counterState().liveBuffers;
    return p;
}

bool freeBuffer(void* p, BufferKind kind) {
    if (!p) return true;
    {
        Registry& r = registry();
        std::lock_guard<std::mutex> lock(r.mutex);
        auto it = r.buffers.find(p);
        if (it == r.buffers.end() || it->second != kind) {
            ++counterState().misuse;
            return false;
        }
        r.buffers.erase(it);
    }
    --counterState().liveBuffers;
    ::operator delete(p);
    return true;
}

HANDLE addBinding(Binding binding) {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.nextHandle += 4;
    r.bindings.emplace(r.nextHandle, std::move(binding));
    ++counterState().liveBindings;
    return reinterpret_cast<HANDLE>(r.nextHandle);
}

DWORD useBinding(HANDLE h, Binding& out) {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    auto it = r.bindings.find(reinterpret_cast<uintptr_t>(h));
    if (it == r.bindings.end()) {
        if (h) ++counterState().misuse;
        return ERROR_INVALID_HANDLE;
    }
    out = it->second;
    return out.staleCode;
}

void markStale(HANDLE h, DWORD code) {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    auto it = r.bindings.find(reinterpret_cast<uintptr_t>(h));
    if (it != r.bindings.end()) it->second.staleCode = code;
}

bool removeBinding(HANDLE h) {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    if (r.bindings.erase(reinterpret_cast<uintptr_t>(h)) == 0) return false;
    --counterState().liveBindings;
    return true;
}

}  // namespace dssim
