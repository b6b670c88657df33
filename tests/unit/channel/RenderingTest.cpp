#include <gtest/gtest.h>

#include "RenderFixture.h"
#include "directory/SidLookupCache.h"

namespace skorva {
namespace {

using namespace test;

TEST_F(RenderingTest, ClassicFieldsOfASecurityEventInOrder) {
    store_.append("Security", logonEvent());
    EventRecord r = readOne("Security");
    const Fields expected = {
        {L"$Timestamp", expectedTimestamp(1706735107)},
        {L"LogName", L"Security"},
        {L"EventCode", L"4624"},
        {L"EventType", L"0"},
        {L"ComputerName", L"host.example.test"},
        {L"User", L"NOT_TRANSLATED"},
        {L"Sid", L"S-1-5-18"},
        {L"SidType", L"0"},
        {L"SourceName", L"Test security auditing"},
        {L"Type", L"Information"},
        {L"RecordNumber", L"1"},
        {L"Keywords", L"Audit Success, Interactive"},
        {L"TaskCategory", L"Logon"},
        {L"OpCode", L"Info"},
    };
    EXPECT_EQ(fieldsOf(r), expected);
    EXPECT_EQ(r.message, L"An account logged on.\r\n\tAccount Name:\talice\r\n\tLogon Type:\t2");
}

TEST_F(RenderingTest, UserSidIsTranslatedWhenResolutionIsOn) {
    SidLookupCache::instance().clear();
    store_.append("Security", logonEvent());
    ChannelSettings s;
    s.resolveAdObj = true;
    EventRecord r = readOne("Security", s);
    ASSERT_GE(r.fields.size(), 8u);
    EXPECT_EQ(fieldsOf(r)[5], (std::pair<std::wstring, std::wstring>(L"User", L"NT AUTHORITY\\SYSTEM")));
    EXPECT_EQ(r.fields[6].value, L"S-1-5-18");
    EXPECT_EQ(r.fields[7].value, std::to_wstring(SidTypeWellKnownGroup));
}

// Each suppress switch leaves out its field only; excluded fields are absent and
// the rest keep their order.
TEST_F(RenderingTest, SuppressedAndExcludedFieldsAreLeftOut) {
    store_.append("Security", logonEvent());
    const std::vector<std::wstring> all = {L"$Timestamp", L"LogName", L"EventCode", L"EventType", L"ComputerName",
                                           L"User", L"Sid", L"SidType", L"SourceName", L"Type", L"RecordNumber",
                                           L"Keywords", L"TaskCategory", L"OpCode"};
    const struct {
        bool ChannelSettings::*flag;
        std::vector<const wchar_t*> absent;  // none: the message is left out
    } cases[] = {{&ChannelSettings::suppressSourceName, {L"SourceName"}}, {&ChannelSettings::suppressType, {L"Type"}},
                 {&ChannelSettings::suppressKeywords, {L"Keywords"}},     {&ChannelSettings::suppressTask, {L"TaskCategory"}},
                 {&ChannelSettings::suppressOpcode, {L"OpCode"}},         {&ChannelSettings::suppressText, {}},
                 {nullptr, {L"EventType", L"Sid", L"Keywords"}}};
    for (const auto& c : cases) {
        ChannelSettings s;
        if (c.flag) s.*c.flag = true;
        else s.excludedFields = {c.absent.begin(), c.absent.end()};
        EventRecord r = readOne("Security", s);
        std::vector<std::wstring> want = all;
        for (const wchar_t* field : c.absent) want.erase(std::find(want.begin(), want.end(), field));
        EXPECT_EQ(keys(r.fields), want) << (c.absent.empty() ? "text" : narrow(c.absent[0]));
        EXPECT_EQ(r.message.empty(), c.absent.empty());
    }
}

// Task 0 is "None"; a task without a name is its number; an opcode without a
// name is looked up as a message id of the provider, else "None".
TEST_F(RenderingTest, TaskAndOpcodeFallbacks) {
    struct Case {
        uint16_t task;
        uint8_t opcode;
        const wchar_t* taskText;
        const wchar_t* opcodeText;
    } cases[] = {{0, 0, L"None", L"Info"}, {999, 0, L"999", L"Info"}, {12544, 77, L"Logon", L"Custom step"},
                 {12544, 78, L"Logon", L"None"}};
    for (const Case& c : cases) {
        evtsim::EventSpec e = logonEvent();
        e.task = c.task;
        e.opcode = c.opcode;
        store_.clearChannel("Security");
        store_.append("Security", e);
        const Fields fields = fieldsOf(readOne("Security"));
        ASSERT_EQ(fields.size(), 14u);
        EXPECT_EQ(fields[12].second, c.taskText) << c.task;
        EXPECT_EQ(fields[13].second, c.opcodeText) << int(c.opcode);
    }
}

TEST_F(RenderingTest, ProviderWithoutMetadataGetsWinmetaNamesAndPlaceholderData) {
    evtsim::EventSpec e = logonEvent();
    e.provider = "Not-Registered";
    e.task = 5;
    store_.append("Security", e);
    store_.append("Security", e);
    auto records = readAll("Security");
    ASSERT_EQ(records.size(), 2u);
    const Fields tail = fieldsOf(records[1], 8);
    // Level 0, opcode 0 and the audit keyword have Winmeta names; task 5 has none.
    const Fields expected = {{L"SourceName", L"Not-Registered"},
                             {L"Type", L"Log Always"},
                             {L"RecordNumber", L"2"},
                             {L"Keywords", L"Audit Success"},
                             {L"TaskCategory", L"5"},
                             {L"OpCode", L"Info"}};
    EXPECT_EQ(tail, expected);
}

// With no message to format, the message is the event's data: every value with
// something to show, as text, typed ones as the event's XML writes them.
TEST_F(RenderingTest, PlaceholderMessageShowsEveryDataValueAsText) {
    evtsim::ProviderDef def = auditProvider();
    def.name = "Typed-Auditing";
    def.events.clear();
    def.templates = {{4624,
                      {{"Count", EvtVarTypeUInt32, false},
                       {"LogonId", EvtVarTypeHexInt64, false},
                       {"Guid", EvtVarTypeGuid, false},
                       {"Sid", EvtVarTypeSid, false},
                       {"When", EvtVarTypeFileTime, false},
                       {"Ok", EvtVarTypeBoolean, false},
                       {"Blob", EvtVarTypeBinary, false},
                       {"Port", EvtVarTypeUInt16, true},
                       {"Delta", EvtVarTypeInt32, false},
                       {"Empty", EvtVarTypeString, false},
                       {"Name", EvtVarTypeString, false}}}};
    store_.addProvider(def);
    evtsim::EventSpec e = logonEvent();
    e.provider = "Typed-Auditing";
    e.data = {{"Count", "42"},   {"LogonId", "0x3e7"}, {"Guid", "{bf967aba-0de6-11d0-a285-00aa003049e2}"},
              {"Sid", "S-1-5-32-544"}, {"When", "2024-01-31T21:05:07.1234567Z"}, {"Ok", "false"},
              {"Blob", "0a1bff"}, {"Port", "80"}, {"Port", "443"}, {"Delta", "-5"}, {"Empty", ""}, {"Name", "alice"}};
    store_.append("Security", e);
    EventRecord r = readOne("Security");
    EXPECT_EQ(r.message, L"42\n0x3e7\n{BF967ABA-0DE6-11D0-A285-00AA003049E2}\nS-1-5-32-544\n"
                         L"2024-01-31T21:05:07.1234567Z\nfalse\n0A1BFF\n80, 443\n-5\nalice\n");
}

// Without texts from its publisher, an event's own are used: a forwarded event's
// publisher is not registered here; a registered one may lack its resources for the
// locale (15033), its resource file (15100) or its language (1815).
TEST_F(RenderingTest, WithoutThePublishersTextsTheEventsOwnAreUsed) {
    for (DWORD missing : {0u, 15033u, 15100u, 1815u}) {
        SCOPED_TRACE(missing);
        evtsim::ProviderDef def = auditProvider();
        def.name = "No-Resources";
        def.missingResources = missing;
        if (missing) store_.addProvider(def);
        const char* channel = missing ? "Security" : "ForwardedEvents";
        store_.clearChannel(channel);
        evtsim::EventSpec e = logonEvent();
        e.provider = missing ? "No-Resources" : "Remote-Provider";
        e.channel = "Security";
        e.rendering = true;
        e.renderMessage = "Remote text of the event.";
        e.renderLevel = "Remote level", e.renderTask = "Remote task", e.renderOpcode = "Remote opcode";
        e.renderProvider = "Remote security auditing";
        e.renderKeywords = {"Audit Success"};
        const uint64_t id = store_.append(channel, e);
        EventRecord r = readOne(channel);
        const Fields expected = {{L"SourceName", L"Remote security auditing"}, {L"Type", L"Remote level"},
                                 {L"RecordNumber", std::to_wstring(id)}, {L"Keywords", L"Audit Success"},
                                 {L"TaskCategory", L"Remote task"}, {L"OpCode", L"Remote opcode"}};
        EXPECT_EQ(fieldsOf(r, 8), expected);
        EXPECT_EQ(r.fields[1].value, L"Security");
        EXPECT_EQ(r.message, L"Remote text of the event.");
    }
}

// (The XML of an event is pinned byte for byte end to end.)
TEST_F(RenderingTest, BadHandleIsPassedUp) {
    channel_ = std::make_unique<WinEventLogChannelBase>("Security", ChannelSettings());
    ASSERT_TRUE(channel_->setRenderContext());
    EventRecord bad;
    bad.handle.reset(reinterpret_cast<EVT_HANDLE>(0x7777));
    EXPECT_EQ(channel_->renderEventAsXml(bad), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    EXPECT_EQ(channel_->renderEvent(bad, values_, valuesSize_), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    bad.handle.release();
}

TEST_F(RenderingTest, InvalidHandleWhileFormattingIsPassedUp) {
    store_.append("Security", logonEvent());
    store_.setFaults("EvtFormatMessage=6");
    std::vector<DWORD> results;
    auto records = readAll("Security", ChannelSettings(), &results);
    ASSERT_EQ(results.size(), 1u);
    EXPECT_EQ(results[0], static_cast<DWORD>(ERROR_INVALID_HANDLE));
    EXPECT_EQ(keys(records[0].fields).back(), L"SourceName") << "stops at the level";
}

}  // namespace
}  // namespace skorva
