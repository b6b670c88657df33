// EvtOpenPublisherMetadata and EvtFormatMessage: the nine flags, counting in characters.
#include "EvtsimTestUtil.h"

using namespace evtsim_test;
using skorva::test::EvtsimStore;

namespace {

class FormatTest : public ::testing::Test {
protected:
    void SetUp() override {
        evtsim::ProviderDef p;
        p.name = "Test-Provider";
        p.displayName = "Test provider";
        p.levels = {{4, "Info level"}};
        p.tasks = {{7, "Logon"}};
        p.opcodes = {{0, "Info"}};
        p.keywords = {{0x1, "First"}, {0x2, "Second"}};
        p.channels = {{"Application", "Application log"}};
        p.strings = {{1842, "Yes"}, {500, "Plain message"}};
        p.events = {{10, "User %1 did %2.%nDone: %3"}, {11, "Needs %4"}};
        store.addProvider(p);
        evtsim::ProviderDef noLocale;
        noLocale.name = "No-Locale";
        noLocale.resources = false;
        store.addProvider(noLocale);
        store.createChannel("Application");
        evtsim::EventSpec e = sampleEvent(10, {{"User", "bob"}, {"Action", "log on"}, {"Done", "%%1842"}});
        e.provider = "Test-Provider";
        e.task = 7;
        e.keywords = 0x0020000000000003ull;
        store.append("Application", e);
        e.eventId = 11;
        store.append("Application", e);
        e.eventId = 99;
        store.append("Application", e);
        evtsim::EventSpec fwd = sampleEvent(5);
        fwd.provider = "Unknown-Provider";
        fwd.rendering = true;
        fwd.renderMessage = "Pre-rendered text";
        fwd.renderLevel = "Warning";
        fwd.renderKeywords = {"Audit Success", "Classic"};
        store.append("Application", fwd);
        query.reset(evtsim::EvtQuery(nullptr, L"Application", nullptr, EvtQueryChannelPath));
        events = readAll(query.get());
        ASSERT_EQ(4u, events.size());
        pub.reset(evtsim::EvtOpenPublisherMetadata(nullptr, L"Test-Provider", nullptr, 0, 0));
        ASSERT_TRUE(pub);
    }

    // Formats with the two-call protocol; returns the error (0 on success).
    DWORD format(EVT_HANDLE meta, EVT_HANDLE ev, DWORD flag, std::wstring& out, DWORD id = 0) {
        DWORD used = 0;
        if (evtsim::EvtFormatMessage(meta, ev, id, 0, nullptr, flag, 0, nullptr, &used)) return 0;
        DWORD err = GetLastError();
        if (err != ERROR_INSUFFICIENT_BUFFER) return err;
        out.assign(used, L'#');
        DWORD again = 0;
        BOOL ok = evtsim::EvtFormatMessage(meta, ev, id, 0, nullptr, flag, used, out.data(), &again);
        EXPECT_EQ(used, again);
        return ok ? 0 : GetLastError();
    }

    EvtsimStore store;
    UniqueEvtHandle query;  // its events close with it
    std::vector<UniqueEvtHandle> events;
    UniqueEvtHandle pub;
};

TEST_F(FormatTest, FlagsWithPublisher) {
    struct Case {
        DWORD flag;
        const wchar_t* text;
    } cases[] = {
        {EvtFormatMessageEvent, L"User bob did log on.\r\nDone: Yes"},
        {EvtFormatMessageLevel, L"Info level"},
        {EvtFormatMessageTask, L"Logon"},
        {EvtFormatMessageOpcode, L"Info"},
        {EvtFormatMessageChannel, L"Application log"},
        {EvtFormatMessageProvider, L"Test provider"},
    };
    for (const auto& c : cases) {
        std::wstring out;
        ASSERT_EQ(0u, format(pub.get(), events[0].get(), c.flag, out)) << c.flag;
        EXPECT_EQ(wcslen(c.text) + 1, out.size()) << c.flag;  // characters, terminator included
        EXPECT_STREQ(c.text, out.c_str());
    }
    std::wstring out;
    EXPECT_EQ(0u, format(pub.get(), nullptr, EvtFormatMessageId, out, 500));
    EXPECT_STREQ(L"Plain message", out.c_str());
}

TEST_F(FormatTest, KeywordsAreAMultiStringEndingInAnExtraNul) {
    std::wstring out;
    ASSERT_EQ(0u, format(pub.get(), events[0].get(), EvtFormatMessageKeyword, out));
    EXPECT_EQ(std::wstring(L"First\0Second\0Audit Success\0\0", 28), out);
}

TEST_F(FormatTest, MissingMessages) {
    std::wstring out;
    EXPECT_EQ(15027u, format(pub.get(), events[2].get(), EvtFormatMessageEvent, out));  // no message for id 99
    EXPECT_EQ(15028u, format(pub.get(), nullptr, EvtFormatMessageId, out, 4242));
    // A template asking for more inserts than the event has: text with the marker, and 15029.
    EXPECT_EQ(15029u, format(pub.get(), events[1].get(), EvtFormatMessageEvent, out));
    EXPECT_STREQ(L"Needs %4", out.c_str());
}

TEST_F(FormatTest, PublisherMetadataErrors) {
    EXPECT_EQ(nullptr, evtsim::EvtOpenPublisherMetadata(nullptr, L"Nobody", nullptr, 0, 0));
    EXPECT_EQ(2u, GetLastError());
    UniqueEvtHandle noLocale(evtsim::EvtOpenPublisherMetadata(nullptr, L"No-Locale", nullptr, 0, 0));
    ASSERT_TRUE(noLocale);
    std::wstring out;
    EXPECT_EQ(15033u, format(noLocale.get(), events[0].get(), EvtFormatMessageEvent, out));
    EXPECT_EQ(6u, format(reinterpret_cast<EVT_HANDLE>(0x55), events[0].get(), EvtFormatMessageEvent, out));
    EXPECT_EQ(87u, format(pub.get(), events[0].get(), 10, out));
}

TEST_F(FormatTest, RenderingInfoWithoutPublisher) {
    std::wstring out;
    ASSERT_EQ(0u, format(nullptr, events[3].get(), EvtFormatMessageEvent, out));
    EXPECT_STREQ(L"Pre-rendered text", out.c_str());
    ASSERT_EQ(0u, format(nullptr, events[3].get(), EvtFormatMessageLevel, out));
    EXPECT_STREQ(L"Warning", out.c_str());
    ASSERT_EQ(0u, format(nullptr, events[3].get(), EvtFormatMessageKeyword, out));
    EXPECT_EQ(std::wstring(L"Audit Success\0Classic\0\0", 23), out);
    EXPECT_EQ(15027u, format(nullptr, events[0].get(), EvtFormatMessageEvent, out));  // nothing embedded
}

TEST_F(FormatTest, XmlCarriesRenderingInfo) {
    std::wstring out;
    ASSERT_EQ(0u, format(pub.get(), events[0].get(), EvtFormatMessageXml, out));
    EXPECT_NE(std::wstring::npos, out.find(L"<RenderingInfo Culture='en-US'><Message>User bob did log on.&#xD;\nDone: Yes</Message>"
                                           L"<Level>Info level</Level><Task>Logon</Task>"));
    EXPECT_NE(std::wstring::npos, out.find(L"<Keywords><Keyword>First</Keyword><Keyword>Second</Keyword>"));
    EXPECT_EQ(out.size() - 1 - wcslen(L"</Event>"), out.rfind(L"</Event>"));
}

TEST_F(FormatTest, BufferOneShortFails) {
    DWORD used = 0;
    evtsim::EvtFormatMessage(pub.get(), events[0].get(), 0, 0, nullptr, EvtFormatMessageTask, 0, nullptr, &used);
    EXPECT_EQ(6u, used);  // "Logon" and its terminator
    wchar_t buf[5];
    EXPECT_FALSE(evtsim::EvtFormatMessage(pub.get(), events[0].get(), 0, 0, nullptr, EvtFormatMessageTask, 5, buf, &used));
    EXPECT_EQ(122u, GetLastError());
    EXPECT_EQ(6u, used);
}

}  // namespace
