// Bookmarks against the simulated event log: what is saved is the service's own
// text, and what is restored resumes reading right after the saved event.
#include <gtest/gtest.h>

#include <regex>

#include "CheckpointTestSupport.h"
#include "EvtsimInProcess.h"
#include "LogCapture.h"
#include "channel/WinEventLogChannel.h"
#include "checkpoint/WELCheckPoint.h"
#include "platform/Clock.h"
#include "platform/Strings.h"

namespace skorva {
namespace {

std::vector<UniqueEvtHandle> next(EVT_HANDLE results, DWORD count) {
    std::vector<EVT_HANDLE> raw(count);
    DWORD got = 0;
    std::vector<UniqueEvtHandle> out;
    if (evtApi().EvtNext(results, count, raw.data(), 0, 0, &got))
        for (DWORD i = 0; i < got; ++i) out.emplace_back(raw[i]);
    return out;
}

uint64_t recordIdOf(EVT_HANDLE event) {
    DWORD used = 0, count = 0;
    evtApi().EvtRender(nullptr, event, EvtRenderEventXml, 0, nullptr, &used, &count);
    std::wstring xml(used / sizeof(wchar_t), L'\0');
    if (!evtApi().EvtRender(nullptr, event, EvtRenderEventXml, used, xml.data(), &used, &count)) return 0;
    std::wsmatch m;
    const std::wstring text = xml.c_str();
    return std::regex_search(text, m, std::wregex(L"<EventRecordID>(\\d+)<")) ? std::stoull(m[1].str()) : 0;
}

class CheckpointEvtsim : public ::testing::Test {
protected:
    void SetUp() override {
        store_.createChannel("Application");
        evtsim::EventSpec e;
        for (int i = 0; i < 6; ++i) store_.append("Application", e);
    }
    std::unique_ptr<WinEventLogChannel> makeChannel(uint64_t intervalMs) {
        ChannelSettings settings;
        settings.checkpointDir = dir_.path() + L"\\WinEventLog";
        settings.checkpointIntervalMs = intervalMs;
        settings.checkpointSync = true;
        return std::make_unique<WinEventLogChannel>("Application", settings);
    }
    UniqueEvtHandle query(DWORD direction) {
        return UniqueEvtHandle(evtApi().EvtQuery(nullptr, L"Application", L"*", EvtQueryChannelPath | direction));
    }

    ManualClock clock_;
    ScopedClock scopedClock_{clock_};
    test::EvtsimStore store_;
    test::TempDir dir_;
};

TEST_F(CheckpointEvtsim, SavedBookmarkResumesAfterTheSavedEvent) {
    auto ch = makeChannel(0);
    {
        UniqueEvtHandle results = query(EvtQueryForwardDirection);
        auto events = next(results.get(), 3);
        ASSERT_EQ(events.size(), 3u);
        ASSERT_EQ(recordIdOf(events[2].get()), 3u);
        ASSERT_TRUE(ch->checkPoint(events[2].get(), 3, false));
    }
    EXPECT_EQ(test::readRaw(ch->checkpointFilePath()), test::bookmarkXml("Application", 3));
    EXPECT_TRUE(WELCheckPointBase::validateCheckpointStr(ch->checkpointFilePath()));

    UniqueEvtHandle bookmark = ch->getBookMark();
    ASSERT_TRUE(bookmark.valid());
    UniqueEvtHandle results = query(EvtQueryForwardDirection);
    ASSERT_TRUE(evtApi().EvtSeek(results.get(), 1, bookmark.get(), 0, EvtSeekRelativeToBookmark));
    auto rest = next(results.get(), 10);
    ASSERT_EQ(rest.size(), 3u);
    EXPECT_EQ(recordIdOf(rest[0].get()), 4u);
}

TEST_F(CheckpointEvtsim, IntervalKeepsTheNewestAfterTheCallerClosedIt) {
    auto ch = makeChannel(10000);
    UniqueEvtHandle results = query(EvtQueryForwardDirection);
    for (uint64_t rec = 1; rec <= 6; ++rec) {
        clock_.advance(1000);
        auto events = next(results.get(), 1);
        ASSERT_EQ(events.size(), 1u);
        ASSERT_TRUE(ch->checkPoint(events[0].get(), rec, false));
    }  // every event handle is closed by now
    const std::wstring path = ch->checkpointFilePath();
    EXPECT_FALSE(test::exists(path));
    ch.reset();
    EXPECT_EQ(test::readRaw(path), test::bookmarkXml("Application", 6));
}

TEST_F(CheckpointEvtsim, ReverseQueryBookmarkPassesThroughUnchanged) {
    auto ch = makeChannel(0);
    ch->setReversePhase(true);
    UniqueEvtHandle results = query(EvtQueryReverseDirection);
    auto events = next(results.get(), 2);
    ASSERT_EQ(events.size(), 2u);
    ASSERT_TRUE(ch->checkPoint(events[0].get(), 6, false));
    ASSERT_TRUE(ch->checkPoint(events[1].get(), 5, false));
    const std::string backward = "<BookmarkList Direction='backward'>\r\n  <Bookmark Channel='Application' RecordId='";
    EXPECT_EQ(test::readRaw(ch->checkpointFilePath()), backward + "5' IsCurrent='true'/>\r\n</BookmarkList>");
    EXPECT_EQ(test::readRaw(ch->checkpointFilePath() + L"_reverse"),
              backward + "6' IsCurrent='true'/>\r\n</BookmarkList>");
    EXPECT_TRUE(ch->getBookMark(L"reverse").valid());
}

TEST_F(CheckpointEvtsim, ServiceFailuresAreReportedAndSurvived) {
    auto ch = makeChannel(0);
    UniqueEvtHandle results = query(EvtQueryForwardDirection);
    auto events = next(results.get(), 2);
    ASSERT_EQ(events.size(), 2u);
    struct Case {
        const char* fault;
        const char* message;
    } cases[] = {
        {"EvtCreateBookmark=8,once", "Failed to create Windows event log bookmark event, channel='Application'"},
        {"EvtUpdateBookmark:Application=6,once", "Failed to update Windows Event Log bookmark, channel='Application'"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fault);
        store_.setFaults(c.fault);
        test::LogCapture log;
        EXPECT_FALSE(ch->checkPoint(events[0].get(), 1, false));
        EXPECT_TRUE(log.has(LogLevel::Error, std::string("WinEventLogChannel::saveBookMark: ") + c.message))
            << log.dump();
        EXPECT_FALSE(test::exists(ch->checkpointFilePath()));
    }
    store_.setFaults("");
    EXPECT_TRUE(ch->checkPoint(events[1].get(), 2, false));  // the next call goes through
    EXPECT_EQ(test::readRaw(ch->checkpointFilePath()), test::bookmarkXml("Application", 2));
}

TEST_F(CheckpointEvtsim, ValidationUsesTheServiceParser) {
    const std::wstring path = dir_.file(L"Application_checkpoint");
    const struct {
        std::string content;
        bool valid;
    } cases[] = {
        {test::bookmarkXml("Application", 3), true},
        {"<BookmarkList>\n</BookmarkList>\n", true},
        {"record_id=3,channel=Application", true},
        {"<BookmarkList>\r\n  <Bookmark Chan", false},
        {"x", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.content);
        test::writeRaw(path, c.content);
        EXPECT_EQ(WELCheckPointBase::validateCheckpointStr(path), c.valid);
    }
}

}  // namespace
}  // namespace skorva
