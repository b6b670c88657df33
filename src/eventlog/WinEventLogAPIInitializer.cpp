#include "eventlog/WinEventLogAPIInitializer.h"

#include <atomic>
#include <cstdio>
#include <cwchar>
#include <mutex>

#include "eventlog/EvtApi.h"
#include "platform/Handles.h"
#include "platform/Logger.h"

namespace skorva {

namespace {

class SystemLibraryOps : public LibraryOps {
public:
    HMODULE getModuleHandle(const wchar_t* name) override { return ::GetModuleHandleW(name); }
    HMODULE loadLibrary(const wchar_t* fullPath) override { return ::LoadLibraryW(fullPath); }
    FARPROC getProcAddress(HMODULE module, const char* name) override { return ::GetProcAddress(module, name); }
    void freeLibrary(HMODULE module) override { ::FreeLibrary(module); }
    DWORD getEnvironmentVariable(const wchar_t* name, wchar_t* buffer, DWORD size) override {
        return ::GetEnvironmentVariableW(name, buffer, size);
    }
    void printError(const char* text) override {
        std::fputs(text, stderr);
        std::fputc('\n', stderr);
        std::fflush(stderr);
    }
};

struct LoaderState {
    CriticalSection lock;  // the loader lock
    LibraryOps* ops = nullptr;
    std::atomic<bool> forceLegacyApi{false};
    bool evtApiAttempted = false;
    std::atomic<bool> evtApiAvailable{false};
    std::atomic<bool> ecApiAvailable{false};
    bool adsApiAttempted = false;
    std::atomic<bool> adsApiAvailable{false};
    bool legacyApiAttempted = false;
    std::atomic<bool> legacyApiAvailable{false};
};

LoaderState& state() {
    static LoaderState s;
    return s;
}

LibraryOps& ops() {
    LibraryOps* o = state().ops;
    return o ? *o : systemLibraryOps();
}

// A library as one attempt found it: the module handle to resolve against
// (borrowed from GetModuleHandleW) and the reference the attempt took itself,
// released unless the attempt succeeds (nothing is unloaded after success).
class LoadedModule {
public:
    LoadedModule() : ops_(ops()) {}
    ~LoadedModule() {
        if (loaded_) ops_.freeLibrary(loaded_);
    }
    LoadedModule(const LoadedModule&) = delete;
    LoadedModule& operator=(const LoadedModule&) = delete;

    HMODULE module = nullptr;
    void setLoaded(HMODULE h) { loaded_ = h; }
    void keep() { loaded_ = nullptr; }

private:
    LibraryOps& ops_;
    HMODULE loaded_ = nullptr;
};

enum class LoadResult { Ok, LoadFailed, HandleQueryFailed };

bool appendBounded(wchar_t* buffer, size_t capacity, const wchar_t* text) {
    size_t used = std::wcslen(buffer);
    size_t add = std::wcslen(text);
    if (used + add + 1 > capacity) return false;
    std::wmemcpy(buffer + used, text, add + 1);
    return true;
}

// Takes an already loaded module, or loads `name` from %SystemRoot%\System32
// by full path: the bare name is never handed to the loader, so no other
// directory can supply the library. `error` receives the failing call's code.
LoadResult loadSystemLibrary(const wchar_t* name, LoadedModule& out, DWORD& error) {
    LibraryOps& o = ops();
    if (HMODULE h = o.getModuleHandle(name)) {
        out.module = h;
        return LoadResult::Ok;
    }
    wchar_t path[MAX_PATH] = {};
    DWORD n = o.getEnvironmentVariable(L"SystemRoot", path, MAX_PATH);
    if (n == 0 || path[0] == L'\0') {
        o.printError("Missing or empty %SystemRoot% environment variable, please revert it to the default value for "
                     "increased security.");
        error = ERROR_ENVVAR_NOT_FOUND;
        return LoadResult::LoadFailed;
    }
    if (n >= MAX_PATH || !appendBounded(path, MAX_PATH, L"\\System32\\") || !appendBounded(path, MAX_PATH, name)) {
        error = ERROR_FILENAME_EXCED_RANGE;
        return LoadResult::LoadFailed;
    }
    HMODULE lib = o.loadLibrary(path);
    if (!lib) {
        error = ::GetLastError();
        return LoadResult::LoadFailed;
    }
    out.setLoaded(lib);
    out.module = o.getModuleHandle(name);
    if (!out.module) {
        error = ::GetLastError();
        return LoadResult::HandleQueryFailed;
    }
    return LoadResult::Ok;
}

template <class Fn>
bool resolve(HMODULE module, const char* name, Fn& slot) {
    FARPROC proc = ops().getProcAddress(module, name);
    slot = reinterpret_cast<Fn>(reinterpret_cast<void*>(proc));
    return slot != nullptr;
}

#define SKORVA_RESOLVE(table, name) \
    if (!resolve(module, #name, table.name)) return #name

// Each returns the first name that is missing, or null when all resolved.
const char* resolveEvtGroup(HMODULE module, EvtApi& t) {
    SKORVA_RESOLVE(t, EvtSubscribe);
    SKORVA_RESOLVE(t, EvtQuery);
    SKORVA_RESOLVE(t, EvtNext);
    SKORVA_RESOLVE(t, EvtRender);
    SKORVA_RESOLVE(t, EvtClose);
    SKORVA_RESOLVE(t, EvtCreateRenderContext);
    SKORVA_RESOLVE(t, EvtOpenPublisherMetadata);
    SKORVA_RESOLVE(t, EvtFormatMessage);
    SKORVA_RESOLVE(t, EvtCreateBookmark);
    SKORVA_RESOLVE(t, EvtUpdateBookmark);
    SKORVA_RESOLVE(t, EvtNextChannelPath);
    SKORVA_RESOLVE(t, EvtOpenChannelEnum);
    SKORVA_RESOLVE(t, EvtSeek);
    return nullptr;
}

const char* resolveEcGroup(HMODULE module, EcApi& t, const EvtApi& evt) {
    SKORVA_RESOLVE(t, EcClose);
    SKORVA_RESOLVE(t, EcOpenSubscriptionEnum);
    SKORVA_RESOLVE(t, EcDeleteSubscription);
    SKORVA_RESOLVE(t, EcEnumNextSubscription);
    SKORVA_RESOLVE(t, EcGetObjectArrayProperty);
    SKORVA_RESOLVE(t, EcGetObjectArraySize);
    // These two results are judged by wevtapi slots, not by their own: the
    // group does not depend on them, but does depend on the event log group.
    resolve(module, "EcGetSubscriptionProperty", t.EcGetSubscriptionProperty);
    if (!evt.EvtCreateRenderContext) return "EcGetSubscriptionProperty";
    resolve(module, "EcSaveSubscription", t.EcSaveSubscription);
    if (!evt.EvtOpenPublisherMetadata) return "EcSaveSubscription";
    SKORVA_RESOLVE(t, EcGetSubscriptionRunTimeStatus);
    SKORVA_RESOLVE(t, EcOpenSubscription);
    SKORVA_RESOLVE(t, EcGetSubscriptionRunTimeStatus);
    SKORVA_RESOLVE(t, EcInsertObjectArrayElement);
    SKORVA_RESOLVE(t, EcSetObjectArrayProperty);
    SKORVA_RESOLVE(t, EcSetSubscriptionProperty);
    SKORVA_RESOLVE(t, EcRemoveObjectArrayElement);
    SKORVA_RESOLVE(t, EcRetrySubscription);
    return nullptr;
}

const char* resolveNetapiGroup(HMODULE module, DsApi& t) {
    SKORVA_RESOLVE(t, DsGetDcNameW);
    SKORVA_RESOLVE(t, NetApiBufferFree);
    return nullptr;
}

const char* resolveNtdsapiGroup(HMODULE module, DsApi& t) {
    SKORVA_RESOLVE(t, DsBindW);
    SKORVA_RESOLVE(t, DsUnBindW);
    SKORVA_RESOLVE(t, DsMapSchemaGuidsW);
    SKORVA_RESOLVE(t, DsCrackNamesW);
    SKORVA_RESOLVE(t, DsFreeNameResultW);
    SKORVA_RESOLVE(t, DsFreeSchemaGuidMapW);
    return nullptr;
}

const char* resolveLegacyGroup(HMODULE module, LegacyApi& t) {
    SKORVA_RESOLVE(t, OpenEventLogW);
    SKORVA_RESOLVE(t, ReadEventLogW);
    SKORVA_RESOLVE(t, GetNumberOfEventLogRecords);
    SKORVA_RESOLVE(t, GetOldestEventLogRecord);
    SKORVA_RESOLVE(t, CloseEventLog);
    SKORVA_RESOLVE(t, NotifyChangeEventLog);
    return nullptr;
}

#undef SKORVA_RESOLVE

// One attempt at a group: its library loaded and every entry point resolved,
// or nothing kept (the library let go, the group's slots cleared: no pointer
// into a library that may be unloaded now stays behind).
struct GroupLoad {
    LoadResult loaded = LoadResult::Ok;
    DWORD error = 0;               // of the failing call when not loaded
    const char* missing = nullptr;  // the first entry point not found
    bool ok() const { return loaded == LoadResult::Ok && !missing; }
};

template <class Table, class Resolve>
GroupLoad loadGroup(const wchar_t* library, Table& table, Resolve resolveGroup) {
    GroupLoad r;
    LoadedModule lib;
    r.loaded = loadSystemLibrary(library, lib, r.error);
    if (r.loaded != LoadResult::Ok) return r;
    r.missing = resolveGroup(lib.module, table);
    if (r.missing)
        table = Table{};
    else
        lib.keep();
    return r;
}

}  // namespace

LibraryOps& systemLibraryOps() {
    static SystemLibraryOps instance;
    return instance;
}

bool WinEventLogAPIInitializer::initWinEvtApi() {
    static const char* const fn = "WinEventLogAPIInitializer::initWinEvtApi";
    LoaderState& s = state();
    std::lock_guard<CriticalSection> guard(s.lock);
    if (s.forceLegacyApi) return false;
    if (s.evtApiAttempted) return true;
    s.evtApiAttempted = true;
    const GroupLoad r = loadGroup(L"wevtapi.dll", apiTable().evt, &resolveEvtGroup);
    if (r.loaded != LoadResult::Ok)
        LOG_INFO(r.loaded == LoadResult::LoadFailed
                     ? "%s: We must be in an XP/2k3 family OS. Switching using the old Windows Event Log api: %d."
                     : "%s: We must be in a XP/2k3 family OS. Switching using the old Windows Event Log api: %d.",
                 fn, static_cast<int>(r.error));
    else if (r.missing)
        LOG_INFO("%s: Failed to get proc address for '%s' dll function.", fn, r.missing);
    s.evtApiAvailable = r.ok();
    return s.evtApiAvailable;
}

bool WinEventLogAPIInitializer::initWinEcApi() {
    static const char* const fn = "WinEventLogAPIInitializer::initWinEcApi";
    LoaderState& s = state();
    std::lock_guard<CriticalSection> guard(s.lock);
    if (s.ecApiAvailable) return true;
    const GroupLoad r = loadGroup(L"Wecapi.dll", apiTable().ec,
                                  [](HMODULE module, EcApi& t) { return resolveEcGroup(module, t, apiTable().evt); });
    if (r.loaded != LoadResult::Ok)
        LOG_ERROR(r.loaded == LoadResult::LoadFailed ? "%s: Could not LoadLibraryW for Wecapi.dll: errorcode: %d."
                                                     : "%s: Could not GetModuleHandleW for Wecapi.dll: %d.",
                  fn, static_cast<int>(r.error));
    else if (r.missing)
        LOG_ERROR("%s: Failed to get proc address for '%s' dll function.", fn, r.missing);
    return r.ok();
}

bool WinEventLogAPIInitializer::initADSApi() {
    static const char* const fn = "WinEventLogAPIInitializer::initADSApi";
    LoaderState& s = state();
    std::lock_guard<CriticalSection> guard(s.lock);
    if (s.adsApiAttempted) return true;
    s.adsApiAttempted = true;
    s.adsApiAvailable = false;

    DsApi& ds = apiTable().ds;
    const char* missing = nullptr;
    LoadedModule netapi;
    DWORD error = 0;
    LoadResult r = loadSystemLibrary(L"Netapi32.dll", netapi, error);
    if (r == LoadResult::LoadFailed) {
        LOG_ERROR("%s: Unable to get module handle for Dnsapi.dll", fn);
        return false;
    }
    if (r == LoadResult::Ok) missing = resolveNetapiGroup(netapi.module, ds);

    LoadedModule ntdsapi;
    if (!missing) {
        r = loadSystemLibrary(L"Ntdsapi.dll", ntdsapi, error);
        if (r == LoadResult::LoadFailed) {
            LOG_ERROR("%s: Unable to get module handle for Ntdsapi.dll", fn);
            ds = DsApi{};
            return false;
        }
        if (r == LoadResult::HandleQueryFailed) {
            // Usable without the Ntdsapi names: kept as the product always did.
            netapi.keep();
            ntdsapi.keep();
            s.adsApiAvailable = true;
            return true;
        }
        missing = resolveNtdsapiGroup(ntdsapi.module, ds);
    }
    if (missing) {
        LOG_ERROR("%s: Failed to get proc address for '%s' dll function.", fn, missing);
        ds = DsApi{};
        return false;
    }
    netapi.keep();
    ntdsapi.keep();
    s.adsApiAvailable = true;
    return true;
}

bool WinEventLogAPIInitializer::isEvtApiAvailable() {
    if (state().forceLegacyApi) return false;
    initWinEvtApi();
    return state().evtApiAvailable;
}

bool WinEventLogAPIInitializer::isEcApiAvailable() {
    bool ok = initWinEcApi();
    state().ecApiAvailable = ok;
    return ok;
}

bool WinEventLogAPIInitializer::isAdsApiAvailable() {
    initADSApi();
    return state().adsApiAvailable;
}

bool WinEventLogAPIInitializer::isLegacyApiAvailable() {
    static const char* const fn = "WinEventLogAPIInitializer::isLegacyApiAvailable";
    LoaderState& s = state();
    std::lock_guard<CriticalSection> guard(s.lock);
    if (s.legacyApiAttempted) return s.legacyApiAvailable;
    s.legacyApiAttempted = true;
    const GroupLoad r = loadGroup(L"advapi32.dll", apiTable().legacy, &resolveLegacyGroup);
    if (r.loaded != LoadResult::Ok)
        LOG_ERROR("%s: Unable to get module handle for advapi32.dll: %d", fn, static_cast<int>(r.error));
    else if (r.missing)
        LOG_ERROR("%s: Failed to get proc address for '%s' dll function.", fn, r.missing);
    s.legacyApiAvailable = r.ok();
    return s.legacyApiAvailable;
}

bool WinEventLogAPIInitializer::forceLegacyApi() { return state().forceLegacyApi; }

void WinEventLogAPIInitializer::setForceLegacyApi(bool force) { state().forceLegacyApi = force; }

bool WinEventLogAPIInitializer::evtApiAvailable() { return state().evtApiAvailable; }

void WinEventLogAPIInitializer::setLibraryOps(LibraryOps* o) {
    LoaderState& s = state();
    std::lock_guard<CriticalSection> guard(s.lock);
    s.ops = o;
}

void WinEventLogAPIInitializer::resetForTesting() {
    LoaderState& s = state();
    std::lock_guard<CriticalSection> guard(s.lock);
    s.forceLegacyApi = false;
    s.evtApiAttempted = false;
    s.evtApiAvailable = false;
    s.ecApiAvailable = false;
    s.adsApiAttempted = false;
    s.adsApiAvailable = false;
    s.legacyApiAttempted = false;
    s.legacyApiAvailable = false;
    apiTable() = ApiTable{};
}

void WinEventLogAPIInitializer::useFilledEvtTableForTesting(bool available) {
    LoaderState& s = state();
    std::lock_guard<CriticalSection> guard(s.lock);
    s.forceLegacyApi = false;
    s.evtApiAttempted = true;
    s.evtApiAvailable = available;
}

void WinEventLogAPIInitializer::useFilledLegacyTableForTesting() {
    LoaderState& s = state();
    std::lock_guard<CriticalSection> guard(s.lock);
    s.legacyApiAttempted = true;
    s.legacyApiAvailable = true;
}

void WinEventLogAPIInitializer::useFilledEcTableForTesting() {
    LoaderState& s = state();
    std::lock_guard<CriticalSection> guard(s.lock);
    s.ecApiAvailable = true;
}

}  // namespace skorva
