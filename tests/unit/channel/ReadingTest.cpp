// Opening a channel, reading it in bounded passes, and where reading resumes.
#include <atomic>

#include "ReaderFixture.h"
#include "checkpoint/WELCheckPoint.h"
#include "platform/Paths.h"

namespace skorva::test {
namespace {

using Reading = ReaderTest;

TEST_F(Reading, BatchesAreClampedAndOneCallIsBoundedByThePassLimit) {
    struct {
        int batchSize;
        size_t records;
        uint32_t used;          // batch size in use
        size_t firstCall;       // records read by the first call
        int evtNextCalls;       // EvtNext calls of the first call
        bool pending;
    } cases[] = {
        {0, 3, 1, 3, 4, false},        // outside 1..1000: one event per batch
        {1001, 3, 1, 3, 4, false},
        {10, 25, 10, 25, 4, false},    // a short batch is not the end: "no more items" is
        {1000, 2000, 1000, 2000, 3, false},  // full batches: EvtNext again until it has none
        {10, 3100, 10, 3010, 301, true},     // pass limit 3003, plus the first batch
        {1000, 4500, 1000, 4000, 4, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.batchSize);
        fresh();
        append(c.records);
        ChannelSettings s = settings(c.batchSize);
        s.suppressText = true;
        WinEventLogChannel& ch = open(s);
        EXPECT_EQ(ch.batchSize(), c.used);
        EvtNextCounter::install();
        EventBatch records;
        ch.getEventsNew(records);
        EXPECT_EQ(records.size(), c.firstCall);
        EXPECT_EQ(EvtNextCounter::calls(), c.evtNextCalls);
        EXPECT_EQ(ch.eventsPending(), c.pending);
        records.clear();
        ch.getEventsNew(records);  // the rest
        EXPECT_EQ(records.size(), c.records - c.firstCall);
        EXPECT_FALSE(ch.eventsPending());
        channel_.reset();
        installEvtsimApi();
    }
}

// Fails one EvtRender call with an invalid handle: the K-th made on the
// calling thread, or the K-th made on any other.
struct RenderFault {
    static DWORD mainThread;
    static int failMainAt, failOtherAt;
    static void arm(int mainAt, int otherAt) {
        mainThread = ::GetCurrentThreadId();
        failMainAt = mainAt;
        failOtherAt = otherAt;
        mainCalls = otherCalls = 0;
    }
    static BOOL WINAPI call(EVT_HANDLE context, EVT_HANDLE event, DWORD flags, DWORD size, PVOID buffer, PDWORD used,
                            PDWORD count) {
        const bool onMain = ::GetCurrentThreadId() == mainThread;
        if (onMain ? ++mainCalls == failMainAt : ++otherCalls == failOtherAt) {
            ::SetLastError(ERROR_INVALID_HANDLE);
            return FALSE;
        }
        return evtsim::EvtRender(context, event, flags, size, buffer, used, count);
    }
    static std::atomic<int> mainCalls, otherCalls;
};
DWORD RenderFault::mainThread = 0;
int RenderFault::failMainAt = 0;
int RenderFault::failOtherAt = 0;
std::atomic<int> RenderFault::mainCalls{0};
std::atomic<int> RenderFault::otherCalls{0};

// A long read is rendered on two threads: the records keep their order and
// their own texts, and an event that fails on either thread ends the read
// there; what follows is read again after the re-open, none lost or repeated.
// (The first event on a thread may take two render calls: the first learns
// the size.) With the directory step on, the threads claim chunks of 128
// events as they come, so where a failure falls depends on the race.
TEST_F(Reading, LongReadsAreSharedBetweenTwoThreadsWithoutLoss) {
    SYSTEM_INFO info = {};
    ::GetSystemInfo(&info);
    if (info.dwNumberOfProcessors < 2) GTEST_SKIP() << "a second thread is used only with a core free for it";
    constexpr size_t kEvents = 700;
    struct {
        const char* what;
        bool xml;
        bool directory;
        int failMainAt, failOtherAt;  // render calls
        size_t firstMin, firstMax;    // records kept by the first call
    } cases[] = {
        {"no failure", false, false, 0, 0, kEvents, kEvents},
        {"calling thread", false, false, 100, 0, 90, 99},  // the other thread's half is not kept
        {"other thread", false, false, 0, 200, 545, 549},  // its half begins at 351
        {"directory, no failure", false, true, 0, 0, kEvents, kEvents},
        {"directory, calling thread", false, true, 100, 0, 90, kEvents},
        // Its first chunk may be any: the read ends where that chunk begins.
        {"directory, other thread's first chunk", false, true, 0, 1, 0, kEvents},
        {"directory, other thread's second chunk", false, true, 0, 200, 190, kEvents},
        {"XML, directory, no failure", true, true, 0, 0, kEvents, kEvents},
        {"XML, directory, other thread", true, true, 0, 1, 0, kEvents},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        fresh();
        append(kEvents);
        ChannelSettings s = settings(100);
        s.resolveAdObj = c.directory;
        s.renderXml = c.xml;
        WinEventLogChannel& ch = open(s);
        RenderFault::arm(c.failMainAt, c.failOtherAt);
        apiTable().evt.EvtRender = &RenderFault::call;
        EventBatch records;
        ch.getEventsNew(records);
        installEvtsimApi();
        std::vector<uint64_t> got;
        for (const EventRecord& r : records) {
            got.push_back(r.recordNumber);
            const std::string id = std::to_string(r.recordNumber);
            if (c.xml)
                EXPECT_NE(r.text.find("<EventRecordID>" + id + "</EventRecordID>"), std::string::npos) << r.text;
            else
                EXPECT_EQ(fieldsOf(r.text)[L"RecordNumber"], std::wstring(id.begin(), id.end()));
        }
        ASSERT_GE(got.size(), c.firstMin);
        ASSERT_LE(got.size(), c.firstMax);
        if (c.directory && c.failOtherAt == 1) {
            EXPECT_TRUE(got.size() % 128 == 0 || got.size() == kEvents);
        }
        EXPECT_EQ(got, ids(1, got.size()));
        EXPECT_EQ(ch.channelState(), got.size() == kEvents);
        if (got.size() == kEvents) continue;
        if (!got.empty()) ch.markWritten(records.back().handle.get(), records.back().recordNumber);
        records.clear();
        ch.uninit();
        ASSERT_TRUE(ch.init());
        EXPECT_EQ(drain(ch), ids(got.size() + 1, kEvents));
    }
}

// A checkpoint that is neither a bookmark nor a checkpoint string is set aside,
// never deleted, and the channel starts as its settings say.
TEST_F(Reading, UnreadableCheckpointIsKeptAsideAndReported) {
    append(2);
    ASSERT_TRUE(createDirectories(settings().checkpointDir));
    channel_ = std::make_unique<WinEventLogChannel>(kChannel, settings());
    const std::wstring path = channel_->checkpointFilePath();
    ASSERT_TRUE(WELCheckPoint::saveCheckpointStr(path, "torn <BookmarkList", false));
    ASSERT_TRUE(channel_->init());
    std::string kept;
    ASSERT_TRUE(readFile(path + L".unreadable", kept));
    EXPECT_EQ(kept, "torn <BookmarkList");
    EXPECT_TRUE(log_.contains("cannot be read and is kept as")) << log_.dump();  // the operator's pointer to it
    EXPECT_EQ(drain(*channel_), ids(1, 2));
}

TEST_F(Reading, RestartAfterTheNewestFirstPhaseWithNothingNewRepeatsNothing) {
    append(4);
    ChannelSettings s = settings();
    s.startFrom = "newest";
    WinEventLogChannel& ch = open(s);
    EXPECT_EQ(drain(ch), ids(4, 1));
    ch.endReversePhase();
    open(s);
    EXPECT_TRUE(channel_->subscriptionReady());
    append(1);
    EXPECT_EQ(drain(*channel_), ids(5, 5));
}

// Stopped inside the newest-first phase (after `sent` records went out and were
// checkpointed): the next run sends what is older than them, once, and then
// what arrived meanwhile.
TEST_F(Reading, RestartInsideTheNewestFirstPhaseLosesAndRepeatsNothing) {
    struct {
        const char* what;
        size_t sent;         // of the five records, newest first
        bool keepMain;       // the main checkpoint file survives
        std::vector<uint64_t> next;  // what the next run reads backwards
    } cases[] = {
        {"two sent", 2, true, {3, 2, 1}},
        {"all sent, phase not declared over", 5, true, {}},
        {"nothing checkpointed", 0, true, {7, 6, 5, 4, 3, 2, 1}},
        {"anchor written, main lost", 2, false, {5, 4, 3, 2, 1}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        fresh();
        append(5);
        ChannelSettings s = settings(2);
        s.startFrom = "newest";
        {
            WinEventLogChannel& ch = open(s);
            EventBatch records;
            ch.getEventsNew(records);
            ASSERT_EQ(records.size(), 5u);
            if (c.sent) {
                EventRecord& last = records[c.sent - 1];
                ch.markWritten(last.handle.get(), last.recordNumber);
                ASSERT_TRUE(ch.checkPoint(last.handle.get(), last.recordNumber, false));
            }
            if (!c.keepMain) {
                ASSERT_TRUE(::DeleteFileW(ch.checkpointFilePath().c_str()));
            }
        }
        append(2);  // 6 and 7 arrive while it is down
        WinEventLogChannel& ch = open(s);
        ASSERT_TRUE(ch.readingReverse());
        EXPECT_EQ(drain(ch), c.next);
        EXPECT_TRUE(ch.reverseComplete());
        ch.endReversePhase();
        ASSERT_TRUE(ch.init());
        EXPECT_EQ(drain(ch), c.sent ? ids(6, 7) : std::vector<uint64_t>{});
    }
}

// The "reverse" file must hold the phase's newest record before the main
// checkpoint moves: else a later run would take the phase for over.
TEST_F(Reading, MainCheckpointWaitsForTheReverseOne) {
    append(3);
    ChannelSettings s = settings();
    s.startFrom = "newest";
    WinEventLogChannel& ch = open(s);
    ASSERT_TRUE(createDirectories(ch.checkpointFilePath() + L"_reverse"));  // cannot be written
    EventBatch records;
    ch.getEventsNew(records);
    ASSERT_EQ(records.size(), 3u);
    EXPECT_FALSE(ch.checkPoint(records[0].handle.get(), records[0].recordNumber, false));
    EXPECT_FALSE(pathExists(ch.checkpointFilePath()));
}

TEST_F(Reading, InitFailuresLeaveTheChannelClosed) {
    struct {
        const char* what;
        bool useOldApi;
        bool deleteChannel;
        const char* faults;
        bool missing;
        bool renderContext;
    } cases[] = {
        {"legacy denied", true, false, "OpenEventLogW=5", false, true},
        {"legacy oldest record unknown", true, false, "GetOldestEventLogRecord=5", false, true},
        {"missing", false, true, "", true, true},
        {"denied", false, false, "EvtSubscribe=5", false, true},
        {"render context", false, false, "", false, false},
    };
    installEvtsimLegacyApi();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        if (c.deleteChannel) store_.deleteChannel(kChannel);
        store_.setFaults(c.faults);
        ChannelSettings s = settings();
        s.useOldApi = c.useOldApi;
        if (!c.renderContext) apiTable().evt.EvtCreateRenderContext = nullptr;
        WinEventLogChannel& ch = open(s, false);
        EXPECT_FALSE(ch.initialized());
        EXPECT_EQ(ch.channelMissing(), c.missing);
        EXPECT_EQ(ch.notifyEvent(), nullptr);
        if (c.deleteChannel) store_.createChannel(kChannel);
        store_.setFaults("");
        installEvtsimApi();
    }
}

}  // namespace
}  // namespace skorva::test
