// EvtQuery, EvtNext, EvtSeek, EvtClose and live changes to the channel.
#include <thread>

#include "EvtsimTestUtil.h"

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

TEST_F(QueryTest, SeekOrigins) {
    UniqueEvtHandle bm(evtsim::EvtCreateBookmark(
        L"<BookmarkList>\r\n  <Bookmark Channel='Application' RecordId='3' IsCurrent='true'/>\r\n</BookmarkList>"));
    UniqueEvtHandle missing(evtsim::EvtCreateBookmark(
        L"<BookmarkList>\r\n  <Bookmark Channel='Application' RecordId='99' IsCurrent='true'/>\r\n</BookmarkList>"));
    struct Case {
        DWORD direction;
        LONGLONG position;
        EVT_HANDLE bookmark;
        DWORD flags;
        uint64_t firstId;  // 0: seek fails
    } cases[] = {
        {EvtQueryForwardDirection, 0, bm.get(), EvtSeekRelativeToBookmark, 3},
        {EvtQueryForwardDirection, 1, bm.get(), EvtSeekRelativeToBookmark, 4},
        {EvtQueryReverseDirection, 1, bm.get(), EvtSeekRelativeToBookmark, 2},
        {EvtQueryForwardDirection, 1, missing.get(), EvtSeekRelativeToBookmark | EvtSeekStrict, 0},
        // Past either end the seek lands on the last record within the boundary
        // (EVT_SEEK_FLAGS remarks), or fails under strict.
        {EvtQueryForwardDirection, 9, nullptr, EvtSeekRelativeToFirst, 5},
        {EvtQueryReverseDirection, 3, bm.get(), EvtSeekRelativeToBookmark, 1},
        {EvtQueryReverseDirection, 3, bm.get(), EvtSeekRelativeToBookmark | EvtSeekStrict, 0},
    };
    for (const auto& c : cases) {
        auto q = query(c.direction);
        BOOL ok = evtsim::EvtSeek(q.get(), c.position, c.bookmark, 0, c.flags);
        if (c.firstId == 0) {
            EXPECT_FALSE(ok);
            EXPECT_EQ(1168u, GetLastError());  // ERROR_NOT_FOUND
            continue;
        }
        ASSERT_TRUE(ok) << c.flags << " " << c.position;
        auto ids = recordIds(readAll(q.get(), 1, 1));
        ASSERT_EQ(1u, ids.size());
        EXPECT_EQ(c.firstId, ids[0]) << c.flags << " " << c.position;
    }
}

}  // namespace
