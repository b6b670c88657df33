// The managing entry points (a reader never needs them, but they must keep to their
// pages and never crash), the DLL variants that lack names, and the demo's list.
#include <fstream>
#include <sstream>

#include "EcsimTestUtil.h"

using namespace ecsim_test;

namespace {

EC_VARIANT stringVariant(LPCWSTR s) {
    EC_VARIANT v{};
    v.Type = EcVarTypeString;
    v.StringVal = s;
    return v;
}
EC_VARIANT numberVariant(DWORD type, UINT32 n) {
    EC_VARIANT v{};
    v.Type = type;
    v.UInt32Val = n;
    return v;
}

// Changes stay with the handle until EcSaveSubscription ("This function should be
// called whenever new values are added or updated"); then every reader sees them.
TEST(EcsimManage, CreateChangeSaveDelete) {
    CollectorStore store;
    Handle sub(ecsim::EcOpenSubscription(L"New", EC_READ_ACCESS | EC_WRITE_ACCESS, EC_OPEN_ALWAYS));
    ASSERT_TRUE(sub.h);
    EC_VARIANT enabled = numberVariant(EcVarTypeBoolean, TRUE), format = numberVariant(EcVarTypeUInt32, 2),
               log = stringVariant(L"ForwardedEvents"), wrong = numberVariant(EcVarTypeUInt32, 1);
    EXPECT_TRUE(ecsim::EcSetSubscriptionProperty(sub.h, EcSubscriptionEnabled, 0, &enabled));
    EXPECT_TRUE(ecsim::EcSetSubscriptionProperty(sub.h, EcSubscriptionContentFormat, 0, &format));
    EXPECT_TRUE(ecsim::EcSetSubscriptionProperty(sub.h, EcSubscriptionLogFile, 0, &log));
    struct Case {
        const char* what;
        int id;
        DWORD flags;
        PEC_VARIANT value;
        DWORD error;
    } refused[] = {
        {"type not the property's", EcSubscriptionLogFile, 0, &wrong, ERROR_INVALID_PARAMETER},
        {"flags", EcSubscriptionLogFile, 1, &log, ERROR_INVALID_PARAMETER},
        {"no value", EcSubscriptionLogFile, 0, nullptr, ERROR_INVALID_PARAMETER},
        {"the event sources", EcSubscriptionEventSources, 0, &log, ERROR_INVALID_PARAMETER},
        {"not kept", EcSubscriptionCommonPassword, 0, &log, ERROR_NOT_SUPPORTED},
    };
    for (const Case& c : refused) {
        EXPECT_FALSE(ecsim::EcSetSubscriptionProperty(sub.h, static_cast<EC_SUBSCRIPTION_PROPERTY_ID>(c.id), c.flags, c.value))
            << c.what;
        EXPECT_EQ(c.error, GetLastError()) << c.what;
    }
    EXPECT_STREQ(L"ForwardedEvents", variant(property(sub.h, EcSubscriptionLogFile)).StringVal);
    EXPECT_EQ(nullptr, ecsim::EcOpenSubscription(L"New", EC_READ_ACCESS, EC_OPEN_EXISTING));  // not saved yet

    ASSERT_TRUE(ecsim::EcSaveSubscription(sub.h, 0));
    Handle again(ecsim::EcOpenSubscription(L"new", EC_READ_ACCESS, EC_OPEN_EXISTING));
    ASSERT_TRUE(again.h);
    EXPECT_EQ(static_cast<UINT32>(EcContentFormatRenderedText), variant(property(again.h, EcSubscriptionContentFormat)).UInt32Val);
    EXPECT_FALSE(ecsim::EcSaveSubscription(again.h, 0));
    EXPECT_EQ(static_cast<DWORD>(ERROR_ACCESS_DENIED), GetLastError());

    ASSERT_TRUE(ecsim::EcDeleteSubscription(L"New", 0));
    EXPECT_FALSE(ecsim::EcDeleteSubscription(L"New", 0));
    EXPECT_EQ(static_cast<DWORD>(ERROR_FILE_NOT_FOUND), GetLastError());
    Handle en(ecsim::EcOpenSubscriptionEnum(0));
    EXPECT_TRUE(enumerate(en.h).empty());
}

// EcSubscriptionEventSources hands out an array handle; the sources' properties go
// through the array functions ("Arrays are zero-based"); the run-time status lists
// and rates them.
TEST(EcsimManage, EventSourcesAndRunTimeStatus) {
    CollectorStore store;
    store.subscriptions(kThree);
    Handle sub(ecsim::EcOpenSubscription(L"Forwarded-Rendered", EC_READ_ACCESS | EC_WRITE_ACCESS, EC_OPEN_EXISTING));
    auto buf = property(sub.h, EcSubscriptionEventSources);
    ASSERT_EQ(static_cast<DWORD>(EcVarObjectArrayPropertyHandle), variant(buf).Type);
    Handle sources(reinterpret_cast<EC_HANDLE>(*reinterpret_cast<const uintptr_t*>(buf.data())));
    DWORD size = 0;
    ASSERT_TRUE(ecsim::EcGetObjectArraySize(sources.h, &size));
    EXPECT_EQ(2u, size);
    BYTE value[128];
    auto* v = reinterpret_cast<PEC_VARIANT>(value);
    DWORD used = 0;
    ASSERT_TRUE(ecsim::EcGetObjectArrayProperty(sources.h, EcSubscriptionEventSourceEnabled, 1, 0, sizeof value, v, &used));
    EXPECT_FALSE(v->BooleanVal);
    EXPECT_FALSE(ecsim::EcGetObjectArrayProperty(sources.h, EcSubscriptionEventSourceAddress, 2, 0, sizeof value, v, &used));
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_PARAMETER), GetLastError());

    EC_VARIANT address = stringVariant(L"dc3.example.com");
    ASSERT_TRUE(ecsim::EcInsertObjectArrayElement(sources.h, 2));
    ASSERT_TRUE(ecsim::EcSetObjectArrayProperty(sources.h, EcSubscriptionEventSourceAddress, 2, 0, &address));
    ASSERT_TRUE(ecsim::EcRemoveObjectArrayElement(sources.h, 0));
    EXPECT_FALSE(ecsim::EcRemoveObjectArrayElement(sources.h, 2));
    ASSERT_TRUE(ecsim::EcSaveSubscription(sub.h, 0));

    ASSERT_TRUE(ecsim::EcGetSubscriptionRunTimeStatus(L"Forwarded-Rendered", EcSubscriptionRunTimeStatusEventSources,
                                                      nullptr, 0, sizeof value, v, &used));
    ASSERT_EQ(static_cast<DWORD>(EcVarTypeString | EC_VARIANT_TYPE_ARRAY), v->Type);
    ASSERT_EQ(2u, v->Count);
    EXPECT_STREQ(L"dc2.example.com", v->StringArr[0]);
    EXPECT_STREQ(L"dc3.example.com", v->StringArr[1]);
    struct Case {
        const wchar_t* sub;
        const wchar_t* source;
        UINT32 active;
    } status[] = {
        {L"Forwarded-Rendered", nullptr, EcRuntimeStatusActiveStatusActive},
        {L"Forwarded-Rendered", L"DC2.example.com", EcRuntimeStatusActiveStatusDisabled},
        {L"Forwarded-Rendered", L"dc3.example.com", EcRuntimeStatusActiveStatusActive},
        {L"Raw-Into-Security-Archive-With-A-Long-Name", nullptr, EcRuntimeStatusActiveStatusDisabled},
    };
    for (const Case& c : status) {
        ASSERT_TRUE(ecsim::EcGetSubscriptionRunTimeStatus(c.sub, EcSubscriptionRunTimeStatusActive, c.source, 0,
                                                          sizeof value, v, &used));
        EXPECT_EQ(c.active, v->UInt32Val) << c.sub << " " << (c.source ? c.source : L"");
    }
    EXPECT_TRUE(ecsim::EcRetrySubscription(L"Forwarded-Rendered", L"dc3.example.com", 0));
    EXPECT_FALSE(ecsim::EcRetrySubscription(L"Forwarded-Rendered", L"dc1.example.com", 0));  // removed
    EXPECT_EQ(static_cast<DWORD>(ERROR_NOT_FOUND), GetLastError());
}

// Built from the same sources with .def files that leave names out, for the
// loader's checks; each lies where a system root would keep it.
TEST(EcsimVariants, LackExactlyTheirNames) {
    const char* const all[] = {"EcClose", "EcOpenSubscriptionEnum", "EcDeleteSubscription", "EcEnumNextSubscription",
                               "EcGetObjectArrayProperty", "EcGetObjectArraySize", "EcGetSubscriptionProperty",
                               "EcSaveSubscription", "EcGetSubscriptionRunTimeStatus", "EcOpenSubscription",
                               "EcInsertObjectArrayElement", "EcSetObjectArrayProperty", "EcSetSubscriptionProperty",
                               "EcRemoveObjectArrayElement", "EcRetrySubscription"};
    struct Case {
        const char* variant;
        std::vector<std::string> missing;
    } cases[] = {
        {"no-save", {"EcSaveSubscription"}},
        {"no-property-no-save", {"EcGetSubscriptionProperty", "EcSaveSubscription"}},
        {"no-retry", {"EcRetrySubscription"}},
    };
    for (const Case& c : cases) {
        std::string path = std::string(ECSIM_VARIANTS_DIR) + "/" + c.variant + "/System32/Wecapi.dll";
        HMODULE m = LoadLibraryA(path.c_str());
        ASSERT_TRUE(m) << path << " " << GetLastError();
        std::vector<std::string> missing;
        for (const char* name : all)
            if (!GetProcAddress(m, name)) missing.push_back(name);
        EXPECT_EQ(c.missing, missing) << c.variant;
        FreeLibrary(m);
    }
}

// The demo's ForwardedEvents stanza meets a subscription delivering rendered text.
TEST(EcsimExample, DemoListParses) {
    std::ifstream in(ECSIM_EXAMPLE_SUBSCRIPTIONS, std::ios::binary);
    ASSERT_TRUE(in) << ECSIM_EXAMPLE_SUBSCRIPTIONS;
    std::stringstream text;
    text << in.rdbuf();
    std::vector<ecsim::Subscription> subs;
    std::string error;
    ASSERT_TRUE(ecsim::parseSubscriptions(text.str(), subs, &error)) << error;
    bool rendered = false;
    for (const auto& s : subs) {
        const ecsim::Value* log = s.get(EcSubscriptionLogFile);
        const ecsim::Value* format = s.get(EcSubscriptionContentFormat);
        rendered |= s.enabled() && log && log->text == L"ForwardedEvents" && format &&
                    format->number == EcContentFormatRenderedText;
    }
    EXPECT_TRUE(rendered);
}

}  // namespace
