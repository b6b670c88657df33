// Injected faults: counts, targets, and the file in the store.
#include <thread>

#include "EvtsimTestUtil.h"
#include "Faults.h"

using namespace evtsim_test;
using skorva::test::EvtsimStore;

namespace {

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
