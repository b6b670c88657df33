// EvtCreateRenderContext and EvtRender: variant types and layout, XML, sizes.
#include "EvtsimTestUtil.h"

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

// The types and values are those the product's renderer checks field by field
// (RenderingTest); here the size and layout it relies on.
TEST_F(RenderTest, ElevenSystemPathsInTheCallersBuffer) {
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
    // Pointers lead into the caller's buffer, after the variant array.
    auto inBuffer = [&](const void* p) { return p >= buf.data() + 11 * 16 && p < buf.data() + buf.size(); };
    EXPECT_TRUE(inBuffer(v[2].StringVal));
    EXPECT_TRUE(inBuffer(v[7].SidVal));
}

// Event data render with the types of the provider's template, as the service
// renders them (beats winlogbeat/sys/wineventlog/renderer.go reads UInt32,
// HexInt64, GUID, SID, FileTime, Boolean, binary and array values from the user
// context); an array is a run of data elements of one name. Data beyond the
// template, and those of a provider without one, are strings; a value that does
// not convert is Null.
TEST_F(RenderTest, DataRenderWithTheirTemplateTypes) {
    evtsim::ProviderDef def;
    def.name = "Typed-Provider";
    def.templates = {{20,
                      {{"Count", EvtVarTypeUInt32, false}, {"LogonId", EvtVarTypeHexInt64, false},
                       {"Guid", EvtVarTypeGuid, false}, {"Sid", EvtVarTypeSid, false},
                       {"When", EvtVarTypeFileTime, false}, {"Ok", EvtVarTypeBoolean, false},
                       {"Blob", EvtVarTypeBinary, false}, {"Port", EvtVarTypeUInt16, true},
                       {"Name", EvtVarTypeString, true}, {"Delta", EvtVarTypeInt32, false},
                       {"Bad", EvtVarTypeUInt32, false}}}};
    store.addProvider(def);
    evtsim::EventSpec e = sampleEvent(20, {{"Count", "42"}, {"LogonId", "0x3e7"},
                                           {"Guid", "{bf967aba-0de6-11d0-a285-00aa003049e2}"},
                                           {"Sid", "S-1-5-32-544"}, {"When", "2024-01-31T21:05:07.1234567Z"},
                                           {"Ok", "true"}, {"Blob", "0A1BFF"}, {"Port", "80"}, {"Port", "443"},
                                           {"Name", "a"}, {"Name", "bc"}, {"Delta", "-5"}, {"Bad", "not a number"},
                                           {"Extra", "beyond the template"}});
    e.provider = "Typed-Provider";
    store.append("Security", e);
    UniqueEvtHandle q(evtsim::EvtQuery(nullptr, L"Security", nullptr, EvtQueryChannelPath));
    auto events = readAll(q.get());
    ASSERT_EQ(2u, events.size());
    EVT_HANDLE typed = events[1].get();

    UniqueEvtHandle user(evtsim::EvtCreateRenderContext(0, nullptr, EvtRenderContextUser));
    DWORD used = 0, count = 0;
    EXPECT_FALSE(evtsim::EvtRender(user.get(), typed, EvtRenderEventValues, 0, nullptr, &used, &count));
    std::vector<BYTE> buf(used);
    ASSERT_TRUE(evtsim::EvtRender(user.get(), typed, EvtRenderEventValues, used, buf.data(), &used, &count));
    ASSERT_EQ(12u, count);
    auto* v = reinterpret_cast<EVT_VARIANT*>(buf.data());
    const DWORD types[] = {EvtVarTypeUInt32,  EvtVarTypeHexInt64, EvtVarTypeGuid,
                           EvtVarTypeSid,     EvtVarTypeFileTime, EvtVarTypeBoolean,
                           EvtVarTypeBinary,  EvtVarTypeUInt16 | EVT_VARIANT_TYPE_ARRAY,
                           EvtVarTypeString | EVT_VARIANT_TYPE_ARRAY, EvtVarTypeInt32,
                           EvtVarTypeNull,    EvtVarTypeString};
    for (int i = 0; i < 12; ++i) EXPECT_EQ(types[i], v[i].Type) << i;
    // Scalars as text are checked where the product renders them; the arrays here.
    EXPECT_EQ((std::vector<uint16_t>{80, 443}), std::vector<uint16_t>(v[7].UInt16Arr, v[7].UInt16Arr + v[7].Count));
    EXPECT_EQ((std::vector<std::wstring>{L"a", L"bc"}),
              std::vector<std::wstring>(v[8].StringArr, v[8].StringArr + v[8].Count));
    EXPECT_STREQ(L"beyond the template", v[11].StringVal);
    // Everything pointed to lies in the caller's buffer, after the variants.
    auto inBuffer = [&](const void* p) { return p >= buf.data() + 12 * 16 && p < buf.data() + buf.size(); };
    for (int i : {2, 3, 6, 7, 8, 11}) EXPECT_TRUE(inBuffer(v[i].GuidVal)) << i;
    EXPECT_TRUE(inBuffer(v[8].StringArr[1]));
}

// Whatever the store was given, the XML renders in the service's form: attributes
// in single quotes, no layout white space, no comments or CDATA sections. It is
// NUL-terminated UTF-16 sized in bytes; one byte short fails with the full size.
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
    const std::wstring xml = renderXml(events[1].get());  // sizing call: 122
    EXPECT_EQ(L"<Event xmlns='http://schemas.microsoft.com/win/2004/08/events/event'><System><Provider Name='P'/>"
              L"<EventID>7</EventID><Security UserID='S-1-5-18'/><EventRecordID>2</EventRecordID>"
              L"<Channel>Security</Channel></System><EventData><Data Name='A'>x &lt; y &amp; \"z\"</Data>"
              L"<Data Name='B'> </Data></EventData></Event>",
              xml);
    std::vector<BYTE> buf((xml.size() + 1) * 2);
    DWORD used = 0, count = 0;
    EXPECT_FALSE(evtsim::EvtRender(nullptr, events[1].get(), EvtRenderEventXml, DWORD(buf.size() - 1), buf.data(), &used,
                                   &count));
    EXPECT_EQ(122u, GetLastError());
    EXPECT_EQ(buf.size(), used);
}

}  // namespace
