#include <gtest/gtest.h>
#include <windows.h>
#include <sddl.h>

#include <thread>
#include <vector>

#include "FakeAccounts.h"
#include "directory/SidProps.h"
#include "platform/Clock.h"
#include "platform/Strings.h"

namespace skorva {
namespace {

using test::FakeAccount;
using test::FakeAccounts;
using test::SidBytes;

class SidLookupCacheTest : public ::testing::Test {
protected:
    SidLookupCacheTest() : scoped_(clock_) {
        FakeAccounts::reset();
        cache_.setLookupFunction(&FakeAccounts::lookup);
    }
    ~SidLookupCacheTest() override { FakeAccounts::reset(); }

    DWORD lookup(const char* sidText, std::wstring& account, std::wstring& domain) {
        SidBytes sid(sidText);
        return cache_.lookupSid(sid.get(), account, domain);
    }
    DWORD lookup(const char* sidText) {
        std::wstring account, domain;
        return lookup(sidText, account, domain);
    }

    ManualClock clock_;
    ScopedClock scoped_;
    SidLookupCache cache_;
};

TEST_F(SidLookupCacheTest, AnswerIsServedUntilOneMillisecondPastItsExpiry) {
    struct Case {
        const char* label;
        const char* sid;
        DWORD scripted;  // the look-up's error; 0: DOM\user-<SID>
        DWORD rc;
        const wchar_t *account, *domain;
        uint64_t expiryMs;
    } cases[] = {
        {"success", "S-1-5-21-1-2-3-1001", 0, 0, L"user-S-1-5-21-1-2-3-1001", L"DOM", 3600000},
        {"failure leaves the outputs alone", "S-1-5-21-9-9-9-500", ERROR_TRUSTED_RELATIONSHIP_FAILURE,
         ERROR_TRUSTED_RELATIONSHIP_FAILURE, L"before", L"before", 10000},
        {"unmapped SID is a success named by its own string", "S-1-5-21-7-7-7-1105", ERROR_NONE_MAPPED, 0,
         L"S-1-5-21-7-7-7-1105", L"", 3600000},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        FakeAccounts::reset();
        if (c.scripted) FakeAccounts::table()[widen(c.sid)] = FakeAccount{L"", L"", c.scripted};
        for (uint64_t advance : {uint64_t(0), c.expiryMs}) {  // expiry == now: still a hit
            clock_.advance(advance);
            std::wstring account = L"before", domain = L"before";
            EXPECT_EQ(lookup(c.sid, account, domain), c.rc);
            EXPECT_EQ(account, c.account);
            EXPECT_EQ(domain, c.domain);
            EXPECT_EQ(FakeAccounts::calls(), 1);
        }
        clock_.advance(1);
        lookup(c.sid);
        EXPECT_EQ(FakeAccounts::calls(), 2);
    }
}

TEST_F(SidLookupCacheTest, LongNamesAreFetchedAgainAtTheReportedSize) {
    const std::wstring longName(400, L'n');
    const std::wstring longDomain(300, L'd');
    FakeAccounts::table()[L"S-1-5-21-4-4-4-1"] = FakeAccount{longName, longDomain};
    std::wstring account, domain;
    ASSERT_EQ(lookup("S-1-5-21-4-4-4-1", account, domain), 0u);
    EXPECT_EQ(account, longName);
    EXPECT_EQ(domain, longDomain);
    EXPECT_EQ(FakeAccounts::calls(), 2);
}

TEST_F(SidLookupCacheTest, DisabledCacheAsksEveryTimeAndStoresNothing) {
    SidCacheSettings s;
    s.disabled = true;
    cache_.configure(s);
    std::wstring account, domain;
    ASSERT_EQ(lookup("S-1-5-21-1-2-3-7", account, domain), 0u);
    ASSERT_EQ(lookup("S-1-5-21-1-2-3-7", account, domain), 0u);
    EXPECT_EQ(account, L"user-S-1-5-21-1-2-3-7");
    EXPECT_EQ(FakeAccounts::calls(), 2);
    EXPECT_EQ(cache_.size(), 0u);
}

std::string domainSid(int rid) { return format("S-1-5-21-1-2-3-%d", rid); }

TEST_F(SidLookupCacheTest, ConcurrentLookupsAllGetTheirOwnAnswer) {
    constexpr int kThreads = 6;
    constexpr int kSids = 40;
    std::vector<SidBytes> sids;
    sids.reserve(kSids);
    for (int i = 0; i < kSids; ++i) sids.emplace_back(domainSid(100 + i).c_str());
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            std::wstring account, domain;
            for (int n = 0; n < 500; ++n) {
                const int i = (n * 7 + t) % kSids;
                if (cache_.lookupSid(sids[i].get(), account, domain) != 0 ||
                    account != widen("user-" + domainSid(100 + i)) || domain != L"DOM")
                    ++wrong;
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(cache_.size(), static_cast<size_t>(kSids));
    // Racing misses may both ask; never more than once per thread and SID.
    EXPECT_LE(FakeAccounts::calls(), kSids * kThreads);
}

class SidPropsTest : public ::testing::Test {
protected:
    test::ProcessCacheWithFake fake_;
};

TEST_F(SidPropsTest, SidStringMatchesTheSystemConversion) {
    // Small and the largest directly written authorities, the most sub-authorities
    // with the largest values, and an authority left to the system's conversion.
    const char* const sids[] = {"S-1-5-18", "S-1-0-0", "S-1-2147483647-1",
                                "S-1-5-21-4294967295-2-3-4-5-6-7-8-9-10-11-12-13-14", "S-1-2147483648-7"};
    for (const char* text : sids) {
        SidBytes sid(text);
        ASSERT_NE(sid.get(), nullptr) << text;
        LPWSTR expected = nullptr;
        ASSERT_TRUE(::ConvertSidToStringSidW(sid.get(), &expected)) << text;
        UniqueLocalMem owner(expected);
        SidProps props;
        ASSERT_TRUE(props.processSid(sid.get(), false)) << text;
        EXPECT_EQ(props.sidString, expected) << text;
    }
}

TEST_F(SidPropsTest, FailuresKeepWhatWasLearnt) {
    FakeAccounts::table()[L"S-1-5-21-1-2-3-9"] = FakeAccount{L"", L"", ERROR_ACCESS_DENIED};
    SidBytes sid("S-1-5-21-1-2-3-9");
    SidProps props;
    EXPECT_FALSE(props.processSid(sid.get(), true));
    EXPECT_EQ(props.sidString, L"S-1-5-21-1-2-3-9");
    unsigned char junk[16] = {7};
    EXPECT_FALSE(props.processSid(junk, true));
    EXPECT_EQ(props.sidString, L"");
}

}  // namespace
}  // namespace skorva
