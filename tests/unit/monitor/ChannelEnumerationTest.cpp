// The channels the system knows, through the simulated event log's enumeration.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "EvtsimInProcess.h"
#include "LogCapture.h"
#include "eventlog/EvtApi.h"
#include "eventlog/WinEventLogAPIInitializer.h"
#include "channel/WinEventLogChannel.h"
#include "monitor/ChannelCatalog.h"

using namespace skorva;
using skorva::test::LogCapture;

namespace {

// The sizes offered to EvtNextChannelPath, on the way to evtsim.
std::vector<DWORD> sizesOffered;
BOOL WINAPI nextChannelPath(EVT_HANDLE h, DWORD size, LPWSTR buffer, PDWORD used) {
    sizesOffered.push_back(size);
    return evtsim::EvtNextChannelPath(h, size, buffer, used);
}

class ChannelEnumeration : public ::testing::Test {
protected:
    void SetUp() override {
        sizesOffered.clear();
        WinEventLogAPIInitializer::useFilledEvtTableForTesting(true);
        apiTable().evt.EvtNextChannelPath = &nextChannelPath;
        for (const char* name : {"Application", "Microsoft-Windows-Sysmon/Operational", "Security", "System"})
            store.createChannel(name);
    }
    void TearDown() override { test::installEvtsimApi(); }
    test::EvtsimStore store;
    LogCapture log;
    ChannelCatalog catalog;
    const std::string fn = "WinEventMon::enumEvtLogChannels: ";
};

}  // namespace

TEST_F(ChannelEnumeration, BufferGrowsOnlyToTheReportedSize) {
    catalog.known()["security"] = "security";  // a later spelling of a channel wins
    ASSERT_TRUE(catalog.enumerate());
    // No buffer at first; then exactly what each failing call reported, in
    // characters with the terminator; the end is ERROR_NO_MORE_ITEMS, no failure.
    EXPECT_EQ(sizesOffered, (std::vector<DWORD>{0, 12, 12, 37, 37, 37, 37}));
    EXPECT_FALSE(log.contains("Failed to get next enumerated channel"));
    EXPECT_EQ(catalog.known(), (ChannelCatalog::KnownChannelMap{{"application", "Application"},
                                                                {"microsoft-windows-sysmon/operational",
                                                                 "Microsoft-Windows-Sysmon/Operational"},
                                                                {"security", "Security"},
                                                                {"system", "System"}}));
}

TEST_F(ChannelEnumeration, FailuresKeepChannelsFound) {
    store.setFaults("EvtNextChannelPath=5,from=3");
    EXPECT_TRUE(catalog.enumerate());
    EXPECT_EQ(catalog.known().size(), 1u);
    EXPECT_TRUE(log.has(LogLevel::Error, fn + "Failed to get next enumerated channel (error 5)\n."));

    ChannelCatalog none;
    store.setFaults("EvtOpenChannelEnum=5");
    EXPECT_FALSE(none.enumerate());
    EXPECT_TRUE(log.has(LogLevel::Error, fn + "Failed to enumerate event log channels: '(5)'."));
    EXPECT_TRUE(none.known().empty());
}

// The system's loader, but without SystemRoot: the modern group cannot be
// loaded, so the classic logs are listed from the registry and read through
// the classic API (advapi32's, always there).
struct NoSystemRoot : LibraryOps {
    HMODULE getModuleHandle(const wchar_t* name) override {
        return _wcsicmp(name, L"wevtapi.dll") ? sys().getModuleHandle(name) : nullptr;
    }
    HMODULE loadLibrary(const wchar_t* path) override { return sys().loadLibrary(path); }
    FARPROC getProcAddress(HMODULE module, const char* name) override { return sys().getProcAddress(module, name); }
    void freeLibrary(HMODULE module) override { sys().freeLibrary(module); }
    DWORD getEnvironmentVariable(const wchar_t*, wchar_t*, DWORD) override { return 0; }
    void printError(const char*) override {}  // the text: LoaderQuirks
    static LibraryOps& sys() { return systemLibraryOps(); }
};

TEST_F(ChannelEnumeration, WithoutTheModernApiTheClassicLogsAreListedAndRead) {
    NoSystemRoot ops;
    WinEventLogAPIInitializer::resetForTesting();
    WinEventLogAPIInitializer::setLibraryOps(&ops);
    EXPECT_FALSE(WinEventLogAPIInitializer::isEvtApiAvailable());
    EXPECT_TRUE(WinEventLogAPIInitializer::isLegacyApiAvailable());
    EXPECT_NE(apiTable().legacy.NotifyChangeEventLog, nullptr);
    ASSERT_TRUE(catalog.enumerate());
    // The test prefix registers the classic Application and System logs.
    EXPECT_EQ(catalog.known().count("application"), 1u);
    EXPECT_EQ(catalog.known().count("system"), 1u);
    EXPECT_EQ(catalog.known().count("security"), 0u);  // evtsim's own list is not asked
    EXPECT_EQ(catalog.known().count("parameters"), 0u);  // the service's own key, which Wine's prefix has too

    test::installEvtsimLegacyApi();
    store.append("Application", evtsim::EventSpec{});
    {
        WinEventLogChannel channel("Application", ChannelSettings{});
        ASSERT_TRUE(channel.init()) << log.dump();
        EXPECT_TRUE(channel.legacy());
        EventBatch records;
        channel.getEventsNew(records);
        EXPECT_EQ(records.size(), 1u);
    }
    WinEventLogAPIInitializer::setLibraryOps(nullptr);
    WinEventLogAPIInitializer::resetForTesting();
    WinEventLogAPIInitializer::useFilledEvtTableForTesting(true);
}
