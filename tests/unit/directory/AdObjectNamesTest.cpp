#include <gtest/gtest.h>

#include <map>
#include <string>

#include "directory/AdObjectNames.h"
#include "directory/AdTokenScanner.h"
#include "filter/FilterParser.h"
#include "platform/Clock.h"

namespace skorva {
namespace {

const std::wstring kUser = L"{bf967aba-0de6-11d0-a285-00aa003049e2}";
const std::wstring kGuid = L"{12345678-abcd-11d0-a285-0123456789ab}";

TEST(AdTokenScanner, FindsGuidsAndSidsInBraces) {
    const std::wstring cut = L"{" + std::wstring(70, L'a');
    struct {
        std::wstring text;
        bool skipGuids;
        bool found;
        AdToken::Kind kind;
        std::wstring collected, rest;
    } cases[] = {
        {L"by %{S-1-5-21-1-2-3-500}.", false, true, AdToken::kSid, L"S-1-5-21-1-2-3-500", L"."},
        {kGuid + L" x", false, true, AdToken::kSchemaGuid, kGuid, L" x"},
        {L"100% {s-1-5-18}", false, true, AdToken::kSid, L"s-1-5-18", L""},  // "%" alone is text
        {L"{hello} %x", false, true, AdToken::kNotTranslated, L"{hello}", L" %x"},
        {cut, false, true, AdToken::kNotTranslated, cut.substr(0, 63), cut.substr(63)},  // 63 characters at most
        // A skipped GUID passes over the character after its brace: the SID there is lost.
        {L"%" + kGuid + L"{S-1-5-18}", true, true, AdToken::kSkippedGuid, L"", L"S-1-5-18}"},
        {L"{S-1-5-18}", true, true, AdToken::kSid, L"S-1-5-18", L""},  // the skip list spares SIDs
        {L"no tokens", false, false, AdToken::kNotTranslated, L"", L""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.text.begin(), c.text.end()));
        AdToken token;
        ASSERT_EQ(nextAdToken(c.text, 0, c.skipGuids, token), c.found);
        if (!c.found) continue;
        EXPECT_EQ(token.kind, c.kind);
        EXPECT_EQ(token.collected(), c.collected);
        EXPECT_EQ(std::wstring_view(c.text).substr(std::min(token.resume, c.text.size())), c.rest);
    }
}

// Names by token, with a count of what reached the directory.
class InsertNames : public ::testing::Test {
protected:
    InsertNames() {
        names_[kUser] = L"user";
        names_[L"S-1-5-21-1-2-3-500"] = L"CORP\\Administrator";
        names_[L"S-1-5-21-1-2-3-501"] = L"R&D <lab>";
    }
    std::string insert(const std::wstring& message, uint8_t expected = 1, uint32_t code = 4662) {
        std::string out;
        EXPECT_EQ(names.insert(code, message, out, xml_, check_, 0), expected);
        return out;
    }
    void rule(const char* setting, const char* value) {
        FilterRuleMap parsed;
        ASSERT_TRUE(parseFilterValue(setting, value, false, parsed));
        addFilterRule(setting, parsed, false, settings_.filters.blacklist, settings_.filters.onMessage);
    }

    std::map<std::wstring, std::wstring> names_;
    int asked_ = 0;
    ChannelSettings settings_;
    WinLookupAdObjCache cache_{[this](const std::wstring& object, std::wstring& out, DWORD, DWORD) {
                                   ++asked_;
                                   auto it = names_.find(object);
                                   if (it != names_.end()) out = it->second;
                                   return it != names_.end();
                               },
                               AdCacheSettings()};
    AdObjBlacklistMemo memo_;
    AdObjectNames names{settings_, cache_, memo_};
    std::wstring xml_;
    bool check_ = false;
};

// (A schema GUID and a SID in one message become their names end to end.)
TEST_F(InsertNames, TokensBecomeNamesWithTheLongStandingQuirks) {
    // What does not translate is written as collected; a tail after "." is dropped.
    EXPECT_EQ(insert(L"%{S-1-5-21-9} by %{S-1-5-21-1-2-3-500}. Done"), "S-1-5-21-9 by CORP\\Administrator");
    insert(L"%{S-1-5-21-9} {hello}", 0);
    EXPECT_EQ(asked_, 2);  // S-1-5-21-9 was cached as a failure
    settings_.guidSkipCodes = {{4662, 4662}};
    EXPECT_EQ(insert(L"%" + kUser + L"{S-1-5-21-1-2-3-500} %{S-1-5-21-1-2-3-500}"),
              "%" + std::string(kUser.begin(), kUser.end()) + "{S-1-5-21-1-2-3-500} CORP\\Administrator");
}

TEST_F(InsertNames, LongTranslationsAreScannedAgainTwiceAtMost) {
    const std::wstring pad(40, L'.');
    names_[L"{00000000-0000-0000-0000-000000000001}"] = L"one {00000000-0000-0000-0000-000000000002}" + pad;
    names_[L"{00000000-0000-0000-0000-000000000002}"] = L"two {00000000-0000-0000-0000-000000000003}" + pad;
    names_[L"{00000000-0000-0000-0000-000000000003}"] = L"three {00000000-0000-0000-0000-000000000004}" + pad;
    names_[L"{00000000-0000-0000-0000-000000000004}"] = L"four";
    // Each rescan drops its tail: it starts with ".".
    EXPECT_EQ(insert(L"x {00000000-0000-0000-0000-000000000001}"),
              "x one two three {00000000-0000-0000-0000-000000000004}" + std::string(40, '.'));
    EXPECT_EQ(asked_, 3);
}

TEST_F(InsertNames, XmlGetsEachTranslatedTokenEscaped) {
    xml_ = L"<Data>%" + kUser + L"</Data><Data>%{S-1-5-21-1-2-3-501}</Data><Data>{S-1-5-21-1-2-3-501}</Data>";
    insert(L"%" + kUser + L" %{S-1-5-21-1-2-3-501}");
    EXPECT_EQ(xml_, L"<Data>user</Data><Data>R&amp;D &lt;lab&gt;</Data><Data>{S-1-5-21-1-2-3-501}</Data>");
}

TEST_F(InsertNames, BlacklistEndsTheScanAndRemembersObjectsRejectedByName) {
    check_ = true;
    rule("blacklist", "Message=%Type:\\s+user%");
    rule("blacklist1", "Message=%Administrator%");
    // The SID's name alone is rejected: remembered. The user class only with its label: not.
    EXPECT_EQ(insert(L"By: %{S-1-5-21-1-2-3-500} Type: %" + kUser), "By: CORP\\Administrator");
    EXPECT_EQ(insert(L"Type: %" + kUser + L" By: %{S-1-5-21-1-2-3-500}"), "Type: user");
    EXPECT_EQ(memo_.size(), 1u);
    EXPECT_NE(memo_.blacklistedIn(L"x %{S-1-5-21-1-2-3-500} y"), nullptr);
    EXPECT_EQ(memo_.blacklistedIn(L"Type: %" + kUser), nullptr);
}

TEST(WinLookupAdObjCache, ThresholdAndExpiry) {
    const struct {
        uint64_t expirySeconds;
        uint32_t threshold;
    } thresholds[] = {{10, 2}, {19, 2}, {20, 2}, {3600, 360}};
    for (const auto& t : thresholds) {
        AdCacheSettings s;
        s.expiryMs = t.expirySeconds * 1000;
        deriveAdCacheThreshold(s);
        EXPECT_EQ(s.hitThreshold, t.threshold) << t.expirySeconds;
    }

    ManualClock clock;
    ScopedClock scoped(clock);
    bool answer = false;
    int asked = 0;
    AdCacheSettings s;
    s.expiryMs = 10000;  // threshold 2
    WinLookupAdObjCache cache([&](const std::wstring&, std::wstring& out, DWORD, DWORD) {
        ++asked;
        out = L"name";
        return answer;
    }, s);
    std::wstring out;
    EXPECT_FALSE(cache.lookupAdObj(L"a", 0, 1, out));
    clock.advance(10001);  // an expired failure is asked again
    answer = true;
    EXPECT_TRUE(cache.lookupAdObj(L"a", 0, 1, out));
    EXPECT_TRUE(cache.lookupAdObj(L"a", 0, 1, out));  // a hit: 2 hits
    answer = false;
    clock.advance(20000);  // expired, but popular: served as it is
    EXPECT_TRUE(cache.lookupAdObj(L"a", 0, 1, out));
    EXPECT_FALSE(cache.lookupAdObj(L"a", 1, 2, out));  // another format pair, another entry
    EXPECT_EQ(cache.size(), 2u);
    EXPECT_EQ(asked, 3);
}

}  // namespace
}  // namespace skorva
