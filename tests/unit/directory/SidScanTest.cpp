#include <gtest/gtest.h>

#include "FakeAccounts.h"
#include "directory/SidScanner.h"
#include "directory/SidTextTranslator.h"
#include "platform/Strings.h"

namespace skorva {
namespace {

using test::FakeAccount;
using test::FakeAccounts;

struct ScanCase {
    const char* text;
    size_t pos, limit;  // limit 0: the whole text
    bool found;
    const char* sid;
    const char* pattern;
    size_t next;
};

TEST(SidScanner, FindsWrappedAndBareSids) {
    const ScanCase cases[] = {
        {"%{S-1-5-18}", 0, 0, true, "S-1-5-18", "%{S-1-5-18}", 10},
        {"by S-1-5-21-1-2-3-1001, then", 0, 0, true, "S-1-5-21-1-2-3-1001", "S-1-5-21-1-2-3-1001", 22},
        {"x S-1-5-18", 2, 0, true, "S-1-5-18", "S-1-5-18", 10},
        {"a %{x} S-1-5-18", 0, 0, true, "x", "%{x}", 5},
        // A wrapped SID is looked for first, wherever a bare one stands.
        {"S-1-5-18 %{S-1-5-19}", 0, 0, true, "S-1-5-19", "%{S-1-5-19}", 19},
        // Ends of the scan: nothing, an open brace never closed, braces around nothing.
        {"no sids here", 0, 0, false, "", "", 0},
        {"%{S-1-5-18 S-1-5-19", 0, 0, false, "", "", 0},
        {"%{} S-1-5-18", 0, 0, false, "", "", 0},
        {"S-1-5-18", 8, 0, false, "", "", 0},
        {"S-1-5-21-1-2", 0, 6, true, "S-1-5-", "S-1-5-", 6},  // a bare SID stops at the limit
    };
    for (const auto& c : cases) {
        SidMatch m;
        SCOPED_TRACE(c.text);
        ASSERT_EQ(findNextSid(c.text, c.pos, c.limit ? c.limit : std::string_view(c.text).size(), m), c.found);
        if (!c.found) continue;
        EXPECT_EQ(m.sid, c.sid);
        EXPECT_EQ(m.pattern, c.pattern);
        EXPECT_EQ(m.next, c.next);
    }
}

class TranslateSidLocally : public ::testing::Test {
protected:
    TranslateSidLocally() {
        FakeAccounts::table()[L"S-1-5-21-1-2-3-1001"] = FakeAccount{L"alice", L"CORP"};
        FakeAccounts::table()[L"S-1-5-21-1-2-3-1002"] = FakeAccount{L"bob", L""};
        FakeAccounts::table()[L"S-1-5-21-1-2-3-1003"] = FakeAccount{L"", L"", ERROR_ACCESS_DENIED};
    }
    test::ProcessCacheWithFake fake_;
    SidTextTranslator translator_;
};

// (The XML translated in place of the message: channel/RecoveryTest, LegacyTest.)
TEST_F(TranslateSidLocally, MessageSidsAreReplacedWrappedOrBare) {
    struct {
        const char* in;
        const char* out;
    } cases[] = {
        {"Account: %{S-1-5-21-1-2-3-1001} logged on", "Account: CORP\\alice logged on"},
        {"Owner S-1-5-21-1-2-3-1001, group S-1-5-21-1-2-3-1002.", "Owner CORP\\alice, group bob."},
        {"Unknown S-1-5-21-1-2-3-1003 stays", "Unknown S-1-5-21-1-2-3-1003 stays"},
        {"Same S-1-5-21-1-2-3-1001 and S-1-5-21-1-2-3-1001", "Same CORP\\alice and CORP\\alice"},
        {"%{} S-1-5-21-1-2-3-1001", "%{} S-1-5-21-1-2-3-1001"},
        {"Lower %{s-1-5-21-1-2-3-1002}", "Lower bob"},  // parsed, and found in the cache by the SID
    };
    for (const auto& c : cases) {
        std::wstring message = widen(c.in);
        std::string xmlOut = "left from the event before";
        translator_.translate(message, L"", xmlOut);
        EXPECT_EQ(narrow(message), c.out) << c.in;
        EXPECT_TRUE(xmlOut.empty());
    }
    EXPECT_EQ(FakeAccounts::calls(), 3) << "a SID seen before is answered by the cache";
}

// The translator keeps the cache's answers as they go into a text; a copy
// serves only while the cache's answer is the same one.
TEST_F(TranslateSidLocally, KeptAnswersFollowTheCache) {
    const auto translated = [this] {
        std::wstring message = L"by S-1-5-21-1-2-3-1001";
        std::string xmlOut;
        translator_.translate(message, L"", xmlOut);
        return narrow(message);
    };
    for (int i = 0; i < 3; ++i) EXPECT_EQ(translated(), "by CORP\\alice");
    FakeAccounts::table()[L"S-1-5-21-1-2-3-1001"] = FakeAccount{L"alice2", L"CORP"};
    EXPECT_EQ(translated(), "by CORP\\alice") << "the cache still holds the old name";
    SidLookupCache::instance().clear();
    for (int i = 0; i < 2; ++i) EXPECT_EQ(translated(), "by CORP\\alice2");
    SidCacheSettings off;
    off.disabled = true;
    SidLookupCache::instance().configure(off);
    FakeAccounts::table()[L"S-1-5-21-1-2-3-1001"] = FakeAccount{L"alice3", L"CORP"};
    EXPECT_EQ(translated(), "by CORP\\alice3") << "nothing kept serves a disabled cache";
}

}  // namespace
}  // namespace skorva
