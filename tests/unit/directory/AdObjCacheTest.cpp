#include <gtest/gtest.h>

#include "LogCapture.h"
#include "channel/WinEventLogChannel.h"
#include "directory/AdObjBlacklistMemo.h"
#include "directory/WinLookupAdObjCache.h"
#include "platform/Clock.h"
#include "platform/Strings.h"

namespace skorva {
namespace {

// A scripted directory translation: names starting with "bad" fail, others
// translate to "T:" + name.
struct ScriptedTranslation {
    int calls = 0;
    WinLookupAdObjCache::Translate function() {
        return [this](const std::wstring& object, std::wstring& out, DWORD, DWORD) {
            ++calls;
            if (object.rfind(L"bad", 0) == 0) return false;
            out = L"T:" + object;
            return true;
        };
    }
};

AdCacheSettings withExpiry(uint64_t seconds, uint32_t maxEntries = 1000) {
    AdCacheSettings s;
    s.expiryMs = seconds * 1000;
    s.maxEntries = maxEntries;
    return s;
}

class AdObjCacheTest : public ::testing::Test {
protected:
    AdObjCacheTest() : scoped_(clock_) {}
    bool lookup(const std::wstring& object, DWORD offered = 1, std::wstring* out = nullptr) {
        std::wstring text;
        const bool ok = cache_.lookupAdObj(object, offered, offered == 1 ? 2 : 1, text);
        if (out) *out = text;
        return ok;
    }
    ManualClock clock_;
    ScopedClock scoped_;
    ScriptedTranslation directory_;
    WinLookupAdObjCache cache_{directory_.function(), withExpiry(3600)};
    test::LogCapture log_;
};

TEST_F(AdObjCacheTest, HitsAreServedUntilExpiryAndFormatPairsAreSeparateKeys) {
    std::wstring out;
    ASSERT_TRUE(lookup(L"{guid-1}", 1, &out));
    EXPECT_EQ(out, L"T:{guid-1}");
    ASSERT_TRUE(lookup(L"{guid-1}", 1, &out));
    EXPECT_EQ(out, L"T:{guid-1}");
    EXPECT_EQ(directory_.calls, 1);
    EXPECT_TRUE(log_.has(LogLevel::Info, "WinEventLogChannel::WinLookupAdObjCache::lookupAdObj: Cached ad object is "
                                         "adObj='{guid-1}' expiry_in=3600 sec hits=1"));
    ASSERT_TRUE(lookup(L"{guid-1}", 7));
    EXPECT_EQ(directory_.calls, 2);
    EXPECT_EQ(cache_.size(), 2u);
}

TEST_F(AdObjCacheTest, ExpiredFailureIsRetried) {
    EXPECT_FALSE(lookup(L"bad-object"));
    clock_.advance(10000);
    EXPECT_FALSE(lookup(L"bad-object"));
    EXPECT_EQ(directory_.calls, 1);
    clock_.advance(1);
    EXPECT_FALSE(lookup(L"bad-object"));
    EXPECT_EQ(directory_.calls, 2);
}

TEST_F(AdObjCacheTest, ExpiredSuccessIsRefreshedUnlessPopular) {
    lookup(L"rare");
    for (int i = 0; i < 400; ++i) lookup(L"popular");  // hits reach the threshold of 360
    ASSERT_EQ(directory_.calls, 2);
    clock_.advance(3600001);
    std::wstring out;
    ASSERT_TRUE(lookup(L"popular", 1, &out));
    EXPECT_EQ(out, L"T:popular");
    EXPECT_EQ(directory_.calls, 2) << "a popular success is kept past its expiry";
    ASSERT_TRUE(lookup(L"rare"));
    EXPECT_EQ(directory_.calls, 3);
}

TEST_F(AdObjCacheTest, OverfullCacheDropsATenthOfTheMaximumOldestFirstSkippingPopularKeys) {
    cache_.configure(withExpiry(3600, 20));
    lookup(L"k00");
    for (int i = 0; i < 400; ++i) lookup(L"k00");  // popular: survives the eviction
    for (int i = 1; i <= 20; ++i) lookup(widen(format("k%02d", i)));
    ASSERT_EQ(cache_.size(), 21u);
    lookup(L"k21");  // finds 21 > 20: removes k01 and k02
    EXPECT_EQ(cache_.size(), 20u);
    const int before = directory_.calls;
    lookup(L"k00");
    lookup(L"k03");
    EXPECT_EQ(directory_.calls, before);
    lookup(L"k01");
    EXPECT_EQ(directory_.calls, before + 1);
    EXPECT_TRUE(log_.has(LogLevel::Info, "WinEventLogChannel::WinLookupAdObjCache::removeOldestKey: Removed ad "
                                         "object is adObj='k02', hits=1"));
}

TEST_F(AdObjCacheTest, MaximumBelowTenFallsBackToForcedExpiry) {
    cache_.configure(withExpiry(3600, 5));
    for (int i = 1; i <= 6; ++i) lookup(widen(format("o%d", i)));
    ASSERT_EQ(cache_.size(), 6u);
    lookup(L"o7");
    EXPECT_EQ(cache_.size(), 1u);
    EXPECT_EQ(cache_.queued(), 7u) << "removeOldestKey took nothing off the queue";
    EXPECT_TRUE(log_.has(LogLevel::Info,
                         "WinEventLogChannel::WinLookupAdObjCache::cleanCache: ForcedExpired ad object is adObj='o1', "
                         "hits=1. Try increasing evt_ad_cache_max_entries. Current evt_ad_cache_max_entries=5"));
}

TEST_F(AdObjCacheTest, CleanCacheRemovesOnlyExpiredEntries) {
    cache_.configure(withExpiry(3600, 5));
    lookup(L"bad-1");
    lookup(L"bad-2");
    clock_.advance(20000);
    for (int i = 1; i <= 4; ++i) lookup(widen(format("o%d", i)));
    ASSERT_EQ(cache_.size(), 6u);
    cache_.cleanCache();
    EXPECT_EQ(cache_.size(), 4u);
    EXPECT_TRUE(log_.has(LogLevel::Info, "WinEventLogChannel::WinLookupAdObjCache::cleanCache: Expired ad object is "
                                         "adObj='bad-1', hits=1"));
}

TEST_F(AdObjCacheTest, DisabledCacheAlwaysTranslates) {
    AdCacheSettings s = withExpiry(3600);
    s.disabled = true;
    cache_.configure(s);
    lookup(L"x");
    lookup(L"x");
    EXPECT_EQ(directory_.calls, 2);
    EXPECT_EQ(cache_.size(), 0u);
}

TEST(AdObjCacheOfChannel, TakesTheStanzaSettings) {
    ChannelSettings settings;
    settings.adCache.expiryMs = 100000;
    WinEventLogChannel channel("Security", settings);
    WinEventLogChannel::WinLookupAdObjCache& cache = channel.adObjCache();
    EXPECT_EQ(cache.settings().hitThreshold, 10u);
    std::wstring out;
    EXPECT_FALSE(cache.lookupAdObj(L"{obj}", 1, 2, out)) << "no directory binding yet";
}

TEST(AdObjBlacklistMemo, StoresWhileItHoldsTwoHundredOrFewer) {
    test::LogCapture log;
    AdObjBlacklistMemo memo;
    for (int i = 0; i < 201; ++i) memo.remember(widen(format("name%d", i)), i % 2 == 0);
    EXPECT_EQ(memo.size(), 201u);
    memo.remember(L"late", true);
    EXPECT_EQ(memo.size(), 201u);
    EXPECT_EQ(memo.find(L"late"), nullptr);
    ASSERT_NE(memo.find(L"name4"), nullptr);
    EXPECT_TRUE(*memo.find(L"name4"));
    EXPECT_FALSE(*memo.find(L"name5"));
    EXPECT_TRUE(log.has(LogLevel::Info, "adObjBlackListCache  count=200, adObj='late' not blacklisted"));
}

}  // namespace
}  // namespace skorva
