#pragma once
// One channel's cache of directory-object translations, in front of the
// translation it is handed (the channel's, through a domain controller). Used
// only from the channel's worker thread: no lock.

#include <windows.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "config/CacheSettings.h"

namespace skorva {

// Computes the hit threshold once (unless the cache is disabled or it was
// already derived): at or above it a translation is kept past its expiry.
void deriveAdCacheThreshold(AdCacheSettings& settings);

class WinLookupAdObjCache {
public:
    // Translates `object` from `offeredFormat` to `wantedFormat` into `out`;
    // false when it does not translate.
    using Translate = std::function<bool(const std::wstring& object, std::wstring& out, DWORD offeredFormat,
                                         DWORD wantedFormat)>;

    WinLookupAdObjCache(Translate translate, const AdCacheSettings& settings);
    WinLookupAdObjCache(const WinLookupAdObjCache&) = delete;
    WinLookupAdObjCache& operator=(const WinLookupAdObjCache&) = delete;

    // Takes the stanza's settings and derives the hit threshold.
    void configure(const AdCacheSettings& settings);
    const AdCacheSettings& settings() const { return settings_; }

    // True when `object` (offered in one name format, wanted in another)
    // translates; `out` then holds the translation.
    bool lookupAdObj(const std::wstring& object, DWORD offeredFormat, DWORD wantedFormat, std::wstring& out);
    // Evicts the oldest rarely used keys (a tenth of the maximum).
    void removeOldestKey();
    // Evicts expired entries, or else the first ten by key, when over the maximum.
    void cleanCache();

    size_t size() const { return entries_.size(); }
    size_t queued() const { return ageQueue_.size(); }

private:
    struct Key {
        std::wstring text;
        int32_t offered;
        int32_t wanted;
    };
    // A key looked up without copying its text (a hit allocates nothing).
    struct KeyView {
        std::wstring_view text;
        int32_t offered;
        int32_t wanted;
    };
    struct KeyLess {
        using is_transparent = void;
        template <class A, class B>
        bool operator()(const A& a, const B& b) const {
            if (int c = std::wstring_view(a.text).compare(std::wstring_view(b.text))) return c < 0;
            if (a.offered != b.offered) return a.offered < b.offered;
            return a.wanted < b.wanted;
        }
    };
    struct Entry {
        std::wstring translation;
        uint64_t expiry = 0;
        bool success = false;
    };

    uint32_t hitsOf(const Key& key) const;

    std::map<Key, Entry, KeyLess> entries_;
    std::map<Key, uint32_t, KeyLess> hits_;
    std::deque<Key> ageQueue_;
    Translate translate_;
    AdCacheSettings settings_;
};

}  // namespace skorva
