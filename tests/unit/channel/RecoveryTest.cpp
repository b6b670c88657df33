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
        const std::string_view text = records[0].text;  // (its number, code and time: RenderingTest)
        EXPECT_EQ(text.rfind("<Event", 0) == 0, c.xml) << text;
        if (c.xml) {
            // Sent as its XML: no classic fields are formatted.
            EXPECT_EQ(text.find("Message="), std::string::npos);
            EXPECT_EQ(text.find("S-1-5-18") == std::string::npos, c.xmlTranslated);
        } else {
            const size_t message = text.rfind("\nMessage=");
            ASSERT_NE(message, std::string::npos) << text;
            EXPECT_EQ(text.find("S-1-5-18", message) == std::string::npos, c.messageTranslated) << text;
        }
    }
}

}  // namespace
}  // namespace skorva::test
