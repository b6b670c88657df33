// When a channel's checkpoint is written, and bookmarks to and from the file,
// against the simulated event log.
#include <gtest/gtest.h>

#include "CheckpointTestSupport.h"
#include "EvtsimInProcess.h"
#include "checkpoint/CheckpointPolicy.h"
#include "platform/Clock.h"
#include "platform/Paths.h"
#include "platform/Strings.h"

namespace skorva {
namespace {

using test::bookmarkXml;

// A channel's policy with the settings it holds.
struct Channel {
    Channel(const std::string& name, ChannelSettings s) : name(name), nameW(widen(name)), settings(std::move(s)) {}
    std::string name;
    std::wstring nameW;
    ChannelSettings settings;
    CheckpointPolicy policy{name, nameW, settings};
};

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
    std::unique_ptr<Channel> makeChannel(uint64_t intervalMs, bool sync = true, const std::string& name = "Security") {
        ChannelSettings settings;
        settings.checkpointDir = dir_.path() + L"\\persistentstorage\\WinEventLog";  // made by the first save
        settings.checkpointIntervalMs = intervalMs;
        settings.checkpointSync = sync;
        return std::make_unique<Channel>(name, settings);
    }
    // Reads the next event, checkpoints it and closes it at once, as the caller may.
    bool send(Channel& ch, uint64_t recordId, bool force = false) {
        EVT_HANDLE raw = nullptr;
        DWORD got = 0;
        EXPECT_TRUE(evtApi().EvtNext(results_.get(), 1, &raw, 0, 0, &got));
        UniqueEvtHandle event(raw);
        return ch.policy.checkPoint(event.get(), recordId, force);
    }
    static std::string content(const Channel& ch) { return test::readRaw(ch.policy.checkpointFilePath()); }

    ManualClock clock_;
    ScopedClock scopedClock_{clock_};
    test::EvtsimStore store_;
    test::TempDir dir_;
    UniqueEvtHandle results_;
    size_t handlesBefore_ = 0;
};

// (The save in either mode is CheckpointFile's; the policy only hands the mode on.)
TEST_F(CheckpointPolicy, IntervalWritesOncePerIntervalAlwaysTheNewest) {
    auto ch = makeChannel(10000);
    const std::wstring path = ch->policy.checkpointFilePath();
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
    EXPECT_TRUE(ch->policy.hasPendingCheckpoint());
    ch->policy.finalCheckpoint();  // stopping writes the newest sent event at once
    EXPECT_EQ(test::readRaw(path), bookmarkXml("Security", 35));
}

TEST_F(CheckpointPolicy, ForcedCallWritesAtOnceAndRestartsTheInterval) {
    auto ch = makeChannel(10000);
    clock_.advance(3000);
    ASSERT_TRUE(send(*ch, 1));
    EXPECT_EQ(content(*ch), "");
    ASSERT_TRUE(send(*ch, 2, true));
    EXPECT_EQ(content(*ch), bookmarkXml("Security", 2));
    EXPECT_FALSE(ch->policy.hasPendingCheckpoint());
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
    auto never = makeChannel(UINT64_MAX, true, "Application");
    const std::wstring path = never->policy.checkpointFilePath();
    for (uint64_t rec = 4; rec <= 6; ++rec) {
        clock_.advance(24ull * 3600 * 1000);
        ASSERT_TRUE(send(*never, rec));
    }
    EXPECT_FALSE(pathExists(path));
    never->policy.finalCheckpoint();
    EXPECT_EQ(test::readRaw(path), bookmarkXml("Security", 6));
}

// A failed write keeps the event pending: the next due call writes a newer one.
TEST_F(CheckpointPolicy, ServiceFailuresAreRetriedWithTheNewerEvent) {
    auto ch = makeChannel(10000);
    clock_.advance(10000);
    uint64_t rec = 0;
    for (const char* fault : {"EvtCreateBookmark=8,once", "EvtUpdateBookmark:Security=6,once", "EvtRender=87,once"}) {
        store_.setFaults(fault);
        EXPECT_FALSE(send(*ch, ++rec, true)) << fault;
    }
    store_.setFaults("");
    EXPECT_FALSE(pathExists(ch->policy.checkpointFilePath()));
    ASSERT_TRUE(send(*ch, ++rec));  // still due: no interval began after the failures
    EXPECT_EQ(content(*ch), bookmarkXml("Security", rec));
    EXPECT_FALSE(ch->policy.checkPoint(nullptr, 9, true));  // nothing to write
}

}  // namespace
}  // namespace skorva
