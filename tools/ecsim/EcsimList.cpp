// Lists the event collector's subscriptions through the system's Wecapi.dll, loaded
// by full path from %SystemRoot%\System32 as the product loads it (under the test
// prefix that is the simulated collector).
//
//   ecsim-list [--system-root DIR]
//
// Prints "module=<file the library came from>", the names the library lacks (one
// "missing=<name>" each), then one line per subscription:
//   <name> TAB Enabled=<..> TAB ContentFormat=<..> TAB LogFile=<..>
// A property that cannot be read shows as "<key>=error:<code>".
// Exit codes: 0 listed, 2 library not loaded or lacking a name the listing needs,
// 3 the enumeration failed ("error=<function> <code>" on stdout).
#include "Ecsim.h"

#include <fcntl.h>
#include <io.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

const char* const kNames[] = {
    "EcClose", "EcOpenSubscriptionEnum", "EcDeleteSubscription", "EcEnumNextSubscription", "EcGetObjectArrayProperty",
    "EcGetObjectArraySize", "EcGetSubscriptionProperty", "EcSaveSubscription", "EcGetSubscriptionRunTimeStatus",
    "EcOpenSubscription", "EcInsertObjectArrayElement", "EcSetObjectArrayProperty", "EcSetSubscriptionProperty",
    "EcRemoveObjectArrayElement", "EcRetrySubscription"};

struct Api {
    decltype(&::EcOpenSubscriptionEnum) OpenSubscriptionEnum = nullptr;
    decltype(&::EcEnumNextSubscription) EnumNextSubscription = nullptr;
    decltype(&::EcOpenSubscription) OpenSubscription = nullptr;
    decltype(&::EcGetSubscriptionProperty) GetSubscriptionProperty = nullptr;
    decltype(&::EcClose) Close = nullptr;
};

template <class T>
void resolve(HMODULE m, const char* name, T& fn) {
    fn = reinterpret_cast<T>(reinterpret_cast<void*>(GetProcAddress(m, name)));
}

std::string utf8(const std::wstring& w) {
    if (w.empty()) return {};
    int n = WideCharToMultiByte(CP_UTF8, 0, w.data(), static_cast<int>(w.size()), nullptr, 0, nullptr, nullptr);
    std::string s(static_cast<size_t>(n), '\0');
    WideCharToMultiByte(CP_UTF8, 0, w.data(), static_cast<int>(w.size()), s.data(), n, nullptr, nullptr);
    return s;
}

class Handle {
public:
    Handle(const Api& api, EC_HANDLE h) : api_(api), h_(h) {}
    ~Handle() {
        if (h_) api_.Close(h_);
    }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    EC_HANDLE get() const { return h_; }

private:
    const Api& api_;
    EC_HANDLE h_;
};

// One property as text, through the two-call size protocol.
std::string property(const Api& api, EC_HANDLE sub, EC_SUBSCRIPTION_PROPERTY_ID id) {
    std::vector<BYTE> buf;
    DWORD used = 0;
    while (!api.GetSubscriptionProperty(sub, id, 0, static_cast<DWORD>(buf.size()),
                                        buf.empty() ? nullptr : reinterpret_cast<PEC_VARIANT>(buf.data()), &used)) {
        DWORD e = GetLastError();
        if (e != ERROR_INSUFFICIENT_BUFFER || used <= buf.size()) return "error:" + std::to_string(e);
        buf.assign(used, 0);
    }
    const auto* v = reinterpret_cast<const EC_VARIANT*>(buf.data());
    switch (v->Type) {
    case EcVarTypeBoolean: return v->BooleanVal ? "true" : "false";
    case EcVarTypeUInt32:
        if (id == EcSubscriptionContentFormat && v->UInt32Val == EcContentFormatEvents) return "Events";
        if (id == EcSubscriptionContentFormat && v->UInt32Val == EcContentFormatRenderedText) return "RenderedText";
        return std::to_string(v->UInt32Val);
    case EcVarTypeString: return utf8(v->StringVal);
    case EcVarTypeNull: return "null";
    }
    return "type:" + std::to_string(v->Type);
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    _setmode(_fileno(stdout), _O_BINARY);
    std::wstring root;
    if (argc == 3 && std::wstring(argv[1]) == L"--system-root") {
        root = argv[2];
    } else {
        wchar_t buf[MAX_PATH];
        DWORD n = GetEnvironmentVariableW(L"SystemRoot", buf, MAX_PATH);
        if (n > 0 && n < MAX_PATH) root.assign(buf, n);
    }
    if (root.empty()) {
        std::fprintf(stderr, "ecsim-list: no system root\n");
        return 2;
    }
    const std::wstring path = root + L"\\System32\\Wecapi.dll";
    HMODULE m = LoadLibraryW(path.c_str());
    if (!m) {
        std::fprintf(stderr, "ecsim-list: cannot load %s: %lu\n", utf8(path).c_str(), GetLastError());
        return 2;
    }
    wchar_t file[MAX_PATH];
    DWORD n = GetModuleFileNameW(m, file, MAX_PATH);
    std::printf("module=%s\n", utf8(std::wstring(file, n)).c_str());
    for (const char* name : kNames)
        if (!GetProcAddress(m, name)) std::printf("missing=%s\n", name);

    Api api;
    resolve(m, "EcOpenSubscriptionEnum", api.OpenSubscriptionEnum);
    resolve(m, "EcEnumNextSubscription", api.EnumNextSubscription);
    resolve(m, "EcOpenSubscription", api.OpenSubscription);
    resolve(m, "EcGetSubscriptionProperty", api.GetSubscriptionProperty);
    resolve(m, "EcClose", api.Close);
    if (!api.OpenSubscriptionEnum || !api.EnumNextSubscription || !api.OpenSubscription ||
        !api.GetSubscriptionProperty || !api.Close)
        return 2;

    Handle en(api, api.OpenSubscriptionEnum(0));
    if (!en.get()) {
        std::printf("error=EcOpenSubscriptionEnum %lu\n", GetLastError());
        return 3;
    }
    std::wstring name(16, L'\0');
    while (true) {
        DWORD used = 0;
        if (!api.EnumNextSubscription(en.get(), static_cast<DWORD>(name.size()), name.data(), &used)) {
            DWORD e = GetLastError();
            if (e == ERROR_NO_MORE_ITEMS) break;
            if (e == ERROR_INSUFFICIENT_BUFFER && used > name.size()) {
                name.assign(used, L'\0');
                continue;
            }
            std::printf("error=EcEnumNextSubscription %lu\n", e);
            return 3;
        }
        const std::wstring current(name.c_str());
        Handle sub(api, api.OpenSubscription(current.c_str(), EC_READ_ACCESS, EC_OPEN_EXISTING));
        if (!sub.get()) {
            std::printf("error=EcOpenSubscription %lu\n", GetLastError());
            return 3;
        }
        std::printf("%s\tEnabled=%s\tContentFormat=%s\tLogFile=%s\n", utf8(current).c_str(),
                    property(api, sub.get(), EcSubscriptionEnabled).c_str(),
                    property(api, sub.get(), EcSubscriptionContentFormat).c_str(),
                    property(api, sub.get(), EcSubscriptionLogFile).c_str());
    }
    return 0;
}
