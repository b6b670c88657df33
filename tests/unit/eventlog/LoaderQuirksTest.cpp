// The loader against played libraries: which names exist, whether the second
// module-handle query finds the library, what SystemRoot holds. (The collector
// and directory groups come with the stages that use their answers.)
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "eventlog/EvtApi.h"
#include "eventlog/WinEventLogAPIInitializer.h"

using namespace skorva;

namespace {

void dummyEntry() {}

const std::vector<std::string> kEvtNames = {
    "EvtSubscribe", "EvtQuery", "EvtNext", "EvtRender", "EvtClose", "EvtCreateRenderContext",
    "EvtOpenPublisherMetadata", "EvtFormatMessage", "EvtCreateBookmark", "EvtUpdateBookmark",
    "EvtNextChannelPath", "EvtOpenChannelEnum", "EvtSeek"};

// Libraries that exist in the played system directory.
class FakeLibraryOps : public LibraryOps {
public:
    struct Library {
        std::set<std::string> exports;
        bool hiddenAfterLoad = false;  // the second handle query fails
        bool preloaded = false;
        int refs = 0;
        HMODULE handle = nullptr;
    };

    Library& add(const std::wstring& name, const std::vector<std::string>& exports, const std::string& without = "") {
        Library& lib = libs_[name];
        lib = Library{};
        lib.exports = std::set<std::string>(exports.begin(), exports.end());
        lib.exports.erase(without);
        lib.handle = reinterpret_cast<HMODULE>(static_cast<uintptr_t>(0x10000 * libs_.size()));
        return lib;
    }

    HMODULE getModuleHandle(const wchar_t* name) override {
        auto it = libs_.find(name);
        if (it == libs_.end() || !(it->second.preloaded || (it->second.refs > 0 && !it->second.hiddenAfterLoad))) {
            ::SetLastError(ERROR_MOD_NOT_FOUND);
            return nullptr;
        }
        return it->second.handle;
    }
    HMODULE loadLibrary(const wchar_t* fullPath) override {
        loads.push_back(fullPath);
        std::wstring path(fullPath);
        for (auto& [name, lib] : libs_) {
            if (path == systemRoot + L"\\System32\\" + name) {
                ++lib.refs;
                return lib.handle;
            }
        }
        ::SetLastError(ERROR_MOD_NOT_FOUND);
        return nullptr;
    }
    FARPROC getProcAddress(HMODULE module, const char* name) override {
        for (auto& [n, lib] : libs_)
            if (lib.handle == module && lib.exports.count(name)) return reinterpret_cast<FARPROC>(&dummyEntry);
        return nullptr;
    }
    void freeLibrary(HMODULE module) override {
        for (auto& [n, lib] : libs_)
            if (lib.handle == module) --lib.refs;
    }
    DWORD getEnvironmentVariable(const wchar_t* name, wchar_t* buffer, DWORD size) override {
        if (std::wstring(name) != L"SystemRoot" || !hasSystemRoot) return 0;
        if (systemRoot.size() + 1 > size) return static_cast<DWORD>(systemRoot.size() + 1);
        wcscpy_s(buffer, size, systemRoot.c_str());
        return static_cast<DWORD>(systemRoot.size());
    }
    void printError(const char* text) override { printed.push_back(text); }

    int refs(const std::wstring& name) { return libs_[name].refs; }

    bool hasSystemRoot = true;
    std::wstring systemRoot = L"C:\\windows";
    std::vector<std::wstring> loads;
    std::vector<std::string> printed;

private:
    std::map<std::wstring, Library> libs_;
};

class LoaderQuirks : public ::testing::Test {
protected:
    void SetUp() override {
        WinEventLogAPIInitializer::resetForTesting();
        WinEventLogAPIInitializer::setLibraryOps(&ops);
    }
    void TearDown() override {
        WinEventLogAPIInitializer::resetForTesting();
        WinEventLogAPIInitializer::setLibraryOps(nullptr);
    }
    FakeLibraryOps ops;
};

}  // namespace

TEST_F(LoaderQuirks, EventLogGroupResolvesFromSystemDirectoryOnly) {
    for (bool preloaded : {false, true}) {
        SCOPED_TRACE(preloaded ? "already loaded" : "loaded by full path");
        WinEventLogAPIInitializer::resetForTesting();
        ops.loads.clear();
        ops.add(L"wevtapi.dll", kEvtNames).preloaded = preloaded;
        EXPECT_TRUE(WinEventLogAPIInitializer::isEvtApiAvailable());
        EXPECT_EQ(ops.loads, preloaded ? std::vector<std::wstring>{}
                                       : std::vector<std::wstring>{L"C:\\windows\\System32\\wevtapi.dll"});
        EXPECT_EQ(ops.refs(L"wevtapi.dll"), preloaded ? 0 : 1);  // kept for the life of the process
        EXPECT_NE(apiTable().evt.EvtSeek, nullptr);
    }
}

TEST_F(LoaderQuirks, EventLogGroupUnavailableHoldsNoReferenceAndIsNotTriedAgain) {
    const std::string printed =
        "Missing or empty %SystemRoot% environment variable, please revert it to the default value for increased "
        "security.";
    struct Case {
        const char* label;
        const char* without;  // export left out
        bool hasRoot;
        std::wstring root;
        bool hidden;
        size_t loads;
        std::string printed;  // on standard error
    };
    const Case cases[] = {
        {"EvtSeek missing", "EvtSeek", true, L"C:\\windows", false, 1, ""},
        {"SystemRoot unset", "", false, L"", false, 0, printed},  // or empty: both read as 0 characters
        // Fits alone, not with \System32\wevtapi.dll: refused, never truncated.
        {"SystemRoot overlong", "", true, L"C:\\" + std::wstring(250, L'x'), false, 0, ""},
        {"gone at the second handle query", "", true, L"C:\\windows", true, 1, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        WinEventLogAPIInitializer::resetForTesting();
        ops.loads.clear();
        ops.printed.clear();
        ops.add(L"wevtapi.dll", kEvtNames, c.without).hiddenAfterLoad = c.hidden;
        ops.hasSystemRoot = c.hasRoot;
        ops.systemRoot = c.root;
        EXPECT_FALSE(WinEventLogAPIInitializer::isEvtApiAvailable());
        EXPECT_EQ(ops.loads.size(), c.loads);
        EXPECT_EQ(ops.refs(L"wevtapi.dll"), 0);
        EXPECT_EQ(apiTable().evt.EvtSubscribe, nullptr);  // nothing points into a released library
        EXPECT_EQ(ops.printed, c.printed.empty() ? std::vector<std::string>{} : std::vector<std::string>{c.printed});

        ops.add(L"wevtapi.dll", kEvtNames);  // even a good library is not tried again
        ops.hasSystemRoot = true;
        ops.systemRoot = L"C:\\windows";
        EXPECT_FALSE(WinEventLogAPIInitializer::isEvtApiAvailable());
        EXPECT_EQ(ops.loads.size(), c.loads);
    }
}
