// EvtCreateRenderContext and EvtRender: variant types and layout, XML, sizes.
#include "EvtsimTestUtil.h"

#include <sddl.h>

#include <cstring>

using namespace evtsim_test;
using skorva::test::EvtsimStore;

namespace {

class RenderTest : public ::testing::Test {
protected:
    void SetUp() override {
        store.createChannel("Security");
        evtsim::EventSpec e = sampleEvent(4624, {{"SubjectUserSid", "S-1-5-18"}, {"TargetUserName", "jürgen"}});
        e.provider = "Microsoft-Windows-Security-Auditing";
        e.providerGuid = "{54849625-5478-4994-a5ba-3e3b0328c30d}";
        e.level = 0;
        e.task = 12544;
        e.opcode = 0;
        e.keywords = 0x8020000000000000ull;
        e.timeCreated = "2024-01-31T21:05:07.1234567Z";
        e.computer = "DC01.corp.example.test";
        e.userSid = "S-1-5-21-1-2-3-500";
        store.append("Security", e);
        query.reset(evtsim::EvtQuery(nullptr, L"Security", L"*", EvtQueryChannelPath));
        auto events = readAll(query.get());
        ASSERT_EQ(1u, events.size());
        event = std::move(events[0]);
    }
    EvtsimStore store;
    UniqueEvtHandle query;  // its events close with it
    UniqueEvtHandle event;
};

// The channel reader's eleven paths.
const wchar_t* kPaths[] = {
    L"Event/System/EventRecordID", L"Event/System/TimeCreated/@SystemTime", L"Event/System/Channel",
    L"Event/System/Provider/@Name", L"Event/System/EventID",  L"Event/System/Level",
    L"Event/System/Computer",      L"Event/System/Security/@UserID", L"Event/System/Task",
    L"Event/System/Opcode",        L"Event/System/Keywords",
};

TEST_F(RenderTest, ElevenSystemPathsHaveTheServiceTypes) {
    UniqueEvtHandle ctx(evtsim::EvtCreateRenderContext(11, const_cast<LPCWSTR*>(kPaths), EvtRenderContextValues));
    ASSERT_TRUE(ctx);
    DWORD used = 0, count = 0;
    EXPECT_FALSE(evtsim::EvtRender(ctx.get(), event.get(), EvtRenderEventValues, 0, nullptr, &used, &count));
    EXPECT_EQ(122u, GetLastError());
    // Variants, then "Security" and the provider and computer names, then the 4-aligned SID (1 + 5 sub-authorities).
    size_t strings = (9 + 36 + 23) * sizeof(wchar_t);
    size_t expected = ((11 * 16 + strings + 3) / 4) * 4 + 8 + 4 * 5;
    EXPECT_EQ(expected, used);
    EXPECT_EQ(11u, count);
    std::vector<BYTE> buf(used);
    ASSERT_TRUE(evtsim::EvtRender(ctx.get(), event.get(), EvtRenderEventValues, used, buf.data(), &used, &count));
    auto* v = reinterpret_cast<EVT_VARIANT*>(buf.data());
    EXPECT_EQ(16u, sizeof(EVT_VARIANT));
    const DWORD types[] = {10, 17, 1, 1, 6, 4, 1, 19, 6, 4, 21};
    for (int i = 0; i < 11; ++i) EXPECT_EQ(types[i], v[i].Type) << i;
    EXPECT_EQ(1u, v[0].UInt64Val);
    EXPECT_EQ(133512087071234567ull, v[1].FileTimeVal);
    EXPECT_STREQ(L"Security", v[2].StringVal);
    EXPECT_STREQ(L"Microsoft-Windows-Security-Auditing", v[3].StringVal);
    EXPECT_EQ(4624, v[4].UInt16Val);
    EXPECT_EQ(0, v[5].ByteVal);
    EXPECT_STREQ(L"DC01.corp.example.test", v[6].StringVal);
    EXPECT_EQ(12544, v[8].UInt16Val);
    EXPECT_EQ(0x8020000000000000ull, v[10].UInt64Val);
    // Pointers lead into the caller's buffer, after the variant array.
    auto inBuffer = [&](const void* p) { return p >= buf.data() + 11 * 16 && p < buf.data() + buf.size(); };
    EXPECT_TRUE(inBuffer(v[2].StringVal));
    EXPECT_TRUE(inBuffer(v[7].SidVal));
    wchar_t* sidText = nullptr;
    ASSERT_TRUE(ConvertSidToStringSidW(v[7].SidVal, &sidText));
    EXPECT_STREQ(L"S-1-5-21-1-2-3-500", sidText);
    LocalFree(sidText);
}

// Whatever the store was given, the XML renders in the service's form: attributes
// in single quotes, no layout white space, no comments or CDATA sections.
TEST_F(RenderTest, XmlRendersInTheServicesFormWhateverItWasGiven) {
    store.appendXml("Security",
                    "<?xml version=\"1.0\"?>\n<Event xmlns=\"http://schemas.microsoft.com/win/2004/08/events/event\">\n"
                    "  <System>\n    <Provider Name=\"P\" />\n    <!-- a comment -->\n    <EventID>7</EventID>\n"
                    "    <Security UserID=\"S-1-5-18\"></Security>\n  </System>\n  <EventData>\n"
                    "    <Data Name=\"A\"><![CDATA[x < y & \"z\"]]></Data>\n    <Data Name='B'> </Data>\n"
                    "  </EventData>\n</Event>\n");
    UniqueEvtHandle q(evtsim::EvtQuery(nullptr, L"Security", nullptr, EvtQueryChannelPath));
    auto events = readAll(q.get());
    ASSERT_EQ(2u, events.size());
    EXPECT_EQ(L"<Event xmlns='http://schemas.microsoft.com/win/2004/08/events/event'><System><Provider Name='P'/>"
              L"<EventID>7</EventID><Security UserID='S-1-5-18'/><EventRecordID>2</EventRecordID>"
              L"<Channel>Security</Channel></System><EventData><Data Name='A'>x &lt; y &amp; \"z\"</Data>"
              L"<Data Name='B'> </Data></EventData></Event>",
              renderXml(events[1].get()));
}

TEST_F(RenderTest, XmlIsTerminatedUtf16SizedInBytes) {
    DWORD used = 0, count = 7;
    EXPECT_FALSE(evtsim::EvtRender(nullptr, event.get(), EvtRenderEventXml, 0, nullptr, &used, &count));
    EXPECT_EQ(122u, GetLastError());
    std::wstring xml = renderXml(event.get());
    EXPECT_EQ((xml.size() + 1) * 2, used);
    EXPECT_EQ(0u, xml.find(L"<Event xmlns='http://schemas.microsoft.com/win/2004/08/events/event'><System>"));
    EXPECT_NE(std::wstring::npos, xml.find(L"<EventRecordID>1</EventRecordID>"));
    EXPECT_NE(std::wstring::npos, xml.find(L"<Channel>Security</Channel>"));
    EXPECT_NE(std::wstring::npos, xml.find(L"jürgen"));
    // One byte short still fails with the full size.
    std::vector<BYTE> buf(used);
    EXPECT_FALSE(evtsim::EvtRender(nullptr, event.get(), EvtRenderEventXml, used - 1, buf.data(), &used, &count));
    EXPECT_EQ(122u, GetLastError());
    EXPECT_EQ((xml.size() + 1) * 2, used);
}

}  // namespace
