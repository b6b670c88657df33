#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "LogCapture.h"
#include "eventlog/EvtApi.h"
#include "eventlog/WinEventLogAPIInitializer.h"
#include "monitor/ChannelCatalog.h"

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
    ChannelCatalog catalog;
    const char* fn = "WinEventMon::enumEvtLogChannels: ";
};

}  // namespace

TEST_F(ChannelEnumeration, BufferGrowsOnlyToTheReportedSize) {
    enumeration.paths = {L"Application", L"security", L"Security", L"Microsoft-Windows-Sysmon/Operational", L"System"};
    ASSERT_TRUE(catalog.enumerate());
    // No buffer at first; then exactly what each failing call reported.
    EXPECT_EQ(enumeration.sizesOffered, (std::vector<DWORD>{0, 12, 12, 12, 12, 37, 37, 37}));
    // The later spelling of a channel wins.
    EXPECT_EQ(catalog.known(), (ChannelCatalog::KnownChannelMap{{"application", "Application"},
                                                                {"microsoft-windows-sysmon/operational",
                                                                 "Microsoft-Windows-Sysmon/Operational"},
                                                                {"security", "Security"},
                                                                {"system", "System"}}));
    EXPECT_EQ(enumeration.closes, 1);
}

TEST_F(ChannelEnumeration, FailuresKeepChannelsFound) {
    enumeration.paths = {L"Application", L"Security"};
    enumeration.failAt = 1;
    EXPECT_TRUE(catalog.enumerate());
    EXPECT_EQ(catalog.known().size(), 1u);
    EXPECT_TRUE(log.has(LogLevel::Error, std::string(fn) + "Failed to get next enumerated channel (error 5)\n."));
    EXPECT_EQ(enumeration.closes, 1);

    ChannelCatalog none;
    enumeration.openFails = true;
    EXPECT_FALSE(none.enumerate());
    EXPECT_TRUE(log.has(LogLevel::Error, std::string(fn) + "Failed to enumerate event log channels: '(5)'."));
    EXPECT_TRUE(none.known().empty());
}

TEST_F(ChannelEnumeration, RegistryListWithoutTheModernApi) {
    WinEventLogAPIInitializer::setForceLegacyApi(true);
    ASSERT_TRUE(catalog.enumerate());
    // The test prefix registers the classic Application and System logs.
    ASSERT_EQ(catalog.known().count("application"), 1u) << log.dump();
    EXPECT_EQ(catalog.known().at("application"), "Application");
    EXPECT_EQ(catalog.known().count("system"), 1u);
    EXPECT_TRUE(enumeration.sizesOffered.empty());
}
