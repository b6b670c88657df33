// What a reader of the collector meets: the enumeration, opening, the property
// getter's size protocol and variant layout, faults, handles. Sources are the
// Windows Event Collector function pages on learn.microsoft.com unless named. (No
// reader calls the managing entry points; the DLL variants are listed end to end.)
#include "EcsimTestUtil.h"

using namespace ecsim_test;

namespace {

// EcEnumNextSubscription: sizes in characters, the NUL counted, the position kept on
// a failed call; ERROR_NO_MORE_ITEMS at the end, and again after it.
TEST(EcsimEnum, NamesInCharactersThenNoMoreItems) {
    CollectorStore store;
    store.subscriptions(kThree);
    Handle en(ecsim::EcOpenSubscriptionEnum(0));
    ASSERT_TRUE(en.h);
    const std::wstring first = L"Forwarded-Rendered";
    wchar_t buf[64];
    DWORD used = 0;
    for (DWORD size : {DWORD{0}, static_cast<DWORD>(first.size())}) {
        EXPECT_FALSE(ecsim::EcEnumNextSubscription(en.h, size, size ? buf : nullptr, &used));
        EXPECT_EQ(static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER), GetLastError());
        EXPECT_EQ(first.size() + 1, used);
    }
    ASSERT_TRUE(ecsim::EcEnumNextSubscription(en.h, used, buf, &used));
    EXPECT_EQ(first, buf);
    EXPECT_EQ((std::vector<std::wstring>{L"Raw-Into-Security-Archive-With-A-Long-Name", L"B"}), enumerate(en.h));
    EXPECT_EQ(static_cast<DWORD>(ERROR_NO_MORE_ITEMS), GetLastError());
    EXPECT_FALSE(ecsim::EcEnumNextSubscription(en.h, 64, buf, &used));
    EXPECT_EQ(static_cast<DWORD>(ERROR_NO_MORE_ITEMS), GetLastError());
}

// Without the collector folder the service is stopped: the Wecutil.exe page tells
// "The RPC server is unavailable" apart as the sign of a stopped wecsvc.
TEST(EcsimEnum, WhatTheStoreSays) {
    struct Case {
        const char* what;
        bool root, running;
        const char* file;  // nullptr: none
        DWORD error;       // of EcOpenSubscriptionEnum; 0: opens with no names
    } cases[] = {
        {"no store", false, false, nullptr, RPC_S_SERVER_UNAVAILABLE},
        {"service stopped", true, false, nullptr, RPC_S_SERVER_UNAVAILABLE},
        {"no subscriptions yet", true, true, nullptr, 0},
        {"unknown property", true, true, "[A]\nColour = red\n", ERROR_INVALID_DATA},
    };
    for (const Case& c : cases) {
        CollectorStore store(c.running);
        if (!c.root) ecsim::setStoreRoot(L"");
        if (c.file) store.subscriptions(c.file);
        Handle en(ecsim::EcOpenSubscriptionEnum(0));
        EXPECT_EQ(c.error, en.h ? 0u : GetLastError()) << c.what;
        if (en.h) {
            EXPECT_TRUE(enumerate(en.h).empty()) << c.what;
        }
        if (c.error == RPC_S_SERVER_UNAVAILABLE) {
            EXPECT_EQ(nullptr, ecsim::EcOpenSubscription(L"A", EC_READ_ACCESS, EC_OPEN_EXISTING)) << c.what;
            EXPECT_EQ(c.error, GetLastError()) << c.what;
        }
    }
}

TEST(EcsimOpen, AccessAndModes) {
    CollectorStore store;
    store.subscriptions(kThree);
    struct Case {
        const wchar_t* name;
        DWORD access, flags, error;  // 0: opens
    } cases[] = {
        {L"B", EC_READ_ACCESS, EC_OPEN_EXISTING, 0},
        {L"forwarded-RENDERED", EC_READ_ACCESS, EC_OPEN_EXISTING, 0},  // registry keys ignore case
        {L"Missing", EC_READ_ACCESS, EC_OPEN_EXISTING, ERROR_FILE_NOT_FOUND},
        {L"Missing", EC_READ_ACCESS, EC_OPEN_ALWAYS, ERROR_ACCESS_DENIED},  // making one needs write access
        {L"B", EC_WRITE_ACCESS, EC_CREATE_NEW, ERROR_ALREADY_EXISTS},
        {L"B", 4, EC_OPEN_EXISTING, ERROR_INVALID_PARAMETER},
    };
    for (const Case& c : cases) {
        Handle sub(ecsim::EcOpenSubscription(c.name, c.access, c.flags));
        EXPECT_EQ(c.error, sub.h ? 0u : GetLastError()) << c.name << " " << c.access << " " << c.flags;
    }
}

// EcGetSubscriptionProperty: PropertyValueBufferUsed is the size needed on
// ERROR_INSUFFICIENT_BUFFER and the size used on success, in bytes (Microsoft's
// samples grow a BYTE vector to it); strings lie after the variant in the buffer;
// each property has the type its EC_SUBSCRIPTION_PROPERTY_ID entry gives.
TEST(EcsimProperty, TypesAndSizesInBytes) {
    CollectorStore store;
    store.subscriptions(kThree);
    struct Case {
        const wchar_t* sub;
        EC_SUBSCRIPTION_PROPERTY_ID id;
        DWORD type;
        UINT32 number;         // Boolean, UInt32
        const wchar_t* text;  // String
    } cases[] = {
        {L"Forwarded-Rendered", EcSubscriptionEnabled, EcVarTypeBoolean, TRUE, nullptr},
        {L"Raw-Into-Security-Archive-With-A-Long-Name", EcSubscriptionEnabled, EcVarTypeBoolean, FALSE, nullptr},
        {L"Forwarded-Rendered", EcSubscriptionContentFormat, EcVarTypeUInt32, EcContentFormatRenderedText, nullptr},
        {L"B", EcSubscriptionContentFormat, EcVarTypeUInt32, 7, nullptr},
        {L"Forwarded-Rendered", EcSubscriptionLogFile, EcVarTypeString, 0, L"ForwardedEvents"},
        {L"B", EcSubscriptionDescription, EcVarTypeNull, 0, nullptr},  // never set
        {L"B", EcSubscriptionExpires, EcVarTypeNull, 0, nullptr},      // not kept
    };
    for (const Case& c : cases) {
        Handle sub(ecsim::EcOpenSubscription(c.sub, EC_READ_ACCESS, EC_OPEN_EXISTING));
        ASSERT_TRUE(sub.h);
        const auto need = static_cast<DWORD>(sizeof(EC_VARIANT) + (c.text ? (wcslen(c.text) + 1) * sizeof(wchar_t) : 0));
        std::vector<BYTE> buf(need + 8, 0xCC);
        auto* v = reinterpret_cast<PEC_VARIANT>(buf.data());
        DWORD used = 0;
        for (DWORD size : {DWORD{0}, need - 1}) {
            EXPECT_FALSE(ecsim::EcGetSubscriptionProperty(sub.h, c.id, 0, size, v, &used));
            EXPECT_EQ(static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER), GetLastError());
            EXPECT_EQ(need, used) << c.sub << " " << c.id;
        }
        ASSERT_TRUE(ecsim::EcGetSubscriptionProperty(sub.h, c.id, 0, need, v, &used));
        EXPECT_EQ(need, used);
        EXPECT_EQ(c.type, v->Type) << c.sub << " " << c.id;
        if (c.type == EcVarTypeBoolean) {
            EXPECT_EQ(static_cast<BOOL>(c.number), v->BooleanVal);
        } else if (c.type == EcVarTypeUInt32) {
            EXPECT_EQ(c.number, v->UInt32Val);
        }
        if (c.text) {
            EXPECT_EQ(reinterpret_cast<LPCWSTR>(v + 1), v->StringVal);
            EXPECT_STREQ(c.text, v->StringVal);
        }
    }
}

TEST(EcsimProperty, ArgumentsAccessAndHandles) {
    CollectorStore store;
    store.subscriptions(kThree);
    Handle reader(ecsim::EcOpenSubscription(L"B", EC_READ_ACCESS, EC_OPEN_EXISTING));
    Handle writer(ecsim::EcOpenSubscription(L"B", EC_WRITE_ACCESS, EC_OPEN_EXISTING));
    Handle en(ecsim::EcOpenSubscriptionEnum(0));
    EC_HANDLE closed = ecsim::EcOpenSubscription(L"B", EC_READ_ACCESS, EC_OPEN_EXISTING);
    ASSERT_TRUE(ecsim::EcClose(closed));
    BYTE buf[256];
    DWORD used = 0;
    struct Case {
        const char* what;
        EC_HANDLE h;
        int id;
        DWORD flags;
        PDWORD used;
        DWORD error;
    } cases[] = {
        {"flags", reader.h, EcSubscriptionEnabled, 1, &used, ERROR_INVALID_PARAMETER},
        {"an event source's property", reader.h, EcSubscriptionEventSourceAddress, 0, &used, ERROR_INVALID_PARAMETER},
        {"write-only handle", writer.h, EcSubscriptionEnabled, 0, &used, ERROR_ACCESS_DENIED},
        {"enumeration handle", en.h, EcSubscriptionEnabled, 0, &used, ERROR_INVALID_HANDLE},
        {"closed handle", closed, EcSubscriptionEnabled, 0, &used, ERROR_INVALID_HANDLE},
    };
    for (const Case& c : cases) {
        EXPECT_FALSE(ecsim::EcGetSubscriptionProperty(c.h, static_cast<EC_SUBSCRIPTION_PROPERTY_ID>(c.id), c.flags,
                                                      sizeof buf, reinterpret_cast<PEC_VARIANT>(buf), c.used))
            << c.what;
        EXPECT_EQ(c.error, GetLastError()) << c.what;
    }
    EXPECT_FALSE(ecsim::EcClose(closed));
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_HANDLE), GetLastError());
}

TEST(EcsimFaults, RulesCountAndTarget) {
    CollectorStore store;
    store.subscriptions(kThree);
    // Per case: which calls fail, in order; 0 succeeds.
    struct Case {
        const char* rules;
        const wchar_t* sub;
        EC_SUBSCRIPTION_PROPERTY_ID id;
        std::vector<DWORD> outcome;
    } cases[] = {
        {"EcGetSubscriptionProperty:*/LogFile=1726", L"B", EcSubscriptionLogFile, {1726, 1726}},
        {"EcGetSubscriptionProperty:b=5,from=2", L"B", EcSubscriptionEnabled, {0, 5, 5}},
        {"EcGetSubscriptionProperty:B/Enabled=5,once", L"B", EcSubscriptionEnabled, {5, 0}},
        {"EcOpenSubscription:B=1717,times=2", L"B", EcSubscriptionEnabled, {1717, 1717, 0}},
    };
    for (const Case& c : cases) {
        ASSERT_TRUE(ecsim::setFaults(c.rules));
        for (size_t i = 0; i < c.outcome.size(); ++i) {
            Handle sub(ecsim::EcOpenSubscription(c.sub, EC_READ_ACCESS, EC_OPEN_EXISTING));
            DWORD error = sub.h ? 0 : GetLastError();
            BYTE buf[256];
            DWORD used = 0;
            if (sub.h && !ecsim::EcGetSubscriptionProperty(sub.h, c.id, 0, sizeof buf, reinterpret_cast<PEC_VARIANT>(buf), &used))
                error = GetLastError();
            EXPECT_EQ(c.outcome[i], error) << c.rules << " call " << i;
        }
    }
    EXPECT_FALSE(ecsim::setFaults("EcClose=5,twice"));  // a rule that does not parse is refused
}

TEST(EcsimHandles, ClosedOnceAndCounted) {
    CollectorStore store;
    store.subscriptions(kThree);
    const size_t before = ecsim::openHandleCount();
    ecsim::resetCallCounts();
    {
        Handle en(ecsim::EcOpenSubscriptionEnum(0));
        for (const std::wstring& name : enumerate(en.h)) {
            Handle sub(ecsim::EcOpenSubscription(name.c_str(), EC_READ_ACCESS, EC_OPEN_EXISTING));
            Handle sources(reinterpret_cast<EC_HANDLE>(
                *reinterpret_cast<const uintptr_t*>(property(sub.h, EcSubscriptionEventSources).data())));
            EXPECT_EQ(before + 3, ecsim::openHandleCount());
        }
    }
    EXPECT_EQ(before, ecsim::openHandleCount());
    EXPECT_EQ(1u, ecsim::callCount("EcOpenSubscriptionEnum"));
    EXPECT_EQ(3u, ecsim::callCount("EcOpenSubscription"));
    EXPECT_EQ(7u, ecsim::callCount("EcClose"));
}

}  // namespace
