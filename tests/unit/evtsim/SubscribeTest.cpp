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

}  // namespace
