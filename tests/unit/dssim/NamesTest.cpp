// DsMapSchemaGuidsW and DsCrackNamesW against the sample directory.
#include "DssimTestUtil.h"

#include "Text.h"

using namespace dssim_test;
using skorva::test::DssimDirectory;

namespace {

GUID guid(const char* text) {
    GUID g{};
    EXPECT_TRUE(evtsim::parseGuid(text, g)) << text;
    return g;
}

TEST(NamesTest, SchemaGuidsMapToDisplayNamesAndUnknownOnesToNothing) {
    DssimDirectory dir;
    dir.useSample();
    Binding b;
    ASSERT_EQ(0u, b.status());
    // An unknown GUID is no failure: DS_SCHEMA_GUID_NOT_FOUND with a null name
    // (DS_SCHEMA_GUID_MAP); object GUIDs are not schema GUIDs.
    GUID guids[] = {guid("bf967aba-0de6-11d0-a285-00aa003049e2"), guid("{bf967a68-0de6-11d0-a285-00aa003049e2}"),
                    guid("77b5b886-944a-11d1-aebd-0000f80367c1"), guid("00299570-246d-11d0-a768-00aa006e0529"),
                    guid("20983438-8bbc-45b7-9563-9a5fc0cc48ec"), GUID{}};
    const struct {
        DWORD type;
        const wchar_t* name;
    } expected[] = {{DS_SCHEMA_GUID_CLASS, L"user"},        {DS_SCHEMA_GUID_ATTR, L"userAccountControl"},
                    {DS_SCHEMA_GUID_ATTR_SET, L"Personal Information"}, {DS_SCHEMA_GUID_CONTROL_RIGHT, L"Reset Password"},
                    {DS_SCHEMA_GUID_NOT_FOUND, nullptr},    {DS_SCHEMA_GUID_NOT_FOUND, nullptr}};
    DS_SCHEMA_GUID_MAPW* raw = nullptr;
    ASSERT_EQ(0u, dssim::DsMapSchemaGuidsW(b.get(), 6, guids, &raw));
    GuidMap map(raw);
    for (int i = 0; i < 6; ++i) {
        EXPECT_TRUE(IsEqualGUID(guids[i], map.get()[i].guid)) << i;
        EXPECT_EQ(expected[i].type, map.get()[i].guidType) << i;
        EXPECT_EQ(text(expected[i].name), text(map.get()[i].pName)) << i;
    }
}

// Two objects answer to one SID: DS_NAME_ERROR_NOT_UNIQUE (DS_NAME_ERROR). (Each
// status as injected reaches the product's log end to end.)
TEST(NamesTest, SidOfTwoObjectsIsNotUnique) {
    DssimDirectory dir;
    dir.write("[dc]\nname = DC01.corp.example.test\ndomain = corp.example.test\n"
              "[object]\nsid = S-1-5-21-1-2-3-1000\ndn = CN=a,DC=corp,DC=example,DC=test\n"
              "[object]\nsid = S-1-5-21-9-9-9-7\nsid_history = S-1-5-21-1-2-3-1000\ndn = CN=b,DC=corp,DC=example,DC=test\n");
    Binding b;
    NameResult r;
    ASSERT_EQ(0u, crack(b.get(), DS_SID_OR_SID_HISTORY_NAME, DS_FQDN_1779_NAME, L"S-1-5-21-1-2-3-1000", r));
    EXPECT_EQ(static_cast<DWORD>(DS_NAME_ERROR_NOT_UNIQUE), r.get()->rItems[0].status);
}

}  // namespace
