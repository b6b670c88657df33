// Reading: EvtQuery, EvtNext, EvtSeek and EvtClose, the calls refused, EvtSubscribe
// (pull model), and injected faults. (Bookmark texts and the channel list are met
// through the product's checkpoints and channel catalog.)
#include <thread>

#include "EvtsimTestUtil.h"
#include "Faults.h"

using namespace evtsim_test;
using skorva::test::EvtsimStore;

namespace {

class QueryTest : public ::testing::Test {
protected:
    void SetUp() override {
        store.createChannel("Application");
        for (unsigned i = 1; i <= 5; ++i) store.append("Application", sampleEvent(100 + i));
    }
    UniqueEvtHandle query(DWORD direction) {
        return UniqueEvtHandle(evtsim::EvtQuery(nullptr, L"Application", L"*", EvtQueryChannelPath | direction));
    }
    EvtsimStore store;
};

// Every returned handle is the caller's to close, and closing the query closes
// them too (EvtClose remarks): using one afterwards fails.
TEST_F(QueryTest, EventsCloseWithTheirQuery) {
    size_t before = evtsim::openHandleCount();
    auto q = query(EvtQueryForwardDirection);
    auto events = readAll(q.get());
    EXPECT_EQ(before + 1 + 5, evtsim::openHandleCount());
    events.pop_back();  // closed by the caller
    q.reset();
    EXPECT_EQ(before, evtsim::openHandleCount());
    UniqueEvtHandle bm(evtsim::EvtCreateBookmark(nullptr));
    EXPECT_FALSE(evtsim::EvtUpdateBookmark(bm.get(), events[0].get()));
    EXPECT_EQ(6u, GetLastError());
    for (auto& e : events) EXPECT_FALSE(evtsim::EvtClose(e.release()));
}

// A closed handle stays refused when its place in the table holds a new
// handle, and values no handle ever had are refused, not followed.
TEST_F(QueryTest, StaleAndMadeUpHandlesAreRefused) {
    EVT_HANDLE closed = evtsim::EvtCreateBookmark(nullptr);
    ASSERT_TRUE(evtsim::EvtClose(closed));
    UniqueEvtHandle fresh(evtsim::EvtCreateBookmark(nullptr));  // takes the place just freed
    ASSERT_NE(closed, fresh.get());
    const auto value = [](uintptr_t v) { return reinterpret_cast<EVT_HANDLE>(v); };
    const uintptr_t f = reinterpret_cast<uintptr_t>(fresh.get());
    for (EVT_HANDLE h : {closed, value(1), value(4), value(f + 1), value(f & 0xFFFFFFFFu), value(f + (1ull << 32)),
                         value((f & ~uintptr_t{0xFFFFFFFF}) | 0xFFFFFFFCu), value(~uintptr_t{3})}) {
        SetLastError(0);
        EXPECT_FALSE(evtsim::EvtClose(h)) << h;
        EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_HANDLE), GetLastError()) << h;
    }
    // Still open: no refused value reached it.
    EXPECT_TRUE(evtsim::EvtClose(fresh.release()));
}

// A query may be used only on the thread that made it (EvtQuery remarks).
TEST_F(QueryTest, QueryBelongsToItsThread) {
    auto q = query(EvtQueryReverseDirection);
    EVT_HANDLE h[1];
    DWORD got = 0, next = 0, seek = 0, close = 0;
    std::thread([&] {
        if (!evtsim::EvtNext(q.get(), 1, h, 0, 0, &got)) next = GetLastError();
        if (!evtsim::EvtSeek(q.get(), 0, nullptr, 0, EvtSeekRelativeToFirst)) seek = GetLastError();
        if (!evtsim::EvtClose(q.get())) close = GetLastError();
    }).join();
    EXPECT_EQ((std::vector<DWORD>{1444, 1444, 1444}), (std::vector<DWORD>{next, seek, close}));  // ERROR_INVALID_THREAD_ID
    EXPECT_EQ((std::vector<uint64_t>{5, 4, 3, 2, 1}), recordIds(readAll(q.get())));
}

// One EvtNext carries at most 2 MiB ([MS-EVEN6] MAX_RPC_BATCH_SIZE): Windows 11
// answers with a short batch, older systems fail with RPC_S_INVALID_BOUND and
// the position moves past what the call gathered (elastic/beats #3076,
// opentelemetry-collector-contrib #38149).
TEST_F(QueryTest, BatchBoundShortOrFailed) {
    store.clearChannel("Application");
    for (int i = 0; i < 60; ++i) store.append("Application", sampleEvent(7, {{"Text", std::string(40000, 'x')}}));
    struct Case {
        evtsim::BatchLimit mode;
        std::vector<size_t> batches;  // events per call (51 fit in 2 MiB), 0 for a failed call
    } cases[] = {
        {evtsim::BatchLimit::Short, {51, 9}},
        {evtsim::BatchLimit::Fail, {0, 9}},
    };
    for (const auto& c : cases) {
        evtsim::setBatchLimit(c.mode);
        auto q = query(EvtQueryForwardDirection);
        std::vector<size_t> batches;
        std::vector<EVT_HANDLE> h(100);
        std::vector<UniqueEvtHandle> second;
        DWORD got = 0;
        for (int call = 0; call < 2; ++call) {
            if (!evtsim::EvtNext(q.get(), 100, h.data(), 0, 0, &got)) {
                EXPECT_EQ(1734u, GetLastError());
                got = 0;
            }
            batches.push_back(got);
            std::vector<UniqueEvtHandle> owned;
            for (DWORD i = 0; i < got; ++i) owned.emplace_back(h[i]);
            if (call == 1) second = std::move(owned);
        }
        EXPECT_EQ(c.batches, batches);
        ASSERT_FALSE(second.empty());
        EXPECT_EQ(5u + 51 + 1, recordIds(second)[0]);  // read or skipped, the first 51 are behind
    }
    evtsim::setBatchLimit(evtsim::BatchLimit::FromEnvironment);
}

// The reader seeks its newest-first query from a bookmark (EvtQuery of a channel
// is read forward by no reader). Past the end the seek lands on the last record
// within the boundary (EVT_SEEK_FLAGS remarks), which the reader's guard skips.
TEST_F(QueryTest, SeekFromABookmarkNewestFirst) {
    UniqueEvtHandle bm(evtsim::EvtCreateBookmark(
        L"<BookmarkList>\r\n  <Bookmark Channel='Application' RecordId='3' IsCurrent='true'/>\r\n</BookmarkList>"));
    for (auto [position, firstId] : {std::pair<LONGLONG, uint64_t>{0, 3}, {1, 2}, {3, 1}}) {
        auto q = query(EvtQueryReverseDirection);
        ASSERT_TRUE(evtsim::EvtSeek(q.get(), position, bm.get(), 0, EvtSeekRelativeToBookmark)) << position;
        EXPECT_EQ(std::vector<uint64_t>{firstId}, recordIds(readAll(q.get(), 1, 1))) << position;
    }
}

// What the reader tells apart: the end of a result set, a channel not there, a
// handle that is no result set. (A subscription to a missing channel, a malformed
// bookmark and an unknown publisher are met through the product's reader,
// checkpoint validation and formatter; a bad handle to EvtRender through its renderer.)
TEST_F(QueryTest, RefusedCallsAnswerTheirError) {
    auto q = query(EvtQueryForwardDirection);
    auto events = readAll(q.get());
    EXPECT_EQ(259u, GetLastError());  // ERROR_NO_MORE_ITEMS ends every result set
    EXPECT_FALSE(UniqueEvtHandle(evtsim::EvtQuery(nullptr, L"Nope", nullptr, EvtQueryChannelPath)));
    EXPECT_EQ(15007u, GetLastError());
    EVT_HANDLE h[1];
    DWORD got = 0;
    EXPECT_FALSE(evtsim::EvtNext(reinterpret_cast<EVT_HANDLE>(0x1234), 1, h, 0, 0, &got));
    EXPECT_EQ(6u, GetLastError());
}

class SubscribeTest : public ::testing::Test {
protected:
    void SetUp() override {
        store.createChannel("System");
        for (int i = 0; i < 3; ++i) store.append("System", sampleEvent(7036));
    }
    UniqueEvtHandle subscribe(DWORD flags, EVT_HANDLE bookmark = nullptr) {
        return UniqueEvtHandle(
            evtsim::EvtSubscribe(nullptr, signal.get(), L"System", L"*", bookmark, nullptr, nullptr, flags));
    }
    bool signalled() { return WaitForSingleObject(signal.get(), 0) == WAIT_OBJECT_0; }
    bool signalledWithin(DWORD ms) { return WaitForSingleObject(signal.get(), ms) == WAIT_OBJECT_0; }

    EvtsimStore store;
    skorva::UniqueHandle signal{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
};

// The service sets the signal only for records written after the subscription
// was made, and never resets it (EvtSubscribe remarks; vector #25194). An idle
// pull may answer ERROR_INVALID_OPERATION (beats iterator.go, vector #26118).
TEST_F(SubscribeTest, SignalOnlyForNewRecordsAndNeverReset) {
    auto sub = subscribe(EvtSubscribeStartAtOldestRecord);
    EXPECT_FALSE(signalledWithin(100));  // the backlog does not signal
    auto backlog = readAll(sub.get());
    EXPECT_EQ(259u, GetLastError());  // drained
    EXPECT_EQ((std::vector<uint64_t>{1, 2, 3}), recordIds(backlog));
    EVT_HANDLE h[2];
    DWORD got = 0;
    EXPECT_FALSE(evtsim::EvtNext(sub.get(), 2, h, INFINITE, 0, &got));  // no wait on a subscription
    EXPECT_EQ(4317u, GetLastError());  // pulled idle
    store.append("System", sampleEvent(2));
    EXPECT_TRUE(signalledWithin(5000));
    EXPECT_EQ((std::vector<uint64_t>{4}), recordIds(readAll(sub.get())));
    EXPECT_TRUE(signalled());  // the client resets it
}

// A clear leaves queries and subscriptions stale for good, and a subscription
// cannot start after a bookmark of the cleared log (ERROR_EVT_QUERY_RESULT_STALE:
// "may be due to the log being cleared"; elastic/beats #32168, vector #26115).
TEST_F(SubscribeTest, ClearMakesEveryResultStale) {
    auto sub = subscribe(EvtSubscribeStartAtOldestRecord);
    UniqueEvtHandle q(evtsim::EvtQuery(nullptr, L"System", L"*", EvtQueryChannelPath));
    auto read = readAll(sub.get());
    UniqueEvtHandle bm(evtsim::EvtCreateBookmark(nullptr));
    ASSERT_TRUE(evtsim::EvtUpdateBookmark(bm.get(), read.back().get()));
    store.clearChannel("System");
    store.append("System", sampleEvent(2));
    EVT_HANDLE h[1];
    DWORD got = 0, errors[4] = {};
    for (int i = 0; i < 2; ++i) {
        if (!evtsim::EvtNext(sub.get(), 1, h, 0, 0, &got)) errors[i] = GetLastError();
        if (!evtsim::EvtNext(q.get(), 1, h, 0, 0, &got)) errors[2 + i] = GetLastError();
    }
    EXPECT_EQ((std::vector<DWORD>{15011, 15011, 15011, 15011}), std::vector<DWORD>(errors, errors + 4));
    EXPECT_FALSE(subscribe(EvtSubscribeStartAfterBookmark, bm.get()));
    EXPECT_EQ(15011u, GetLastError());
}

// A rule strikes only its target and stops after its count. (That "once", "from"
// and a target strike is seen through the product: the publisher fault end to
// end, the channel list's fault in ChannelEnumerationTest.)
TEST(FaultTest, CountsAndTargets) {
    EvtsimStore store;
    store.createChannel("A");
    store.createChannel("B");
    for (int i = 0; i < 3; ++i) store.append("A", sampleEvent(1)), store.append("B", sampleEvent(1));
    struct Case {
        const char* rules;
        const wchar_t* channel;
        std::vector<DWORD> outcome;  // per call: 0 success, else the error
    } cases[] = {
        {"EvtNext:A=15007,times=2", L"A", {15007, 15007, 0}},
        {"EvtNext:A=1734", L"B", {0, 0, 0}},
        {"EvtNext=4317,from=2,times=1", L"A", {0, 4317, 0}},
    };
    for (const auto& c : cases) {
        store.setFaults(c.rules);
        UniqueEvtHandle q(evtsim::EvtQuery(nullptr, c.channel, nullptr, EvtQueryChannelPath));
        for (size_t i = 0; i < c.outcome.size(); ++i) {
            EVT_HANDLE h[1];
            DWORD got = 0;
            BOOL ok = evtsim::EvtNext(q.get(), 1, h, 0, 0, &got);
            if (ok) evtsim::EvtClose(h[0]);
            EXPECT_EQ(c.outcome[i], ok ? 0u : GetLastError()) << c.rules << " call " << i;
        }
    }
    EXPECT_THROW(store.setFaults("EvtNext=abc"), std::runtime_error);  // a typo never passes as no fault
}

}  // namespace
