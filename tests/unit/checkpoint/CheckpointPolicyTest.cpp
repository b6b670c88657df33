// When a channel writes its checkpoint, and bookmarks to and from the file.
#include <gtest/gtest.h>

#include <optional>

#include "CheckpointTestSupport.h"
#include "LogCapture.h"
#include "channel/WinEventLogChannel.h"
#include "platform/Clock.h"
#include "platform/Strings.h"

namespace skorva {
namespace {

using test::bookmarkXml;
using test::FakeBookmarkApi;
using test::LogCapture;

class CheckpointPolicy : public ::testing::Test {
protected:
    std::unique_ptr<WinEventLogChannel> makeChannel(uint64_t intervalMs, bool sync = true,
                                                    const std::string& name = "Security") {
        ChannelSettings settings;
        settings.checkpointDir = dir_.path() + L"\\persistentstorage\\WinEventLog";  // created on first save
        settings.checkpointIntervalMs = intervalMs;
        settings.checkpointSync = sync;
        return std::make_unique<WinEventLogChannel>(name, settings);
    }
    // Checkpoints a freshly read event and closes it at once, as the caller may.
    bool send(WinEventLogChannel& ch, uint64_t recordId, bool force = false) {
        UniqueEvtHandle event = api_.makeEvent(ch.channelNameW(), recordId);
        return ch.checkPoint(event.get(), recordId, force);
    }
    std::string content(const WinEventLogChannel& ch, const std::wstring& suffix = L"") {
        return test::readRaw(ch.checkpointFilePath() + (suffix.empty() ? L"" : L"_" + suffix));
    }

    ManualClock clock_;
    ScopedClock scopedClock_{clock_};
    FakeBookmarkApi api_;
    test::TempDir dir_;
};

TEST_F(CheckpointPolicy, IntervalWritesOncePerIntervalAlwaysTheNewest) {
    for (bool sync : {true, false}) {
        SCOPED_TRACE(sync);
        auto ch = makeChannel(10000, sync);
        const std::wstring path = ch->checkpointFilePath();
        std::vector<int> writtenAt;
        std::string last;
        for (int s = 1; s <= 35; ++s) {
            clock_.advance(1000);
            ASSERT_TRUE(send(*ch, 100 + s));
            const std::string now = test::readRaw(path);
            if (now != last) {
                writtenAt.push_back(s);
                EXPECT_EQ(now, bookmarkXml("Security", 100 + s));
                last = now;
            }
        }
        EXPECT_EQ(writtenAt, (std::vector<int>{10, 20, 30}));
        EXPECT_TRUE(ch->hasPendingCheckpoint());
        ch.reset();  // stopping writes the newest sent event at once
        EXPECT_EQ(test::readRaw(path), bookmarkXml("Security", 135));
        EXPECT_EQ(FakeBookmarkApi::liveHandles(), 0);
        ::DeleteFileW(path.c_str());
    }
}

TEST_F(CheckpointPolicy, ForcedCallWritesAtOnceAndRestartsTheInterval) {
    auto ch = makeChannel(10000);
    clock_.advance(3000);
    ASSERT_TRUE(send(*ch, 3));
    EXPECT_EQ(content(*ch), "");
    ASSERT_TRUE(send(*ch, 4, true));
    EXPECT_EQ(content(*ch), bookmarkXml("Security", 4));
    EXPECT_FALSE(ch->hasPendingCheckpoint());
    clock_.advance(9999);
    ASSERT_TRUE(send(*ch, 5));
    EXPECT_EQ(content(*ch), bookmarkXml("Security", 4));
    clock_.advance(1);
    ASSERT_TRUE(send(*ch, 6));
    EXPECT_EQ(content(*ch), bookmarkXml("Security", 6));
    ch.reset();
    EXPECT_EQ(FakeBookmarkApi::liveHandles(), 0);
}

TEST_F(CheckpointPolicy, ZeroIntervalWritesEveryCall) {
    auto ch = makeChannel(0);
    for (uint64_t rec = 1; rec <= 5; ++rec) {
        ASSERT_TRUE(send(*ch, rec));
        EXPECT_EQ(content(*ch), bookmarkXml("Security", rec));
        EXPECT_FALSE(ch->hasPendingCheckpoint());
    }
    // One size query, then the render buffer is reused for every write.
    EXPECT_EQ(FakeBookmarkApi::renders(), 6);
}

TEST_F(CheckpointPolicy, NeverIntervalWritesOnlyWhenStopped) {
    auto ch = makeChannel(UINT64_MAX);
    const std::wstring path = ch->checkpointFilePath();
    for (uint64_t rec = 1; rec <= 3; ++rec) {
        clock_.advance(24ull * 3600 * 1000);
        ASSERT_TRUE(send(*ch, rec));
    }
    EXPECT_FALSE(test::exists(path));
    ch.reset();
    EXPECT_EQ(test::readRaw(path), bookmarkXml("Security", 3));
}

TEST_F(CheckpointPolicy, FailedWriteIsRetriedWithTheNewerEvent) {
    auto ch = makeChannel(10000);
    clock_.advance(10000);
    FakeBookmarkApi::failRender = true;
    {
        LogCapture log;
        EXPECT_FALSE(send(*ch, 10));
        EXPECT_TRUE(log.has(LogLevel::Error, "WinEventLogChannel::saveBookMark: Failed to render Windows Event Log "
                                             "bookmark, channel='Security'"));
        EXPECT_TRUE(log.has(LogLevel::Debug, "WinEventLogChannel::checkPoint: Failed to save bookmark for Windows "
                                             "Event Log channel='Security', rec_id='10'"));
    }
    FakeBookmarkApi::failRender = false;
    clock_.advance(1000);
    ASSERT_TRUE(send(*ch, 11));  // still due: no new interval began
    EXPECT_EQ(content(*ch), bookmarkXml("Security", 11));
    ch.reset();
    EXPECT_EQ(FakeBookmarkApi::liveHandles(), 0);
}

TEST_F(CheckpointPolicy, BookmarkFailuresCloseEverything) {
    auto ch = makeChannel(0);
    for (bool* fault : {&FakeBookmarkApi::failCreate, &FakeBookmarkApi::failUpdate}) {
        *fault = true;
        LogCapture log;
        EXPECT_FALSE(send(*ch, 1));
        EXPECT_EQ(log.count(LogLevel::Error, "WinEventLogChannel::saveBookMark: Failed to create Windows event log "
                                             "bookmark event, channel='Security'") +
                      log.count(LogLevel::Error, "WinEventLogChannel::saveBookMark: Failed to update Windows Event "
                                                 "Log bookmark, channel='Security'"),
                  1u)
            << log.dump();
        *fault = false;
        EXPECT_EQ(FakeBookmarkApi::liveHandles(), 0);
    }
    EXPECT_FALSE(test::exists(ch->checkpointFilePath()));
}

TEST_F(CheckpointPolicy, NothingToWrite) {
    auto ch = makeChannel(0);
    LogCapture log;
    EXPECT_FALSE(ch->checkPoint(nullptr, 9, true));
    EXPECT_TRUE(log.has(LogLevel::Debug, "WinEventLogChannel::checkPoint: Checkpointing for Windows Event Log "
                                         "channel='Security' at rec_id='9' failed because evtHandle is NULL"));
    ch.reset();
    EXPECT_FALSE(log.contains("Failed to checkpoint"));  // nothing was pending at the end
}

TEST_F(CheckpointPolicy, ReversePhaseBookmarksItsFirstEvent) {
    auto ch = makeChannel(10000);
    ch->setReversePhase(true);
    for (uint64_t rec = 500; rec > 480; --rec) {
        clock_.advance(1000);
        ASSERT_TRUE(send(*ch, rec));
    }
    EXPECT_EQ(content(*ch, L"reverse"), bookmarkXml("Security", 500));
    EXPECT_EQ(content(*ch), bookmarkXml("Security", 481));  // written at 10 s (491) and 20 s
    ch->setReversePhase(false);
    const std::wstring reversePath = ch->checkpointFilePath() + L"_reverse";
    ch.reset();
    EXPECT_EQ(test::readRaw(reversePath), bookmarkXml("Security", 500));  // written once only
    EXPECT_EQ(FakeBookmarkApi::liveHandles(), 0);
}

TEST_F(CheckpointPolicy, RestoresBookmarks) {
    auto ch = makeChannel(0);
    {
        LogCapture log;
        EXPECT_FALSE(ch->getBookMark());
        EXPECT_TRUE(log.has(LogLevel::Info, "WinEventLogChannel::getBookMark: No checkpoint file available"));
    }
    ASSERT_TRUE(send(*ch, 42));
    UniqueEvtHandle bookmark = ch->getBookMark();
    EXPECT_TRUE(bookmark.valid());
    EXPECT_FALSE(ch->getBookMark(L"reverse"));
    bookmark.reset();

    test::writeRaw(ch->checkpointFilePath(), "not a bookmark");
    {
        LogCapture log;
        EXPECT_FALSE(ch->getBookMark());
        EXPECT_TRUE(log.has(LogLevel::Info, "WinEventLogChannel::getBookMark Failed to create bookmark handle from "
                                            "checkpoint file: not a bookmark"));
    }
    test::writeRaw(ch->checkpointFilePath(), "");
    EXPECT_FALSE(ch->getBookMark());
    ch.reset();
    EXPECT_EQ(FakeBookmarkApi::liveHandles(), 0);
}

TEST_F(CheckpointPolicy, DeletesTheCheckpointFile) {
    auto ch = makeChannel(0, true, "Microsoft-Windows-Sysmon/Operational");
    EXPECT_EQ(ch->checkpointFilePath(),
              dir_.path() + L"\\persistentstorage\\WinEventLog\\Microsoft-Windows-Sysmon_Operational_checkpoint");
    ASSERT_TRUE(send(*ch, 1));
    ASSERT_TRUE(test::exists(ch->checkpointFilePath()));
    EXPECT_TRUE(ch->deleteCheckpointFile());
    EXPECT_FALSE(test::exists(ch->checkpointFilePath()));
    LogCapture log;
    EXPECT_FALSE(ch->deleteCheckpointFile());
    EXPECT_TRUE(log.has(LogLevel::Error, "WinEventLogChannel::deleteCheckpointFile: Failed to delete checkpoint file "
                                         "for Windows Event Log channel='Microsoft-Windows-Sysmon/Operational' "));
}

TEST_F(CheckpointPolicy, LegacyChannelWritesACheckpointString) {
    auto ch = makeChannel(10000);
    ch->settings().useOldApi = true;
    clock_.advance(5000);
    ASSERT_TRUE(ch->checkPoint(nullptr, 77, false));
    EXPECT_EQ(content(*ch), "");
    clock_.advance(5000);
    ASSERT_TRUE(ch->checkPoint(nullptr, 78, false));
    EXPECT_EQ(content(*ch), "channel=Security,record_id=78");
    ASSERT_TRUE(ch->checkPoint(nullptr, 79, false));
    const std::wstring path = ch->checkpointFilePath();
    ch.reset();
    EXPECT_EQ(test::readRaw(path), "channel=Security,record_id=79");
    // A legacy file is a valid checkpoint although no bookmark accepts it.
    EXPECT_TRUE(WELCheckPointBase::validateCheckpointStr(path));
}

}  // namespace
}  // namespace skorva
