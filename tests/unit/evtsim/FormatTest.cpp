// EvtOpenPublisherMetadata and EvtFormatMessage: counting in characters, the errors,
// formatting without a publisher, small buffers, typed inserts.
#include "EvtsimTestUtil.h"

#include "platform/Strings.h"

using namespace evtsim_test;
using skorva::widen;
using skorva::test::EvtsimStore;

namespace {

// A literal with its terminating NUL: the formatter counts in characters, the NUL included.
template <size_t N>
std::wstring counted(const wchar_t (&text)[N]) {
    return std::wstring(text, N);
}

class FormatTest : public ::testing::Test {
protected:
    void SetUp() override {
        evtsim::ProviderDef p;
        p.name = "Test-Provider";
        p.levels = {{4, "Info level"}};
        p.tasks = {{7, "Logon"}};
        p.keywords = {{0x1, "First"}, {0x2, "Second"}};
        p.strings = {{1842, "Yes"}, {500, "Plain message"}};
        p.events = {{10, "User %1 did %2.%nDone: %3"}, {11, "Needs %4"}};
        store.addProvider(p);
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
        fwd.renderLevel = "Warning";
        fwd.renderKeywords = {"Audit Success", "Classic"};
        store.append("Application", fwd);
        query.reset(evtsim::EvtQuery(nullptr, L"Application", nullptr, EvtQueryChannelPath));
        events = readAll(query.get());
        ASSERT_EQ(4u, events.size());
        pub.reset(evtsim::EvtOpenPublisherMetadata(nullptr, L"Test-Provider", nullptr, 0, 0));
        ASSERT_TRUE(pub);
    }

    // Formats with the two-call protocol; returns the error (0 on success). The
    // sizing call reports the size with 122, or with the error of a text whose
    // inserts are unresolved.
    DWORD format(EVT_HANDLE meta, EVT_HANDLE ev, DWORD flag, std::wstring& out, DWORD id = 0) {
        DWORD used = 0;
        out.clear();
        if (evtsim::EvtFormatMessage(meta, ev, id, 0, nullptr, flag, 0, nullptr, &used)) return 0;
        DWORD err = GetLastError();
        if (used == 0) return err;
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

// With the publisher: texts sized in characters; the keywords a list of strings
// ending in an extra NUL; the errors of what the publisher lacks. (The names of
// levels, tasks and the rest are checked where the product renders them.)
TEST_F(FormatTest, FlagsWithPublisher) {
    const struct {
        EVT_HANDLE event;
        DWORD flag, id, error;
        std::wstring text;
    } cases[] = {
        {events[0].get(), EvtFormatMessageEvent, 0, 0, counted(L"User bob did log on.\r\nDone: Yes")},
        {events[0].get(), EvtFormatMessageLevel, 0, 0, counted(L"Info level")},
        {events[0].get(), EvtFormatMessageKeyword, 0, 0, counted(L"First\0Second\0Audit Success\0")},
        {nullptr, EvtFormatMessageId, 500, 0, counted(L"Plain message")},
        {events[2].get(), EvtFormatMessageEvent, 0, 15027, L""},  // no message for id 99
        {nullptr, EvtFormatMessageId, 4242, 15028, L""},
        // More inserts asked for than the event has: the text with the marker.
        {events[1].get(), EvtFormatMessageEvent, 0, 15029, counted(L"Needs %4")},
    };
    for (const auto& c : cases) {
        std::wstring out;
        EXPECT_EQ(c.error, format(pub.get(), c.event, c.flag, out, c.id)) << c.flag << " " << c.id;
        EXPECT_EQ(c.text, out) << c.flag << " " << c.id;
    }
}

// A provider registered without its resources gives no text at all: locale
// missing (15033); resource file missing (15100) or without the language (1815),
// as dotnet's EventLog NativeWrapper.cs and Fluent Bit's winevtlog.c meet them.
TEST_F(FormatTest, ProviderWithoutResources) {
    for (DWORD missing : {15033u, 15100u, 1815u}) {
        evtsim::ProviderDef def;
        def.name = "No-Resources-" + std::to_string(missing);
        def.missingResources = missing;
        def.levels = {{4, "Info level"}};
        store.addProvider(def);
        UniqueEvtHandle meta(evtsim::EvtOpenPublisherMetadata(nullptr, widen(def.name).c_str(), nullptr, 0, 0));
        ASSERT_TRUE(meta) << missing;
        std::wstring out;
        for (DWORD flag : {EvtFormatMessageEvent, EvtFormatMessageLevel})
            EXPECT_EQ(missing, format(meta.get(), events[0].get(), flag, out)) << missing << " " << flag;
    }
}

// Without a publisher handle the service formats from the texts a forwarded event
// carries, and otherwise the names Winmeta.xml defines (EvtFormatMessage: "You can
// also set this parameter to NULL if the event property that you are formatting is
// defined in the Winmeta.xml file").
TEST_F(FormatTest, WithoutPublisherRenderingInfoThenWinmetaNames) {
    std::wstring out;
    ASSERT_EQ(0u, format(nullptr, events[3].get(), EvtFormatMessageLevel, out));
    EXPECT_EQ(counted(L"Warning"), out);  // the event's own text, not Winmeta's for level 4
    ASSERT_EQ(0u, format(nullptr, events[3].get(), EvtFormatMessageKeyword, out));
    EXPECT_EQ(counted(L"Audit Success\0Classic\0"), out);
    EXPECT_EQ(15027u, format(nullptr, events[0].get(), EvtFormatMessageEvent, out));  // nothing embedded

    const struct {
        unsigned level, task, opcode;
        uint64_t keywords;
        const wchar_t *levelName, *taskName, *opcodeName;
        std::wstring keywordList;
    } cases[] = {
        {0, 0, 0, 0x8000000000000000ull, L"Log Always", L"None", L"Info", counted(L"")},
        {2, 7, 1, 0x0080000000000000ull, L"Error", nullptr, L"Start", counted(L"Classic\0")},
        {4, 0, 240, 0x0030000000000001ull, L"Information", L"None", L"Receive", counted(L"Audit Failure\0Audit Success\0")},
        {9, 0, 77, 0x0002000000000000ull, nullptr, L"None", nullptr, counted(L"WDI Context\0")},
    };
    for (const auto& c : cases) {
        evtsim::EventSpec e = sampleEvent(5);
        e.provider = "Not-Installed";
        e.level = c.level, e.task = c.task, e.opcode = c.opcode, e.keywords = c.keywords;
        store.append("Application", e);
    }
    UniqueEvtHandle q(evtsim::EvtQuery(nullptr, L"Application", nullptr, EvtQueryChannelPath));
    auto all = readAll(q.get());
    ASSERT_EQ(8u, all.size());
    for (size_t i = 0; i < 4; ++i) {
        const auto& c = cases[i];
        EVT_HANDLE ev = all[4 + i].get();
        const std::pair<DWORD, const wchar_t*> names[] = {
            {EvtFormatMessageLevel, c.levelName}, {EvtFormatMessageTask, c.taskName}, {EvtFormatMessageOpcode, c.opcodeName}};
        for (const auto& [flag, name] : names) {
            if (name) {
                ASSERT_EQ(0u, format(nullptr, ev, flag, out)) << i << " " << flag;
                EXPECT_STREQ(name, out.c_str()) << i;
            } else {
                EXPECT_EQ(15028u, format(nullptr, ev, flag, out)) << i << " " << flag;
            }
        }
        ASSERT_EQ(0u, format(nullptr, ev, EvtFormatMessageKeyword, out));
        EXPECT_EQ(c.keywordList, out) << i;
        EXPECT_EQ(15028u, format(nullptr, ev, EvtFormatMessageProvider, out)) << "no Winmeta name";
    }
}

// A buffer too small for the text is not refused: what fits is copied (here with
// its terminator) and the call succeeds with the full size in BufferUsed; only the
// sizing call without a buffer fails, with 122 or with the error of a text whose
// inserts are unresolved (beats winlogbeat/sys/wineventlog/format_message.go;
// microsoft/windows-container-tools#64).
TEST_F(FormatTest, SmallBufferGetsTheTextCutAndTheFullSize) {
    const struct {
        EVT_HANDLE event;
        DWORD flag;
        const wchar_t* text;
        DWORD error;  // of the text itself
    } cases[] = {
        {events[0].get(), EvtFormatMessageTask, L"Logon", 0},
        {events[1].get(), EvtFormatMessageEvent, L"Needs %4", 15029},
    };
    for (const auto& c : cases) {
        const DWORD full = static_cast<DWORD>(wcslen(c.text) + 1);
        DWORD used = 0;
        EXPECT_FALSE(evtsim::EvtFormatMessage(pub.get(), c.event, 0, 0, nullptr, c.flag, 0, nullptr, &used));
        EXPECT_EQ(c.error ? c.error : 122u, GetLastError());
        EXPECT_EQ(full, used);
        wchar_t buf[16];
        wmemset(buf, L'#', 16);
        const BOOL ok = evtsim::EvtFormatMessage(pub.get(), c.event, 0, 0, nullptr, c.flag, 4, buf, &used);
        EXPECT_EQ(c.error, ok ? 0u : GetLastError());
        EXPECT_EQ(full, used);
        EXPECT_EQ(std::wstring(c.text, 3), std::wstring(buf)) << "what fits, terminated";
        EXPECT_EQ(L'#', buf[4]) << "nothing past the buffer";
    }
}

// Typed data as message inserts: as the formatter writes them, hexadecimal in
// capitals where the event's XML has small letters (the message of a 4624 reads
// "Logon ID: 0x3E7", its XML SubjectLogonId 0x3e7); an array's elements joined.
TEST_F(FormatTest, TypedDataInsertsReadAsTheFormatterWritesThem) {
    evtsim::ProviderDef def;
    def.name = "Typed-Provider";
    def.events = {{20, "id %1, guid %2, count %3, list [%4], ok %5, param %6"}};
    def.templates = {{20,
                      {{"LogonId", EvtVarTypeHexInt64, false},
                       {"Guid", EvtVarTypeGuid, false},
                       {"Count", EvtVarTypeUInt32, false},
                       {"Item", EvtVarTypeUInt16, true},
                       {"Ok", EvtVarTypeBoolean, false},
                       {"Param", EvtVarTypeString, false}}}};
    store.addProvider(def);
    evtsim::EventSpec e = sampleEvent(20, {{"LogonId", "0x3e7"},
                                           {"Guid", "{bf967aba-0de6-11d0-a285-00aa003049e2}"},
                                           {"Count", "42"},
                                           {"Item", "1"},
                                           {"Item", "2"},
                                           {"Ok", "true"},
                                           {"Param", "%%9999"}});
    e.provider = "Typed-Provider";
    store.append("Application", e);
    UniqueEvtHandle q(evtsim::EvtQuery(nullptr, L"Application", nullptr, EvtQueryChannelPath));
    auto all = readAll(q.get());
    ASSERT_EQ(5u, all.size());
    UniqueEvtHandle meta(evtsim::EvtOpenPublisherMetadata(nullptr, L"Typed-Provider", nullptr, 0, 0));
    std::wstring out;
    // A parameter insert the publisher has no string for stays, with 15030.
    EXPECT_EQ(15030u, format(meta.get(), all[4].get(), EvtFormatMessageEvent, out));
    EXPECT_STREQ(L"id 0x3E7, guid {BF967ABA-0DE6-11D0-A285-00AA003049E2}, count 42, list [1, 2], ok true, param %%9999",
                 out.c_str());
}

}  // namespace
