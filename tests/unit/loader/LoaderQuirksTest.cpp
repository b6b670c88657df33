// The loader against played libraries: which names exist, whether the second
// module-handle query finds the library, what SystemRoot holds.
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "eventlog/EvtApi.h"
#include "eventlog/WinEventLogAPIInitializer.h"

using namespace skorva;
using skorva::test::LogCapture;

namespace {

void dummyEntry() {}

const std::vector<std::string> kEvtNames = {
    "EvtSubscribe", "EvtQuery", "EvtNext", "EvtRender", "EvtClose", "EvtCreateRenderContext",
    "EvtOpenPublisherMetadata", "EvtFormatMessage", "EvtCreateBookmark", "EvtUpdateBookmark",
    "EvtNextChannelPath", "EvtOpenChannelEnum", "EvtSeek"};
const std::vector<std::string> kEcNames = {
    "EcClose", "EcOpenSubscriptionEnum", "EcDeleteSubscription", "EcEnumNextSubscription",
    "EcGetObjectArrayProperty", "EcGetObjectArraySize", "EcGetSubscriptionProperty", "EcSaveSubscription",
    "EcGetSubscriptionRunTimeStatus", "EcOpenSubscription", "EcInsertObjectArrayElement",
    "EcSetObjectArrayProperty", "EcSetSubscriptionProperty", "EcRemoveObjectArrayElement",
    "EcRetrySubscription"};
const std::vector<std::string> kNetapiNames = {"DsGetDcNameW", "NetApiBufferFree"};
const std::vector<std::string> kNtdsapiNames = {"DsBindW", "DsUnBindW", "DsMapSchemaGuidsW",
                                                "DsCrackNamesW", "DsFreeNameResultW", "DsFreeSchemaGuidMapW"};

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
    void remove(const std::wstring& name) { libs_.erase(name); }

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
    LogCapture log;
};

const LogLevel kError = LogLevel::Error;

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
        std::string logged, printed;
    };
    const Case cases[] = {
        {"EvtSeek missing", "EvtSeek", true, L"C:\\windows", false, 1,
         "Failed to get proc address for 'EvtSeek' dll function.", ""},
        {"SystemRoot unset", "", false, L"", false, 0,
         "We must be in an XP/2k3 family OS. Switching using the old Windows Event Log api: ", printed},
        {"SystemRoot empty", "", true, L"", false, 0,
         "We must be in an XP/2k3 family OS. Switching using the old Windows Event Log api: ", printed},
        // Fits alone, not with \System32\wevtapi.dll: refused, never truncated.
        {"SystemRoot overlong", "", true, L"C:\\" + std::wstring(250, L'x'), false, 0, "", ""},
        {"gone at the second handle query", "", true, L"C:\\windows", true, 1,
         "We must be in a XP/2k3 family OS. Switching using the old Windows Event Log api: ", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        WinEventLogAPIInitializer::resetForTesting();
        ops.loads.clear();
        ops.printed.clear();
        log.clear();
        ops.add(L"wevtapi.dll", kEvtNames, c.without).hiddenAfterLoad = c.hidden;
        ops.hasSystemRoot = c.hasRoot;
        ops.systemRoot = c.root;
        EXPECT_FALSE(WinEventLogAPIInitializer::isEvtApiAvailable());
        EXPECT_EQ(ops.loads.size(), c.loads);
        EXPECT_EQ(ops.refs(L"wevtapi.dll"), 0);
        EXPECT_EQ(apiTable().evt.EvtSubscribe, nullptr);  // nothing points into a released library
        if (!c.logged.empty()) {
            EXPECT_NE(log.dump().find("INFO WinEventLogAPIInitializer::initWinEvtApi: " + c.logged), std::string::npos)
                << log.dump();
        }
        EXPECT_EQ(ops.printed, c.printed.empty() ? std::vector<std::string>{} : std::vector<std::string>{c.printed});

        ops.add(L"wevtapi.dll", kEvtNames);  // even a good library is not tried again
        ops.hasSystemRoot = true;
        ops.systemRoot = L"C:\\windows";
        EXPECT_FALSE(WinEventLogAPIInitializer::isEvtApiAvailable());
        EXPECT_EQ(ops.loads.size(), c.loads);
    }
}

TEST_F(LoaderQuirks, ForcedLegacyApiNeverLoads) {
    ops.add(L"wevtapi.dll", kEvtNames);
    WinEventLogAPIInitializer::setForceLegacyApi(true);
    EXPECT_FALSE(WinEventLogAPIInitializer::initWinEvtApi());
    EXPECT_FALSE(WinEventLogAPIInitializer::isEvtApiAvailable());
    EXPECT_TRUE(ops.loads.empty());
}

TEST_F(LoaderQuirks, CollectorGroupJudgesTwoNamesByEventLogSlots) {
    struct Case {
        const char* label;
        bool evtLoaded;
        std::string missing;
        bool available;
        std::string named;  // the name in the failure message, if any
    };
    const Case cases[] = {
        {"all present", true, "", true, ""},
        {"EcSaveSubscription missing", true, "EcSaveSubscription", true, ""},
        {"EcGetSubscriptionProperty missing", true, "EcGetSubscriptionProperty", true, ""},
        {"EcOpenSubscription missing", true, "EcOpenSubscription", false, "EcOpenSubscription"},
        {"EcRetrySubscription missing", true, "EcRetrySubscription", false, "EcRetrySubscription"},
        {"no event log group", false, "", false, "EcGetSubscriptionProperty"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        WinEventLogAPIInitializer::resetForTesting();
        log.clear();
        ops.add(L"wevtapi.dll", kEvtNames);
        ops.add(L"Wecapi.dll", kEcNames, c.missing);
        if (c.evtLoaded) {
            ASSERT_TRUE(WinEventLogAPIInitializer::isEvtApiAvailable());
        }
        EXPECT_EQ(WinEventLogAPIInitializer::isEcApiAvailable(), c.available);
        if (!c.named.empty()) {
            EXPECT_TRUE(log.has(kError, "WinEventLogAPIInitializer::initWinEcApi: Failed to get proc address for '" +
                                            c.named + "' dll function."))
                << log.dump();
            EXPECT_EQ(ops.refs(L"Wecapi.dll"), 0);
            EXPECT_EQ(apiTable().ec.EcClose, nullptr);
        } else {
            EXPECT_EQ(ops.refs(L"Wecapi.dll"), 1);
        }
        ops.remove(L"Wecapi.dll");
        ops.remove(L"wevtapi.dll");
    }
}

TEST_F(LoaderQuirks, CollectorGroupIsRetriedUntilItLoads) {
    ops.add(L"wevtapi.dll", kEvtNames);
    ASSERT_TRUE(WinEventLogAPIInitializer::isEvtApiAvailable());
    EXPECT_FALSE(WinEventLogAPIInitializer::isEcApiAvailable());
    EXPECT_TRUE(log.has(kError, "WinEventLogAPIInitializer::initWinEcApi: Could not LoadLibraryW for Wecapi.dll: "
                                "errorcode: 126."))
        << log.dump();
    ops.add(L"Wecapi.dll", kEcNames).hiddenAfterLoad = true;
    EXPECT_FALSE(WinEventLogAPIInitializer::isEcApiAvailable());
    EXPECT_TRUE(log.contains("initWinEcApi: Could not GetModuleHandleW for Wecapi.dll: ")) << log.dump();
    EXPECT_EQ(ops.refs(L"Wecapi.dll"), 0);
    ops.add(L"Wecapi.dll", kEcNames);
    EXPECT_TRUE(WinEventLogAPIInitializer::isEcApiAvailable());
    EXPECT_EQ(ops.loads.size(), 4u);
    EXPECT_TRUE(WinEventLogAPIInitializer::isEcApiAvailable());
    EXPECT_EQ(ops.loads.size(), 4u);  // once available, never loaded again
}

TEST_F(LoaderQuirks, DirectoryGroup) {
    struct Case {
        const char* label;
        bool netapi, ntdsapi, ntdsHidden;
        std::string missing;
        bool available;
        std::string message;
        bool ntdsFilled;
    };
    const std::string prefix = "WinEventLogAPIInitializer::initADSApi: ";
    const Case cases[] = {
        {"all present", true, true, false, "", true, "", true},
        {"Ntdsapi hidden after load", true, true, true, "", true, "", false},
        {"no Netapi32", false, true, false, "", false, prefix + "Unable to get module handle for Dnsapi.dll", false},
        {"no Ntdsapi", true, false, false, "", false, prefix + "Unable to get module handle for Ntdsapi.dll", false},
        {"NetApiBufferFree missing", true, true, false, "NetApiBufferFree", false,
         prefix + "Failed to get proc address for 'NetApiBufferFree' dll function.", false},
        {"DsFreeSchemaGuidMapW missing", true, true, false, "DsFreeSchemaGuidMapW", false,
         prefix + "Failed to get proc address for 'DsFreeSchemaGuidMapW' dll function.", false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        WinEventLogAPIInitializer::resetForTesting();
        log.clear();
        ops.remove(L"Netapi32.dll");
        ops.remove(L"Ntdsapi.dll");
        if (c.netapi) ops.add(L"Netapi32.dll", kNetapiNames, c.missing);
        if (c.ntdsapi) ops.add(L"Ntdsapi.dll", kNtdsapiNames, c.missing).hiddenAfterLoad = c.ntdsHidden;
        EXPECT_EQ(WinEventLogAPIInitializer::isAdsApiAvailable(), c.available);
        if (!c.message.empty()) {
            EXPECT_TRUE(log.has(kError, c.message)) << log.dump();
        }
        EXPECT_EQ(apiTable().ds.DsBindW != nullptr, c.ntdsFilled);
        EXPECT_EQ(apiTable().ds.DsGetDcNameW != nullptr, c.available);
        if (!c.available) {
            EXPECT_EQ(ops.refs(L"Netapi32.dll"), 0);
            EXPECT_EQ(ops.refs(L"Ntdsapi.dll"), 0);
        }
        // Tried once: a second query answers from the first attempt.
        size_t loads = ops.loads.size();
        EXPECT_TRUE(WinEventLogAPIInitializer::initADSApi());
        EXPECT_EQ(WinEventLogAPIInitializer::isAdsApiAvailable(), c.available);
        EXPECT_EQ(ops.loads.size(), loads);
    }
}
