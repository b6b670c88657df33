// The real loading path under the test prefix: the stand-ins are installed in
// System32 and decoys of the same names lie beside this executable; the
// simulated collector's variants lacking names are laid out as system roots of
// their own.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "EvtsimInProcess.h"
#include "LogCapture.h"
#include "eventlog/EvtApi.h"
#include "eventlog/WinEventLogAPIInitializer.h"
#include "platform/Strings.h"

using namespace skorva;

namespace {

std::wstring moduleFileName(HMODULE module) {
    wchar_t path[MAX_PATH];
    DWORD n = ::GetModuleFileNameW(module, path, MAX_PATH);
    return std::wstring(path, n);
}

// The system's own calls, watched: which file the resolved module came from.
class WatchingOps : public LibraryOps {
public:
    HMODULE getModuleHandle(const wchar_t* name) override { return sys().getModuleHandle(name); }
    HMODULE loadLibrary(const wchar_t* fullPath) override {
        loads.push_back(fullPath);
        return sys().loadLibrary(fullPath);
    }
    FARPROC getProcAddress(HMODULE module, const char* name) override {
        if (resolvedFrom.empty()) {
            resolvedFrom = moduleFileName(module);
            decoyMarker = sys().getProcAddress(module, "SkorvaDecoyMarker") != nullptr;
        }
        return sys().getProcAddress(module, name);
    }
    void freeLibrary(HMODULE module) override { sys().freeLibrary(module); }
    DWORD getEnvironmentVariable(const wchar_t* name, wchar_t* buffer, DWORD size) override {
        return sys().getEnvironmentVariable(name, buffer, size);
    }
    void printError(const char* text) override { sys().printError(text); }

    std::vector<std::wstring> loads;
    std::wstring resolvedFrom;
    bool decoyMarker = false;

private:
    static LibraryOps& sys() { return systemLibraryOps(); }
};

}  // namespace

// Every group comes from System32, never from the decoys of the same names that
// lie beside this executable.
TEST(LoaderSystemPath, EveryGroupComesFromSystem32NotFromBesideTheExecutable) {
    const std::wstring exe = moduleFileName(nullptr);
    const std::wstring folder = exe.substr(0, exe.find_last_of(L"\\/") + 1);
    struct {
        bool (*query)();
        std::vector<const char*> dlls;
    } groups[] = {
        {&WinEventLogAPIInitializer::isEvtApiAvailable, {"wevtapi.dll"}},
        {&WinEventLogAPIInitializer::isEcApiAvailable, {"wecapi.dll"}},
        {&WinEventLogAPIInitializer::isAdsApiAvailable, {"netapi32.dll", "ntdsapi.dll"}},
    };
    for (const auto& g : groups) {
        SCOPED_TRACE(g.dlls[0]);
        for (const char* dll : g.dlls) {
            ASSERT_NE(::GetFileAttributesW((folder + widen(dll)).c_str()), INVALID_FILE_ATTRIBUTES) << "decoy missing";
            ASSERT_EQ(::GetModuleHandleW(widen(dll).c_str()), nullptr) << "loaded before the test";
        }
        WatchingOps ops;
        WinEventLogAPIInitializer::resetForTesting();
        WinEventLogAPIInitializer::setLibraryOps(&ops);
        g.query();
        WinEventLogAPIInitializer::setLibraryOps(nullptr);
        ASSERT_EQ(ops.loads.size(), g.dlls.size());
        for (size_t i = 0; i < g.dlls.size(); ++i)
            EXPECT_TRUE(endsWith(asciiLower(narrow(ops.loads[i])), std::string("\\system32\\") + g.dlls[i]))
                << narrow(ops.loads[i]);
        EXPECT_TRUE(asciiLower(narrow(ops.resolvedFrom)).find("\\system32\\") != std::string::npos)
            << narrow(ops.resolvedFrom);
        EXPECT_FALSE(ops.decoyMarker);
    }
    WinEventLogAPIInitializer::resetForTesting();
}

// Two names of the collector group are judged by slots of the event log group:
// without them the group is available as long as the event log group is loaded.
// Any other name missing leaves it unavailable, and the next query tries again.
TEST(LoaderSystemPath, CollectorGroupLackingNames) {
    wchar_t saved[MAX_PATH] = {};
    ASSERT_GT(::GetEnvironmentVariableW(L"SystemRoot", saved, MAX_PATH), 0u);
    struct Restore {
        const wchar_t* root;
        ~Restore() {
            ::SetEnvironmentVariableW(L"SystemRoot", root);
            WinEventLogAPIInitializer::resetForTesting();
        }
    } restore{saved};
    const auto useVariant = [](const std::string& name) {
        std::wstring root = widen("Z:" ECSIM_VARIANTS_DIR "/" + name);
        std::replace(root.begin(), root.end(), L'/', L'\\');
        ::SetEnvironmentVariableW(L"SystemRoot", root.c_str());
    };
    struct Case {
        std::string variant;
        bool eventLogLoaded;
        const char* missing;  // named in the log when the group is unavailable
    } cases[] = {
        {"no-save", true, nullptr},
        {"no-property-no-save", true, nullptr},
        {"no-save", false, "EcGetSubscriptionProperty"},
        {"no-retry", true, "EcRetrySubscription"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.variant + (c.eventLogLoaded ? "" : ", event log group not loaded"));
        ASSERT_EQ(::GetModuleHandleW(L"Wecapi.dll"), nullptr);
        WinEventLogAPIInitializer::resetForTesting();
        if (c.eventLogLoaded) test::installEvtsimApi();
        test::LogCapture log;
        useVariant(c.variant);
        EXPECT_EQ(WinEventLogAPIInitializer::isEcApiAvailable(), c.missing == nullptr) << log.dump();
        if (c.missing) {
            EXPECT_TRUE(log.has(LogLevel::Error, std::string("WinEventLogAPIInitializer::initWinEcApi: Failed to get "
                                                             "proc address for '") + c.missing + "' dll function."));
            EXPECT_EQ(apiTable().ec.EcClose, nullptr);  // nothing points into the released library
            continue;
        }
        EXPECT_EQ(apiTable().ec.EcGetSubscriptionProperty == nullptr, c.variant == "no-property-no-save");
        ::FreeLibrary(::GetModuleHandleW(L"Wecapi.dll"));  // the loader's reference, for the next case
    }
    useVariant("no-save");  // after no-retry failed: tried again
    EXPECT_TRUE(WinEventLogAPIInitializer::isEcApiAvailable());
    ::FreeLibrary(::GetModuleHandleW(L"Wecapi.dll"));
}
