// Read errors and what the reader makes of each event.
#include "ReaderFixture.h"
#include "platform/Strings.h"

namespace skorva::test {
namespace {

using Recovery = ReaderTest;

TEST_F(Recovery, EvtNextErrors) {
    struct {
        const char* fault;
        bool state;       // channel still usable
        bool missing;
        uint64_t sleptMs;
        uint32_t batchAfter;  // the batch size once opened again
    } cases[] = {
        {"EvtNext:Application=6,once", false, false, 0, 10},
        {"EvtNext:Application=15007,once", false, true, 20000, 10},
        // The batch was too large for the service: opened again with half of it.
        {"EvtNext:Application=1734,once", false, false, 0, 5},
        // Cleared under the reader: only a new handle reads on.
        {"EvtNext:Application=15011,once", false, false, 0, 10},
        {"EvtNext:Application=1717,once", true, false, 0, 10},
    };
    append(3);
    ChannelSettings s = settings();
    s.checkpointDir.clear();  // each case reads the channel from its start
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fault);
        const uint64_t slept = clock_.slept();
        WinEventLogChannel& ch = open(s);
        store_.setFaults(c.fault);
        EventBatch records;
        ch.getEventsNew(records);
        EXPECT_TRUE(records.empty());
        EXPECT_FALSE(ch.eventsPending());
        EXPECT_EQ(ch.channelState(), c.state);
        EXPECT_EQ(ch.channelMissing(), c.missing);
        EXPECT_EQ(clock_.slept() - slept, c.sleptMs);
        if (!ch.channelState()) {  // what the worker does with an "updated" channel
            ch.uninit();
            ASSERT_TRUE(ch.init());
            EXPECT_FALSE(ch.channelMissing());
        }
        EXPECT_EQ(ch.batchSize(), c.batchAfter);
        EXPECT_EQ(drain(ch), ids(1, 3));  // nothing was read: all of it now
        EXPECT_TRUE(ch.channelState());
    }
}

TEST_F(Recovery, InvalidHandleWhileRenderingResetsTheChannel) {
    append(4);
    WinEventLogChannel& ch = open(settings());
    store_.setFaults("EvtRender:Application=6,once");
    EventBatch records;
    ch.getEventsNew(records);
    EXPECT_TRUE(records.empty());  // the first event failed: it and the rest of its batch are dropped
    EXPECT_FALSE(ch.channelState());
    ch.uninit();
    ASSERT_TRUE(ch.init());
    EXPECT_EQ(drain(ch), ids(1, 4));
}

TEST_F(Recovery, EventCodeFilterDropsEvents) {
    struct {
        EventCodeRanges white, black;
        std::vector<uint32_t> kept;
    } cases[] = {
        {{}, {{2, 2}}, {1, 3}},
        {{{2, 3}}, {}, {2, 3}},
        {{{1, 3}}, {{3, 3}}, {1, 2}},
    };
    append(3, 1);  // event ids 1, 2, 3 in records 1, 2, 3
    for (const auto& c : cases) {
        ChannelSettings s = settings();
        if (!c.white.empty()) s.filters.whitelist.codeLists.push_back(c.white);
        if (!c.black.empty()) s.filters.blacklist.codeLists.push_back(c.black);
        WinEventLogChannel& ch = open(s);
        EventBatch records;
        ch.getEventsNew(records);
        std::vector<uint32_t> kept;
        for (const auto& r : records) kept.push_back(r.eventCode);
        EXPECT_EQ(kept, c.kept);
    }
}

TEST_F(Recovery, MessageIsTheLastFieldAfterSidTranslation) {
    const std::string text = "Account S-1-5-18 acted";
    struct {
        bool resolve, xml;
        bool messageTranslated, xmlTranslated;
    } cases[] = {
        {false, false, false, false},
        {true, false, true, false},
        {true, true, false, true},
    };
    append(1, 1, text);
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.resolve << c.xml);
        ChannelSettings s = settings();
        s.resolveAdObj = c.resolve;
        s.renderXml = c.xml;
        WinEventLogChannel& ch = open(s);
        EventBatch records;
        ch.getEventsNew(records);
        ASSERT_EQ(records.size(), 1u);
        const EventRecord& r = records[0];
        EXPECT_NE(r.handle.get(), nullptr);
        EXPECT_EQ(r.recordNumber, 1u);
        EXPECT_EQ(r.eventCode, 1u);
        EXPECT_GT(r.time, 0u);
        EXPECT_EQ(r.xml.empty(), !c.xml);
        if (c.xml) {
            // Sent as its XML: no classic fields are formatted.
            EXPECT_TRUE(r.fields.empty());
            EXPECT_TRUE(r.message.empty());
            EXPECT_EQ(r.xml.find(L"S-1-5-18") == std::wstring::npos, c.xmlTranslated);
        } else {
            ASSERT_FALSE(r.fields.empty());
            EXPECT_EQ(r.fields.back().key, L"Message");
            EXPECT_EQ(r.fields.back().value, r.message);
            EXPECT_EQ(r.message.find(L"S-1-5-18") == std::wstring::npos, c.messageTranslated) << narrow(r.message);
        }
    }
}

}  // namespace
}  // namespace skorva::test
