// EvtSubscribe (pull model): origins, bookmarks, signalling, clears.
#include "EvtsimTestUtil.h"

using namespace evtsim_test;
using skorva::test::EvtsimStore;

namespace {

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

TEST_F(SubscribeTest, Origins) {
    UniqueEvtHandle at(evtsim::EvtCreateBookmark(
        L"<BookmarkList>\r\n  <Bookmark Channel='System' RecordId='2' IsCurrent='true'/>\r\n</BookmarkList>"));
    UniqueEvtHandle gone(evtsim::EvtCreateBookmark(
        L"<BookmarkList>\r\n  <Bookmark Channel='System' RecordId='1' IsCurrent='true'/>\r\n</BookmarkList>"));
    EXPECT_EQ((std::vector<uint64_t>{1, 2, 3}), recordIds(readAll(subscribe(EvtSubscribeStartAtOldestRecord).get())));
    EXPECT_EQ((std::vector<uint64_t>{3}), recordIds(readAll(subscribe(EvtSubscribeStartAfterBookmark, at.get()).get())));
    EXPECT_TRUE(readAll(subscribe(EvtSubscribeToFutureEvents).get()).empty());

    // Record 1 goes with a clear: without strict the subscription starts at what follows.
    store.clearChannel("System");
    store.append("System", sampleEvent(1));
    EXPECT_EQ((std::vector<uint64_t>{4}), recordIds(readAll(subscribe(EvtSubscribeStartAfterBookmark, gone.get()).get())));
    EXPECT_FALSE(subscribe(EvtSubscribeStartAfterBookmark | EvtSubscribeStrict, gone.get()));
    EXPECT_EQ(1168u, GetLastError());  // ERROR_NOT_FOUND
}

TEST_F(SubscribeTest, UnsupportedCombinationsFail) {
    UniqueEvtHandle bm(evtsim::EvtCreateBookmark(nullptr));
    struct Case {
        HANDLE signal;
        EVT_HANDLE bookmark;
        EVT_SUBSCRIBE_CALLBACK callback;
        DWORD flags;
        DWORD error;
    } cases[] = {
        {nullptr, nullptr, nullptr, EvtSubscribeToFutureEvents, 87},     // neither signal nor callback
        {signal, nullptr, nullptr, EvtSubscribeStartAfterBookmark, 87},  // no bookmark
        {signal, bm.get(), nullptr, EvtSubscribeToFutureEvents, 87},     // bookmark without its origin
        {signal, nullptr, nullptr, 0, 87},
        {signal, nullptr, nullptr, EvtSubscribeToFutureEvents | EvtSubscribeStrict, 87},
        {nullptr, nullptr, [](EVT_SUBSCRIBE_NOTIFY_ACTION, PVOID, EVT_HANDLE) -> DWORD { return 0; },
         EvtSubscribeToFutureEvents, 50},  // push model: not simulated
    };
    for (const auto& c : cases) {
        EXPECT_EQ(nullptr, evtsim::EvtSubscribe(nullptr, c.signal, L"System", nullptr, c.bookmark, nullptr, c.callback, c.flags));
        EXPECT_EQ(c.error, GetLastError()) << c.flags;
    }
    EXPECT_EQ(nullptr, evtsim::EvtSubscribe(nullptr, signal, L"Nope", nullptr, nullptr, nullptr, nullptr, EvtSubscribeToFutureEvents));
    EXPECT_EQ(15007u, GetLastError());
}

TEST_F(SubscribeTest, SignalIsSetWhileRecordsWait) {
    auto sub = subscribe(EvtSubscribeStartAtOldestRecord);
    EXPECT_TRUE(signalled());
    EVT_HANDLE h[2];
    DWORD got = 0;
    ASSERT_TRUE(evtsim::EvtNext(sub.get(), 2, h, INFINITE, 0, &got));
    UniqueEvtHandle a(h[0]), b(h[1]);
    EXPECT_TRUE(signalled());  // one still waiting
    readAll(sub.get());
    EXPECT_FALSE(signalled());
    EXPECT_FALSE(evtsim::EvtNext(sub.get(), 2, h, INFINITE, 0, &got));  // no wait on a subscription
    EXPECT_EQ(259u, GetLastError());
    store.append("System", sampleEvent(2));
    EXPECT_TRUE(signalledWithin(5000));
    EXPECT_EQ((std::vector<uint64_t>{4}), recordIds(readAll(sub.get())));
}

TEST_F(SubscribeTest, SubscriptionOutlivesAClear) {
    auto sub = subscribe(EvtSubscribeStartAtOldestRecord);
    readAll(sub.get());
    store.clearChannel("System");
    store.append("System", sampleEvent(5));
    EXPECT_TRUE(signalledWithin(5000));
    EXPECT_EQ((std::vector<uint64_t>{4}), recordIds(readAll(sub.get())));
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
    EXPECT_EQ(259u, GetLastError());
}

}  // namespace
