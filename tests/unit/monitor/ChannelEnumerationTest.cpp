#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "LogCapture.h"
#include "eventlog/EvtApi.h"
#include "eventlog/WinEventLogAPIInitializer.h"
#include "monitor/WinEventMon.h"

using namespace skorva;
using skorva::test::LogCapture;

namespace {

// A channel enumeration played through the entry-point table.
struct PlayedEnum {
    std::vector<std::wstring> paths;
    size_t next = 0;
    size_t failAt = SIZE_MAX;  // index at which a call fails with ERROR_ACCESS_DENIED
    bool openFails = false;
    std::vector<DWORD> sizesOffered;
    int closes = 0;
};
PlayedEnum* played = nullptr;
EVT_HANDLE const kEnumHandle = reinterpret_cast<EVT_HANDLE>(0x4711);

EVT_HANDLE WINAPI openChannelEnum(EVT_HANDLE, DWORD) {
    if (played->openFails) {
        ::SetLastError(ERROR_ACCESS_DENIED);
        return nullptr;
    }
    return kEnumHandle;
}

BOOL WINAPI nextChannelPath(EVT_HANDLE h, DWORD size, LPWSTR buffer, PDWORD used) {
    EXPECT_EQ(h, kEnumHandle);
    played->sizesOffered.push_back(size);
    if (played->next == played->failAt) {
        ::SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
    if (played->next >= played->paths.size()) {
        ::SetLastError(ERROR_NO_MORE_ITEMS);
        return FALSE;
    }
    const std::wstring& path = played->paths[played->next];
    *used = static_cast<DWORD>(path.size() + 1);
    if (!buffer || size < *used) {
        ::SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return FALSE;
    }
    wmemcpy(buffer, path.c_str(), path.size() + 1);
    ++played->next;
    return TRUE;
}

BOOL WINAPI closeHandle(EVT_HANDLE h) {
    EXPECT_EQ(h, kEnumHandle);
    ++played->closes;
    return TRUE;
}

class ChannelEnumeration : public ::testing::Test {
protected:
    void SetUp() override {
        played = &enumeration;
        WinEventLogAPIInitializer::resetForTesting();
        apiTable().evt.EvtOpenChannelEnum = &openChannelEnum;
        apiTable().evt.EvtNextChannelPath = &nextChannelPath;
        apiTable().evt.EvtClose = &closeHandle;
        WinEventLogAPIInitializer::useFilledEvtTableForTesting(true);
    }
    void TearDown() override {
        WinEventLogAPIInitializer::resetForTesting();
        played = nullptr;
    }
    PlayedEnum enumeration;
    LogCapture log;
    WinEventMon mon{L"C:\\skorva-test"};
    const char* fn = "WinEventMon::enumEvtLogChannels: ";
};

}  // namespace

TEST_F(ChannelEnumeration, BufferGrowsOnlyToTheReportedSize) {
    enumeration.paths = {L"Application", L"Security", L"Microsoft-Windows-Sysmon/Operational", L"System"};
    ASSERT_TRUE(mon.enumEvtLogChannels());
    // No buffer at first; then exactly what each failing call reported.
    EXPECT_EQ(enumeration.sizesOffered, (std::vector<DWORD>{0, 12, 12, 12, 37, 37, 37}));
    EXPECT_EQ(mon.knownChannels(), (WinEventMon::KnownChannelMap{{"application", "Application"},
                                                                  {"microsoft-windows-sysmon/operational",
                                                                   "Microsoft-Windows-Sysmon/Operational"},
                                                                  {"security", "Security"},
                                                                  {"system", "System"}}));
    EXPECT_EQ(enumeration.closes, 1);
    EXPECT_TRUE(log.has(LogLevel::Debug, std::string(fn) + "enumerate existing channels"));
    EXPECT_TRUE(log.has(LogLevel::Info, std::string(fn) + "enumerate event log channels in Vista/2008 systems and above"));
    EXPECT_TRUE(log.has(LogLevel::Info, std::string(fn) + "Find channel Microsoft-Windows-Sysmon/Operational"));
    EXPECT_FALSE(log.contains("Failed"));
}

TEST_F(ChannelEnumeration, LaterSpellingOfTheSameChannelWins) {
    enumeration.paths = {L"security", L"Security"};
    ASSERT_TRUE(mon.enumEvtLogChannels());
    EXPECT_EQ(mon.knownChannels(), (WinEventMon::KnownChannelMap{{"security", "Security"}}));
}

TEST_F(ChannelEnumeration, FailureMidwayKeepsChannelsFound) {
    enumeration.paths = {L"Application", L"Security"};
    enumeration.failAt = 1;
    EXPECT_TRUE(mon.enumEvtLogChannels());
    EXPECT_EQ(mon.knownChannels().size(), 1u);
    EXPECT_TRUE(log.has(LogLevel::Error, std::string(fn) + "Failed to get next enumerated channel (error 5)\n."))
        << log.dump();
    EXPECT_EQ(enumeration.closes, 1);
}

TEST_F(ChannelEnumeration, EnumerationThatCannotOpen) {
    enumeration.openFails = true;
    EXPECT_FALSE(mon.enumEvtLogChannels());
    EXPECT_TRUE(log.has(LogLevel::Error, std::string(fn) + "Failed to enumerate event log channels: '(5)'."));
    EXPECT_TRUE(mon.knownChannels().empty());
}

TEST_F(ChannelEnumeration, RegistryListWithoutTheModernApi) {
    WinEventLogAPIInitializer::setForceLegacyApi(true);
    ASSERT_TRUE(mon.enumEvtLogChannels());
    EXPECT_TRUE(log.has(LogLevel::Info, std::string(fn) + "enumerate existing channels on XP/2003 systems"));
    // The test prefix registers the classic Application and System logs.
    ASSERT_EQ(mon.knownChannels().count("application"), 1u) << log.dump();
    EXPECT_EQ(mon.knownChannels().at("application"), "Application");
    EXPECT_EQ(mon.knownChannels().count("system"), 1u);
    EXPECT_TRUE(log.has(LogLevel::Info, std::string(fn) + "Find channel Application"));
    EXPECT_TRUE(enumeration.sizesOffered.empty());
}
