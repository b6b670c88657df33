// The real loading path under the test prefix: the stand-ins are installed in
// System32 and decoys of the same names lie beside this executable.
#include <gtest/gtest.h>

#include <string>
#include <vector>

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
