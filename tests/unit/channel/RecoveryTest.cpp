// What the reader makes of each event. (Read errors, invalid handles and the
// event-code filters are run end to end: test_collector.py, test_windows_edges.py.)
#include "ReaderFixture.h"
#include "platform/Strings.h"

namespace skorva::test {
namespace {

using Recovery = ReaderTest;

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
        const EventRecord& r = records[0];  // (its number, code and time: RenderingTest)
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
