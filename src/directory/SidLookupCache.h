#pragma once
// The process-wide cache of account look-ups by SID. Shared by every channel
// thread; the lock guards the map only and is never held across the look-up.

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "config/CacheSettings.h"
#include "platform/Handles.h"

namespace skorva {

class SidLookupCache {
public:
    // The account look-up; LookupAccountSidW unless a test installs another.
    using LookupAccountSidFn = BOOL(WINAPI*)(LPCWSTR, PSID, LPWSTR, LPDWORD, LPWSTR, LPDWORD, PSID_NAME_USE);

    // The one cache of the process, created on first use.
    static SidLookupCache& instance();

    explicit SidLookupCache(const SidCacheSettings& settings = SidCacheSettings());
    SidLookupCache(const SidLookupCache&) = delete;
    SidLookupCache& operator=(const SidLookupCache&) = delete;

    // Applies the settings of the first configured stanza; the monitor calls it
    // once, before any channel runs. Entries already cached are kept.
    void configure(const SidCacheSettings& settings);
    SidCacheSettings settings() const;

    // Returns a Win32 error code, 0 on success (an unmapped SID is a success whose
    // account name is the SID string). `type` may be null.
    DWORD lookupSid(PSID sid, std::wstring& account, std::wstring& domain, DWORD* type = nullptr);
    // When an answer kept by the cache expires, and the cache's generation
    // when it was read.
    struct Stamp {
        uint64_t expiry = 0;
        uint64_t generation = 0;
    };
    // The fresh answer kept for a SID given in its canonical text ("S-1-5-18"),
    // which spares parsing SIDs already seen. False when none is kept; `result`
    // is then untouched. `stamp`, when given, receives the answer's stamp.
    bool lookupCachedText(std::wstring_view sidText, DWORD& result, std::wstring& account, std::wstring& domain,
                          Stamp* stamp = nullptr);
    // Changes whenever an entry is added, replaced or removed: a copy of an
    // answer is the cache's answer while its stamp's generation is current,
    // it has not expired and the cache is not disabled.
    bool stillCurrent(const Stamp& stamp) const;

    // Installs another look-up (tests); returns the previous one.
    LookupAccountSidFn setLookupFunction(LookupAccountSidFn fn);
    size_t size() const;
    void clear();

private:
    struct Entry {
        std::wstring account;
        std::wstring domain;
        DWORD type = 0;
        uint64_t expiry = 0;
        DWORD result = 0;
    };

    // Asks the platform (through the installed function) with the 259-character
    // first attempt and one retry at the reported sizes.
    DWORD lookupAccount(PSID sid, const std::wstring& sidString, Entry& out) const;
    void purgeLocked(uint64_t now);

    mutable CriticalSection lock_;
    std::map<std::wstring, Entry, std::less<>> entries_;
    std::atomic<uint64_t> generation_{0};  // moved on under the lock by every change of entries_
    std::atomic<bool> disabled_{false};
    std::atomic<uint64_t> expiryMs_{3600000};
    std::atomic<uint64_t> negativeExpiryMs_{10000};
    std::atomic<uint64_t> maxEntries_{1000};
    std::atomic<LookupAccountSidFn> lookup_;
};

// The "S-1-..." form of a SID; false (with the thread's last error set) when
// the SID cannot be converted.
bool sidToString(PSID sid, std::wstring& out);

}  // namespace skorva
