// The real loading path under the test prefix: the simulated event log is
// installed as System32\wevtapi.dll and a decoy of the same name lies beside
// this executable.
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

TEST(LoaderSystemPath, EventLogGroupComesFromSystem32NotFromBesideTheExecutable) {
    std::wstring exe = moduleFileName(nullptr);
    const std::wstring decoy = exe.substr(0, exe.find_last_of(L"\\/") + 1) + L"wevtapi.dll";
    ASSERT_NE(::GetFileAttributesW(decoy.c_str()), INVALID_FILE_ATTRIBUTES) << "decoy missing: " << narrow(decoy);
    ASSERT_EQ(::GetModuleHandleW(L"wevtapi.dll"), nullptr) << "loaded before the test";

    WatchingOps ops;
    WinEventLogAPIInitializer::resetForTesting();
    WinEventLogAPIInitializer::setLibraryOps(&ops);
    bool available = WinEventLogAPIInitializer::isEvtApiAvailable();
    WinEventLogAPIInitializer::setLibraryOps(nullptr);

    ASSERT_EQ(ops.loads.size(), 1u);
    EXPECT_TRUE(endsWith(asciiLower(narrow(ops.loads[0])), "\\system32\\wevtapi.dll")) << narrow(ops.loads[0]);
    EXPECT_TRUE(endsWith(asciiLower(narrow(ops.resolvedFrom)), "\\system32\\wevtapi.dll")) << narrow(ops.resolvedFrom);
    EXPECT_FALSE(ops.decoyMarker);
    EXPECT_TRUE(available);
    WinEventLogAPIInitializer::resetForTesting();
}
