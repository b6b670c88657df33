// Channels spanning many slices: every record once and in order, several readers
// at once. (The bytes held are measured by the collector benchmark; seeks and
// live records over many slices are read end to end.)
#include <numeric>
#include <thread>

#include "EvtsimTestUtil.h"

using namespace evtsim_test;
using skorva::test::EvtsimStore;

namespace {

constexpr size_t kSlice = 2048;
constexpr size_t kRecords = 300;
constexpr size_t kBigPayload = 2 * kSlice + 500;  // every 25th record is larger than a slice

std::vector<std::string> records(size_t count, size_t first, size_t payload) {
    std::vector<std::string> out;
    for (size_t i = first; i < first + count; ++i) {
        size_t size = i % 25 == 24 ? kBigPayload : payload;
        out.push_back(evtsim::buildEventXml(sampleEvent(1000, {{"Payload", std::string(size, 'a' + i % 26)}})));
    }
    return out;
}

std::vector<uint64_t> idRange(uint64_t first, uint64_t last) {
    std::vector<uint64_t> ids(first <= last ? last - first + 1 : first - last + 1);
    for (size_t i = 0; i < ids.size(); ++i) ids[i] = first <= last ? first + i : first - i;
    return ids;
}

// Reads a result set to its end, closing each batch before taking the next; returns
// the record ids.
std::vector<uint64_t> drain(EVT_HANDLE rs, DWORD batch) {
    std::vector<uint64_t> ids;
    std::vector<EVT_HANDLE> events(batch);
    DWORD got = 0;
    while (evtsim::EvtNext(rs, batch, events.data(), 0, 0, &got)) {
        std::vector<UniqueEvtHandle> owned(events.begin(), events.begin() + got);
        for (uint64_t id : recordIds(owned)) ids.push_back(id);
    }
    return ids;
}

class SliceTest : public ::testing::Test {
protected:
    void SetUp() override {
        evtsim::setSliceBytes(kSlice);
        store.createChannel("Application");
        store.appendAll("Application", records(kRecords, 0, 300));
        signal = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    }
    void TearDown() override {
        evtsim::setSliceBytes(0);
        CloseHandle(signal);
    }
    UniqueEvtHandle query(DWORD direction) {
        return UniqueEvtHandle(evtsim::EvtQuery(nullptr, L"Application", L"*", EvtQueryChannelPath | direction));
    }
    UniqueEvtHandle subscribe(DWORD origin, EVT_HANDLE bookmark = nullptr) {
        return UniqueEvtHandle(
            evtsim::EvtSubscribe(nullptr, signal, L"Application", L"*", bookmark, nullptr, nullptr, origin));
    }

    EvtsimStore store;
    HANDLE signal = nullptr;
};

TEST_F(SliceTest, EveryRecordOnceAndInOrderAcrossSlices) {
    struct Case {
        const char* what;
        DWORD direction;  // 0: a subscription from the oldest record
        DWORD batch;
    } cases[] = {
        {"forward", EvtQueryForwardDirection, 7},
        {"forward, one at a time", EvtQueryForwardDirection, 1},
        {"reverse", EvtQueryReverseDirection, 5},
        {"subscription", 0, 16},
    };
    for (const auto& c : cases) {
        auto rs = c.direction ? query(c.direction) : subscribe(EvtSubscribeStartAtOldestRecord);
        // All handles kept: the first events' slices leave the log but stay readable.
        auto events = readAll(rs.get(), c.batch);
        EXPECT_EQ(c.direction == EvtQueryReverseDirection ? idRange(kRecords, 1) : idRange(1, kRecords),
                  recordIds(events))
            << c.what;
    }
}

TEST_F(SliceTest, SeveralThreadsReadOneChannel) {
    const DWORD directions[] = {EvtQueryForwardDirection, EvtQueryReverseDirection, EvtQueryForwardDirection,
                                EvtQueryReverseDirection};
    std::vector<std::vector<uint64_t>> seen(4);
    std::vector<std::thread> threads;
    for (size_t t = 0; t < seen.size(); ++t) {
        threads.emplace_back([&, t] {
            auto q = query(directions[t]);
            seen[t] = drain(q.get(), static_cast<DWORD>(3 + t));
        });
    }
    for (auto& t : threads) t.join();
    for (size_t t = 0; t < seen.size(); ++t)
        EXPECT_EQ(directions[t] == EvtQueryReverseDirection ? idRange(kRecords, 1) : idRange(1, kRecords), seen[t])
            << "thread " << t;
}

}  // namespace
