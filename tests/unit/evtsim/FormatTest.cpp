// EvtOpenPublisherMetadata and EvtFormatMessage: providers without resources, small
// buffers, typed inserts, the keyword list's bytes. (Texts sized in characters, the
// message id look-up, parameter strings, the errors 15027 to 15029 and formatting
// without a publisher, from the event's own texts or Winmeta's names, are met
// through the product's renderer: RenderingTest, FormattingTest, and the modern and
// legacy messages agreeing in channel/LegacyTest.)
#include "EvtsimTestUtil.h"

#include "platform/Strings.h"

using namespace evtsim_test;
using skorva::widen;
using skorva::test::EvtsimStore;

namespace {

class FormatTest : public ::testing::Test {
protected:
    void SetUp() override {
        evtsim::ProviderDef p;
        p.name = "Test-Provider";
        p.tasks = {{7, "Logon"}};
        p.keywords = {{0x1, "First"}, {0x2, "Second"}};
        p.events = {{10, "User %1 did %2."}, {11, "Needs %4"}};
        store.addProvider(p);
        store.createChannel("Application");
        evtsim::EventSpec e = sampleEvent(10, {{"User", "bob"}, {"Action", "log on"}});
        e.provider = "Test-Provider";
        e.task = 7, e.keywords = 0x3;
        store.append("Application", e);
        e.eventId = 11;
        store.append("Application", e);
        query.reset(evtsim::EvtQuery(nullptr, L"Application", nullptr, EvtQueryChannelPath));
        events = readAll(query.get());
        ASSERT_EQ(2u, events.size());
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

// The keywords are a list of strings ending in an extra NUL, sized in characters
// (what the product makes of such a list: FormattingTest, KeywordLists...).
TEST_F(FormatTest, KeywordsAreAListEndingInAnExtraNul) {
    std::wstring out;
    ASSERT_EQ(0u, format(pub.get(), events[0].get(), EvtFormatMessageKeyword, out));
    EXPECT_EQ(std::wstring(L"First\0Second\0\0", 14), out);
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
    ASSERT_EQ(3u, all.size());
    UniqueEvtHandle meta(evtsim::EvtOpenPublisherMetadata(nullptr, L"Typed-Provider", nullptr, 0, 0));
    std::wstring out;
    // A parameter insert the publisher has no string for stays, with 15030.
    EXPECT_EQ(15030u, format(meta.get(), all[2].get(), EvtFormatMessageEvent, out));
    EXPECT_STREQ(L"id 0x3E7, guid {BF967ABA-0DE6-11D0-A285-00AA003049E2}, count 42, list [1, 2], ok true, param %%9999",
                 out.c_str());
}

}  // namespace
