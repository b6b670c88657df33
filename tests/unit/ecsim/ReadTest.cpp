// What the product's subscription check meets of the collector: the enumeration,
// opening, the property getter's size protocol and variant layout, handles.
// Sources are the Windows Event Collector function pages on learn.microsoft.com
// unless named. (No reader calls the managing entry points; the DLL variants are
// tested through the product's loader, LoaderSystemPathTest; the fault rules the
// product's tests use are seen to strike by the lines those tests assert.)
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "EcsimInProcess.h"
#include "platform/Handles.h"

namespace {

using skorva::test::EcsimStore;

const char* const kThree =
    "[Forwarded-Rendered]\nEnabled = true\nContentFormat = RenderedText\nLogFile = ForwardedEvents\n"
    "EventSource = dc1.example.com\n"
    "[Raw-Into-Security-Archive-With-A-Long-Name]\nEnabled = false\nContentFormat = Events\nLogFile = Archive\n"
    "[B]\nEnabled = true\nContentFormat = 7\nLogFile = ForwardedEvents\n";

using Handle = skorva::UniqueAny<EC_HANDLE, &ecsim::EcClose>;

Handle openForReading(const wchar_t* name) { return Handle(ecsim::EcOpenSubscription(name, EC_READ_ACCESS, EC_OPEN_EXISTING)); }

// Every name of an enumeration, through the two-call size protocol.
std::vector<std::wstring> enumerate(EC_HANDLE en) {
    std::vector<std::wstring> names;
    std::wstring buf;
    for (DWORD used = 0;;) {
        if (ecsim::EcEnumNextSubscription(en, static_cast<DWORD>(buf.size()), buf.empty() ? nullptr : buf.data(), &used))
            names.emplace_back(buf.c_str());
        else if (GetLastError() == ERROR_INSUFFICIENT_BUFFER)
            buf.assign(used, L'\0');
        else
            return names;
    }
}

// EcEnumNextSubscription: sizes in characters, the NUL counted, the position kept on
// a failed call; ERROR_NO_MORE_ITEMS at the end (where the product's check stops).
TEST(EcsimEnum, NamesInCharactersThenNoMoreItems) {
    EcsimStore store(kThree);
    Handle en(ecsim::EcOpenSubscriptionEnum(0));
    ASSERT_TRUE(en);
    const std::wstring first = L"Forwarded-Rendered";
    wchar_t buf[64];
    DWORD used = 0;
    for (DWORD size : {DWORD{0}, static_cast<DWORD>(first.size())}) {
        EXPECT_FALSE(ecsim::EcEnumNextSubscription(en.get(), size, size ? buf : nullptr, &used));
        EXPECT_EQ(static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER), GetLastError());
        EXPECT_EQ(first.size() + 1, used);
    }
    ASSERT_TRUE(ecsim::EcEnumNextSubscription(en.get(), used, buf, &used));
    EXPECT_EQ(first, buf);
    EXPECT_EQ((std::vector<std::wstring>{L"Raw-Into-Security-Archive-With-A-Long-Name", L"B"}), enumerate(en.get()));
    EXPECT_EQ(static_cast<DWORD>(ERROR_NO_MORE_ITEMS), GetLastError());
}

// Without the collector folder the service is stopped: the Wecutil.exe page tells
// "The RPC server is unavailable" apart as the sign of a stopped wecsvc. A file
// that does not parse fails the calls, so a typo never passes as an empty list.
TEST(EcsimEnum, WhatTheStoreSays) {
    struct Case {
        bool root, running;
        const char* file;  // nullptr: none
        DWORD error;       // of EcOpenSubscriptionEnum; 0: opens with no names
    } cases[] = {
        {false, false, nullptr, RPC_S_SERVER_UNAVAILABLE},
        {true, false, nullptr, RPC_S_SERVER_UNAVAILABLE},
        {true, true, nullptr, 0},
        {true, true, "[A]\nColour = red\n", ERROR_INVALID_DATA},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(&c - cases);
        EcsimStore store(c.file ? c.file : "", "", c.running);
        if (!c.root) ecsim::setStoreRoot(L"");
        Handle en(ecsim::EcOpenSubscriptionEnum(0));
        EXPECT_EQ(c.error, en ? 0u : GetLastError());
        EXPECT_TRUE(!en || enumerate(en.get()).empty());
        if (c.error == RPC_S_SERVER_UNAVAILABLE) {
            EXPECT_EQ(nullptr, openForReading(L"A").get());
            EXPECT_EQ(c.error, GetLastError());
        }
    }
}

// EcGetSubscriptionProperty: PropertyValueBufferUsed is the size needed on
// ERROR_INSUFFICIENT_BUFFER and the size used on success, in bytes (Microsoft's
// samples grow a BYTE vector to it); strings lie after the variant in the buffer;
// each property has the type its EC_SUBSCRIPTION_PROPERTY_ID entry gives. (A disabled
// subscription and an unknown content format are read by the product's check.)
TEST(EcsimProperty, TypesAndSizesInBytes) {
    EcsimStore store(kThree);
    struct Case {
        const wchar_t* sub;
        EC_SUBSCRIPTION_PROPERTY_ID id;
        DWORD type;
        UINT32 number;        // Boolean, UInt32
        const wchar_t* text;  // String
    } cases[] = {
        {L"Forwarded-Rendered", EcSubscriptionEnabled, EcVarTypeBoolean, TRUE, nullptr},
        {L"Forwarded-Rendered", EcSubscriptionContentFormat, EcVarTypeUInt32, EcContentFormatRenderedText, nullptr},
        {L"Forwarded-Rendered", EcSubscriptionLogFile, EcVarTypeString, 0, L"ForwardedEvents"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(&c - cases);
        Handle sub = openForReading(c.sub);
        ASSERT_TRUE(sub);
        const auto need = static_cast<DWORD>(sizeof(EC_VARIANT) + (c.text ? (wcslen(c.text) + 1) * sizeof(wchar_t) : 0));
        std::vector<BYTE> buf(need + 8, 0xCC);
        auto* v = reinterpret_cast<PEC_VARIANT>(buf.data());
        DWORD used = 0;
        for (DWORD size : {DWORD{0}, need - 1}) {
            EXPECT_FALSE(ecsim::EcGetSubscriptionProperty(sub.get(), c.id, 0, size, v, &used));
            EXPECT_EQ(static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER), GetLastError());
            EXPECT_EQ(need, used);
        }
        ASSERT_TRUE(ecsim::EcGetSubscriptionProperty(sub.get(), c.id, 0, need, v, &used));
        EXPECT_EQ(need, used);
        EXPECT_EQ(c.type, v->Type);
        EXPECT_EQ(c.number, c.type == EcVarTypeBoolean ? static_cast<UINT32>(v->BooleanVal)
                            : c.type == EcVarTypeUInt32 ? v->UInt32Val : 0u);
        if (c.text) {
            EXPECT_EQ(reinterpret_cast<LPCWSTR>(v + 1), v->StringVal);
            EXPECT_STREQ(c.text, v->StringVal);
        }
    }
}

// Handles are counted: the product's tests check the count for leaks.
TEST(EcsimHandles, Counted) {
    EcsimStore store(kThree);
    const size_t before = ecsim::openHandleCount();
    {
        Handle en(ecsim::EcOpenSubscriptionEnum(0));
        Handle sub = openForReading(L"B");
        EXPECT_EQ(before + 2, ecsim::openHandleCount());
    }
    EXPECT_EQ(before, ecsim::openHandleCount());
}

}  // namespace
