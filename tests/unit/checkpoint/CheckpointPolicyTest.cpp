// When a channel writes its checkpoint, and bookmarks to and from the file,
// against the simulated event log.
#include <gtest/gtest.h>

#include "CheckpointTestSupport.h"
#include "EvtsimInProcess.h"
#include "LogCapture.h"
#include "channel/WinEventLogChannel.h"
#include "platform/Clock.h"
#include "platform/Paths.h"

namespace skorva {
namespace {

using test::bookmarkXml;
using test::LogCapture;

class CheckpointPolicy : public ::testing::Test {
protected:
    void SetUp() override {
        store_.createChannel("Security");
        evtsim::EventSpec e;
        for (int i = 0; i < 40; ++i) store_.append("Security", e);  // record ids 1..40
        open(EvtQueryForwardDirection);
        handlesBefore_ = evtsim::openHandleCount();
    }
    void TearDown() override {
        EXPECT_EQ(evtsim::openHandleCount(), handlesBefore_) << "a bookmark or event handle leaked";
    }
    void open(DWORD direction) {
        results_.reset(evtApi().EvtQuery(nullptr, L"Security", L"*", EvtQueryChannelPath | direction));
        ASSERT_TRUE(results_.valid());
    }
    std::unique_ptr<WinEventLogChannel> makeChannel(uint64_t intervalMs, bool sync = true,
                                                    const std::string& name = "Security") {
        ChannelSettings settings;
        settings.checkpointDir = dir_.path() + L"\\persistentstorage\\WinEventLog";  // made by the first save
        settings.checkpointIntervalMs = intervalMs;
        settings.checkpointSync = sync;
        return std::make_unique<WinEventLogChannel>(name, settings);
    }
    // Reads the next event, checkpoints it and closes it at once, as the caller may.
    bool send(WinEventLogChannel& ch, uint64_t recordId, bool force = false) {
        EVT_HANDLE raw = nullptr;
        DWORD got = 0;
        EXPECT_TRUE(evtApi().EvtNext(results_.get(), 1, &raw, 0, 0, &got));
        UniqueEvtHandle event(raw);
        return ch.checkPoint(event.get(), recordId, force);
    }
    static std::string content(const WinEventLogChannel& ch, const std::wstring& suffix = L"") {
        return test::readRaw(ch.checkpointFilePath() + (suffix.empty() ? L"" : L"_" + suffix));
    }

    ManualClock clock_;
    ScopedClock scopedClock_{clock_};
    test::EvtsimStore store_;
    test::TempDir dir_;
    UniqueEvtHandle results_;
    size_t handlesBefore_ = 0;
};

TEST_F(CheckpointPolicy, IntervalWritesOncePerIntervalAlwaysTheNewest) {
    for (bool sync : {true, false}) {
        SCOPED_TRACE(sync);
        open(EvtQueryForwardDirection);
        auto ch = makeChannel(10000, sync);
        const std::wstring path = ch->checkpointFilePath();
        std::vector<int> writtenAt;
        std::string last;
        for (int s = 1; s <= 35; ++s) {
            clock_.advance(1000);
            ASSERT_TRUE(send(*ch, s));
            const std::string now = test::readRaw(path);
            if (now != last) {
                writtenAt.push_back(s);
                EXPECT_EQ(now, bookmarkXml("Security", s));
                last = now;
            }
        }
        EXPECT_EQ(writtenAt, (std::vector<int>{10, 20, 30}));
        EXPECT_TRUE(ch->hasPendingCheckpoint());
        ch.reset();  // stopping writes the newest sent event at once
        EXPECT_EQ(test::readRaw(path), bookmarkXml("Security", 35));
        ::DeleteFileW(path.c_str());
    }
}

TEST_F(CheckpointPolicy, ForcedCallWritesAtOnceAndRestartsTheInterval) {
    auto ch = makeChannel(10000);
    clock_.advance(3000);
    ASSERT_TRUE(send(*ch, 1));
    EXPECT_EQ(content(*ch), "");
    ASSERT_TRUE(send(*ch, 2, true));
    EXPECT_EQ(content(*ch), bookmarkXml("Security", 2));
    EXPECT_FALSE(ch->hasPendingCheckpoint());
    clock_.advance(9999);
    ASSERT_TRUE(send(*ch, 3));
    EXPECT_EQ(content(*ch), bookmarkXml("Security", 2));
    clock_.advance(1);
    ASSERT_TRUE(send(*ch, 4));
    EXPECT_EQ(content(*ch), bookmarkXml("Security", 4));
}

TEST_F(CheckpointPolicy, ZeroIntervalWritesEveryCallNeverIntervalOnlyAtTheEnd) {
    auto every = makeChannel(0);
    for (uint64_t rec = 1; rec <= 3; ++rec) {
        ASSERT_TRUE(send(*every, rec));
        EXPECT_EQ(content(*every), bookmarkXml("Security", rec));
    }
    every.reset();
    auto never = makeChannel(UINT64_MAX, true, "Application");
    const std::wstring path = never->checkpointFilePath();
    for (uint64_t rec = 4; rec <= 6; ++rec) {
        clock_.advance(24ull * 3600 * 1000);
        ASSERT_TRUE(send(*never, rec));
    }
    EXPECT_FALSE(pathExists(path));
    never.reset();
    EXPECT_EQ(test::readRaw(path), bookmarkXml("Security", 6));
}

TEST_F(CheckpointPolicy, ServiceFailuresAreReportedAndRetriedWithTheNewerEvent) {
    auto ch = makeChannel(10000);
    clock_.advance(10000);
    struct Case {
        const char* fault;
        const char* message;
    } cases[] = {
        {"EvtCreateBookmark=8,once", "Failed to create Windows event log bookmark event, channel='Security'"},
        {"EvtUpdateBookmark:Security=6,once", "Failed to update Windows Event Log bookmark, channel='Security'"},
        {"EvtRender=87,once", "Failed to render Windows Event Log bookmark, channel='Security'"},
    };
    uint64_t rec = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fault);
        store_.setFaults(c.fault);
        LogCapture log;
        EXPECT_FALSE(send(*ch, ++rec, true));
        EXPECT_TRUE(log.has(LogLevel::Error, std::string("WinEventLogChannel::saveBookMark: ") + c.message))
            << log.dump();
        EXPECT_TRUE(log.has(LogLevel::Debug, "WinEventLogChannel::checkPoint: Failed to save bookmark for Windows "
                                             "Event Log channel='Security', rec_id='" + std::to_string(rec) + "'"));
    }
    store_.setFaults("");
    EXPECT_FALSE(pathExists(ch->checkpointFilePath()));
    ASSERT_TRUE(send(*ch, ++rec));  // still due: no interval began after the failures
    EXPECT_EQ(content(*ch), bookmarkXml("Security", rec));

    LogCapture log;
    EXPECT_FALSE(ch->checkPoint(nullptr, 9, true));
    EXPECT_TRUE(log.has(LogLevel::Debug, "WinEventLogChannel::checkPoint: Checkpointing for Windows Event Log "
                                         "channel='Security' at rec_id='9' failed because evtHandle is NULL"));
}

TEST_F(CheckpointPolicy, RestoredBookmarkResumesAfterTheSavedEvent) {
    auto ch = makeChannel(0);
    {
        LogCapture log;
        EXPECT_FALSE(ch->getBookMark());
        EXPECT_TRUE(log.has(LogLevel::Info, "WinEventLogChannel::getBookMark: No checkpoint file available"));
    }
    for (uint64_t rec = 1; rec <= 3; ++rec) ASSERT_TRUE(send(*ch, rec));
    Bookmark bookmark = ch->getBookMark();
    ASSERT_TRUE(bookmark.valid());
    open(EvtQueryForwardDirection);
    ASSERT_TRUE(evtApi().EvtSeek(results_.get(), 1, bookmark.get(), 0, EvtSeekRelativeToBookmark));
    bookmark.reset();
    ASSERT_TRUE(send(*ch, 4));  // the event read after the seek
    EXPECT_EQ(content(*ch), bookmarkXml("Security", 4));

    test::writeRaw(ch->checkpointFilePath(), "not a bookmark");
    LogCapture log;
    EXPECT_FALSE(ch->getBookMark());
    EXPECT_TRUE(log.has(LogLevel::Info, "WinEventLogChannel::getBookMark Failed to create bookmark handle from "
                                        "checkpoint file: not a bookmark"));
}

// The file name the command line's checkpoint removal looks for.
TEST_F(CheckpointPolicy, ChannelPathIsSanitizedIntoTheFileName) {
    auto ch = makeChannel(0, true, "Microsoft-Windows-Sysmon/Operational");
    ASSERT_TRUE(send(*ch, 1));
    const std::wstring expected = L"\\persistentstorage\\WinEventLog\\Microsoft-Windows-Sysmon_Operational_checkpoint";
    EXPECT_EQ(test::readRaw(dir_.path() + expected), bookmarkXml("Security", 1));
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
}

}  // namespace
}  // namespace skorva
