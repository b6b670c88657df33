#include "directory/WinLookupAdObjCache.h"

#include <algorithm>

#include "platform/Clock.h"
#include "platform/Logger.h"

namespace skorva {

namespace {
constexpr uint64_t kShortExpiryMs = 20000;
constexpr unsigned kForcedEvictions = 10;
}

void deriveAdCacheThreshold(AdCacheSettings& s) {
    if (s.disabled || s.derived) return;
    if (s.expiryMs < kShortExpiryMs) {
        s.hitThreshold = 2;
    } else {
        const uint64_t seconds = s.expiryMs > UINT64_MAX - 999 ? UINT64_MAX / 1000 : (s.expiryMs + 999) / 1000;
        s.hitThreshold = static_cast<uint32_t>(std::min<uint64_t>(seconds / 10, UINT32_MAX));
    }
    s.derived = true;
}

WinLookupAdObjCache::WinLookupAdObjCache(Translate translate, const AdCacheSettings& settings)
    : translate_(std::move(translate)) {
    configure(settings);
}

void WinLookupAdObjCache::configure(const AdCacheSettings& settings) {
    settings_ = settings;
    deriveAdCacheThreshold(settings_);
}

uint32_t WinLookupAdObjCache::hitsOf(const Key& key) const {
    auto it = hits_.find(key);
    return it == hits_.end() ? 0 : it->second;
}

bool WinLookupAdObjCache::lookupAdObj(const std::wstring& object, DWORD offeredFormat, DWORD wantedFormat,
                                      std::wstring& out) {
    static const char* const kFn = "WinEventLogChannel::WinLookupAdObjCache::lookupAdObj";
    if (settings_.disabled) return translate_(object, out, offeredFormat, wantedFormat);

    const KeyView view{object, static_cast<int32_t>(offeredFormat), static_cast<int32_t>(wantedFormat)};
    auto found = entries_.find(view);
    if (found != entries_.end()) {
        const Entry& e = found->second;
        const uint64_t now = tickNow();
        auto counter = hits_.find(view);
        if (counter == hits_.end()) counter = hits_.emplace(found->first, 0).first;
        uint32_t& hits = counter->second;
        const uint64_t left = e.expiry >= now ? e.expiry - now : 0;
        LOG_INFO("%s: Cached ad object is adObj='%S' expiry_in=%llu sec hits=%d", kFn, object.c_str(),
                 static_cast<unsigned long long>(left / 1000 + (left % 1000 ? 1 : 0)), static_cast<int>(hits));
        const bool popular = hits >= settings_.hitThreshold;
        if (e.expiry >= now || (e.success && popular)) {
            // Popular translations are served past their expiry and never refreshed here.
            if (!popular) ++hits;
            if (e.success) out = e.translation;
            return e.success;
        }
        hits = 1;
    } else {
        ageQueue_.push_back(Key{object, view.offered, view.wanted});
        hits_[ageQueue_.back()] = 1;
    }
    const Key key{object, view.offered, view.wanted};

    const bool ok = translate_(object, out, offeredFormat, wantedFormat);
    if (entries_.size() > settings_.maxEntries) removeOldestKey();
    const uint64_t period = ok ? settings_.expiryMs : settings_.negativeExpiryMs;
    Entry& e = entries_[key];
    e.translation = ok ? out : std::wstring();
    e.expiry = addSaturating(tickNow(), period);
    e.success = ok;
    LOG_INFO("%s: Caching ad object is adObj='%S' expires_seconds=%llu", kFn, object.c_str(),
             static_cast<unsigned long long>(period / 1000));
    return ok;
}

void WinLookupAdObjCache::removeOldestKey() {
    static const char* const kFn = "WinEventLogChannel::WinLookupAdObjCache::removeOldestKey";
    if (ageQueue_.empty()) {
        cleanCache();
        return;
    }
    const uint32_t target = settings_.maxEntries / 10;
    uint32_t removed = 0;
    while (removed != target) {
        Key key = std::move(ageQueue_.front());
        ageQueue_.pop_front();
        // A key already gone from the map still counts: its counter reads 0.
        const uint32_t hits = hits_[key];
        if (hits < settings_.hitThreshold) {
            LOG_INFO("%s: Removed ad object is adObj='%S', hits=%d", kFn, key.text.c_str(), static_cast<int>(hits));
            hits_.erase(key);
            entries_.erase(key);
            ++removed;
        }
        if (ageQueue_.empty()) break;
    }
    if (removed == 0) cleanCache();
}

void WinLookupAdObjCache::cleanCache() {
    static const char* const kFn = "WinEventLogChannel::WinLookupAdObjCache::cleanCache";
    if (entries_.size() <= settings_.maxEntries) return;
    const uint64_t now = tickNow();
    size_t removed = 0;
    for (auto it = entries_.begin(); it != entries_.end();) {
        if (it->second.expiry < now) {
            LOG_INFO("%s: Expired ad object is adObj='%S', hits=%d", kFn, it->first.text.c_str(),
                     static_cast<int>(hitsOf(it->first)));
            hits_.erase(it->first);
            it = entries_.erase(it);
            ++removed;
        } else {
            ++it;
        }
    }
    if (removed) return;
    for (unsigned i = 0; i < kForcedEvictions && !entries_.empty(); ++i) {
        auto it = entries_.begin();
        LOG_INFO("%s: ForcedExpired ad object is adObj='%S', hits=%d. Try increasing evt_ad_cache_max_entries. "
                 "Current evt_ad_cache_max_entries=%d",
                 kFn, it->first.text.c_str(), static_cast<int>(hitsOf(it->first)),
                 static_cast<int>(settings_.maxEntries));
        hits_.erase(it->first);
        entries_.erase(it);
    }
}

}  // namespace skorva
