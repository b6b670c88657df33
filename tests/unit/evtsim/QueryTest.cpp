// Reading: EvtQuery, EvtNext, EvtSeek and EvtClose, the calls refused, the channel
// list, EvtSubscribe (pull model), bookmarks, and injected faults.
#include <functional>
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
    struct Case {
        DWORD direction;
        LONGLONG position;
        EVT_HANDLE bookmark;
        DWORD flags;
        uint64_t firstId;
    } cases[] = {
        {EvtQueryForwardDirection, 0, bm.get(), EvtSeekRelativeToBookmark, 3},
        {EvtQueryForwardDirection, 1, bm.get(), EvtSeekRelativeToBookmark, 4},
        {EvtQueryReverseDirection, 1, bm.get(), EvtSeekRelativeToBookmark, 2},
        // Past the end the seek lands on the last record within the boundary
        // (EVT_SEEK_FLAGS remarks).
        {EvtQueryReverseDirection, 3, bm.get(), EvtSeekRelativeToBookmark, 1},
    };
    for (const auto& c : cases) {
        auto q = query(c.direction);
        ASSERT_TRUE(evtsim::EvtSeek(q.get(), c.position, c.bookmark, 0, c.flags)) << c.flags << " " << c.position;
        auto ids = recordIds(readAll(q.get(), 1, 1));
        ASSERT_EQ(1u, ids.size());
        EXPECT_EQ(c.firstId, ids[0]) << c.flags << " " << c.position;
    }
}
// What a caller gets wrong or asks of what is not there: FALSE or NULL and the
// error the reader tells apart. One row per kind of refusal (a bad handle to
// EvtRender is met through the product's renderer).
TEST_F(QueryTest, RefusedCallsAnswerTheirError) {
    auto q = query(EvtQueryForwardDirection);
    auto events = readAll(q.get());
    EXPECT_EQ(259u, GetLastError());  // ERROR_NO_MORE_ITEMS ends every result set
    HANDLE signal = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    const auto bad = reinterpret_cast<EVT_HANDLE>(0x1234);
    const auto opened = [](EVT_HANDLE h) { return !!UniqueEvtHandle(h); };
    EVT_HANDLE h[1];
    DWORD got = 0, used = 0, count = 0;
    BYTE buf[64];
    const struct {
        const char* what;
        std::function<bool()> succeeded;
        DWORD error;
    } cases[] = {
        {"query of a missing channel",
         [&] { return opened(evtsim::EvtQuery(nullptr, L"Nope", nullptr, EvtQueryChannelPath)); }, 15007},
        {"subscription to a missing channel",
         [&] { return opened(evtsim::EvtSubscribe(nullptr, signal, L"Nope", nullptr, nullptr, nullptr, nullptr,
                                                  EvtSubscribeToFutureEvents)); }, 15007},
        {"next of no result set", [&] { return !!evtsim::EvtNext(bad, 1, h, 0, 0, &got); }, 6},
        {"values without a context",
         [&] { return !!evtsim::EvtRender(nullptr, events[0].get(), EvtRenderEventValues, 64, buf, &used, &count); }, 87},
        {"malformed bookmark text", [&] { return opened(evtsim::EvtCreateBookmark(L"<BookmarkList>")); }, 15008},
        {"metadata of an unknown publisher",
         [&] { return opened(evtsim::EvtOpenPublisherMetadata(nullptr, L"Nobody", nullptr, 0, 0)); }, 2},
    };
    for (const auto& c : cases) {
        SetLastError(0);
        EXPECT_FALSE(c.succeeded()) << c.what;
        EXPECT_EQ(c.error, GetLastError()) << c.what;
    }
    CloseHandle(signal);
}

// EvtNextChannelPath counts in characters, the terminator included.
TEST(ChannelEnumTest, SizeProtocolInCharacters) {
    EvtsimStore store;
    for (const char* c : {"System", "Microsoft-Windows-Sysmon/Operational", "Application"}) store.createChannel(c);
    UniqueEvtHandle e(evtsim::EvtOpenChannelEnum(nullptr, 0));
    ASSERT_TRUE(e);
    std::vector<std::wstring> names;
    std::wstring buf;
    DWORD used = 0;
    while (true) {
        if (evtsim::EvtNextChannelPath(e.get(), static_cast<DWORD>(buf.size()), buf.empty() ? nullptr : buf.data(), &used)) {
            names.emplace_back(buf.c_str());
            continue;
        }
        if (GetLastError() != ERROR_INSUFFICIENT_BUFFER) break;
        buf.assign(used, L'\0');
    }
    EXPECT_EQ(259u, GetLastError());
    EXPECT_EQ((std::vector<std::wstring>{L"Application", L"Microsoft-Windows-Sysmon/Operational", L"System"}), names);
    EXPECT_EQ(wcslen(L"Microsoft-Windows-Sysmon/Operational") + 1, buf.size());  // grew to the reported size
}

TEST(BookmarkTest, TextIsByteExact) {
    EvtsimStore store;
    store.createChannel("Application");
    for (int i = 0; i < 3; ++i) store.append("Application", sampleEvent(1));

    UniqueEvtHandle bm(evtsim::EvtCreateBookmark(nullptr));
    ASSERT_TRUE(bm);
    EXPECT_EQ(L"<BookmarkList>\r\n</BookmarkList>", renderBookmark(bm.get()));

    UniqueEvtHandle fwd(evtsim::EvtQuery(nullptr, L"Application", L"*", EvtQueryChannelPath | EvtQueryForwardDirection));
    auto events = readAll(fwd.get());
    ASSERT_TRUE(evtsim::EvtUpdateBookmark(bm.get(), events[1].get()));
    const std::wstring expected = L"<BookmarkList>\r\n  <Bookmark Channel='Application' RecordId='2' IsCurrent='true'/>\r\n</BookmarkList>";
    EXPECT_EQ(expected, renderBookmark(bm.get()));
    DWORD used = 0, count = 0;
    EXPECT_FALSE(evtsim::EvtRender(nullptr, bm.get(), EvtRenderBookmark, 0, nullptr, &used, &count));
    EXPECT_EQ(122u, GetLastError());
    EXPECT_EQ((expected.size() + 1) * 2, used);

    UniqueEvtHandle rev(evtsim::EvtQuery(nullptr, L"Application", L"*", EvtQueryChannelPath | EvtQueryReverseDirection));
    auto back = readAll(rev.get(), 1, 1);
    ASSERT_TRUE(evtsim::EvtUpdateBookmark(bm.get(), back[0].get()));
    EXPECT_EQ(L"<BookmarkList Direction='backward'>\r\n  <Bookmark Channel='Application' RecordId='3' IsCurrent='true'/>\r\n</BookmarkList>",
              renderBookmark(bm.get()));
}

class SubscribeTest : public ::testing::Test {
protected:
    void SetUp() override {
        store.createChannel("System");
        for (int i = 0; i < 3; ++i) store.append("System", sampleEvent(7036));
        signal = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    }
    void TearDown() override { CloseHandle(signal); }
    UniqueEvtHandle subscribe(DWORD flags, EVT_HANDLE bookmark = nullptr) {
        return UniqueEvtHandle(evtsim::EvtSubscribe(nullptr, signal, L"System", L"*", bookmark, nullptr, nullptr, flags));
    }
    bool signalled() { return WaitForSingleObject(signal, 0) == WAIT_OBJECT_0; }
    bool signalledWithin(DWORD ms) { return WaitForSingleObject(signal, ms) == WAIT_OBJECT_0; }

    EvtsimStore store;
    HANDLE signal = nullptr;
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

TEST_F(SubscribeTest, HalfWrittenRecordIsNeverServedAndTimesOut) {
    auto sub = subscribe(EvtSubscribeToFutureEvents);
    // Another writer holds the last frame half written for a while.
    std::string half = "EVR1 00000000000000000004 0000000100\n<Event>";
    evtsim::ChannelMeta meta;
    std::wstring dir = evtsim::channelDir(store.root(), "System");
    ASSERT_TRUE(evtsim::readChannelMeta(dir, meta));
    HANDLE f = CreateFileW(evtsim::recordsPath(dir, meta).c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_DELETE,
                           nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(INVALID_HANDLE_VALUE, f);
    DWORD written = 0;
    WriteFile(f, half.data(), static_cast<DWORD>(half.size()), &written, nullptr);
    CloseHandle(f);
    EVT_HANDLE h[1];
    DWORD got = 0;
    EXPECT_FALSE(evtsim::EvtNext(sub.get(), 1, h, 50, 0, &got));
    EXPECT_EQ(1460u, GetLastError());  // ERROR_TIMEOUT
    EXPECT_FALSE(evtsim::EvtNext(sub.get(), 1, h, 0, 0, &got));
    EXPECT_EQ(4317u, GetLastError());  // nothing was served
}

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
        {"EvtNext=6,once", L"A", {6, 0, 0}},
        {"EvtNext:A=15007,times=2", L"A", {15007, 15007, 0}},
        {"EvtNext:A=1734", L"B", {0, 0, 0}},
        {"EvtNext=4317,from=2", L"A", {0, 4317, 4317}},
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
    EXPECT_THROW(store.setFaults("EvtNext=abc"), std::runtime_error);
    store.setFaults("EvtQuery:A=5;EvtSubscribe=1717;EvtOpenPublisherMetadata=15002");
    EXPECT_EQ(nullptr, evtsim::EvtQuery(nullptr, L"A", nullptr, EvtQueryChannelPath));
    EXPECT_EQ(5u, GetLastError());
    UniqueEvtHandle b(evtsim::EvtQuery(nullptr, L"B", nullptr, EvtQueryChannelPath));
    EXPECT_TRUE(b);
    EXPECT_EQ(nullptr, evtsim::EvtOpenPublisherMetadata(nullptr, L"X", nullptr, 0, 0));
    EXPECT_EQ(15002u, GetLastError());
}

}  // namespace
