// The process's directory, bound handles, buffers handed out and fault rules.
#include <map>
#include <mutex>
#include <new>
#include <unordered_map>

#include "FaultRules.h"  // evtsim's rule syntax, shared by the stand-ins
#include "Internal.h"
#include "Store.h"       // evtsim::readWholeFile
#include "Text.h"

namespace dssim {

namespace {

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

}  // namespace

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

DWORD injectedFault(std::string_view function, std::string_view target) { return faultRules().match(function, target); }

DWORD injectedFault(std::string_view function, std::wstring_view target) {
    return faultRules().match(function, utf8(target));
}

bool setFaults(std::string_view rules, std::string* error) { return faultRules().set(rules, error); }

void clearFaults() { faultRules().clear(); }

void* allocateBuffer(size_t bytes, BufferKind kind) {
    void* p = ::operator new(bytes, std::nothrow);
    if (!p) return nullptr;
    std::memset(p, 0, bytes);
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.buffers.emplace(p, kind);
    countLiveBuffers(+1);
    return p;
}

bool freeBuffer(void* p, BufferKind kind) {
    if (!p) return true;
    {
        Registry& r = registry();
        std::lock_guard<std::mutex> lock(r.mutex);
        auto it = r.buffers.find(p);
        if (it == r.buffers.end() || it->second != kind) {
            countMisuse();
            return false;
        }
        r.buffers.erase(it);
    }
    countLiveBuffers(-1);
    ::operator delete(p);
    return true;
}

HANDLE addBinding(Binding binding) {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.nextHandle += 4;
    r.bindings.emplace(r.nextHandle, std::move(binding));
    countLiveBindings(+1);
    return reinterpret_cast<HANDLE>(r.nextHandle);
}

DWORD useBinding(HANDLE h, Binding& out) {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    auto it = r.bindings.find(reinterpret_cast<uintptr_t>(h));
    if (it == r.bindings.end()) {
        if (h) countMisuse();
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
    countLiveBindings(-1);
    return true;
}

}  // namespace dssim
