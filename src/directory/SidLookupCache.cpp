#include "directory/SidLookupCache.h"

#include <sddl.h>

#include <mutex>

#include "platform/Clock.h"

namespace skorva {

namespace {
constexpr DWORD kFirstNameChars = 259;
}

bool sidToString(PSID sid, std::wstring& out) {
    LPWSTR text = nullptr;
    if (!::ConvertSidToStringSidW(sid, &text)) return false;
    UniqueLocalMem owner(text);
    out.assign(text);
    return true;
}

SidLookupCache& SidLookupCache::instance() {
    static SidLookupCache cache;
    return cache;
}

SidLookupCache::SidLookupCache(const SidCacheSettings& settings) : lookup_(&::LookupAccountSidW) {
    configure(settings);
}

void SidLookupCache::configure(const SidCacheSettings& settings) {
    disabled_ = settings.disabled;
    expiryMs_ = settings.expiryMs;
    negativeExpiryMs_ = settings.negativeExpiryMs;
    maxEntries_ = settings.maxEntries;
}

SidCacheSettings SidLookupCache::settings() const {
    SidCacheSettings s;
    s.disabled = disabled_;
    s.expiryMs = expiryMs_;
    s.negativeExpiryMs = negativeExpiryMs_;
    s.maxEntries = maxEntries_;
    return s;
}

SidLookupCache::LookupAccountSidFn SidLookupCache::setLookupFunction(LookupAccountSidFn fn) {
    return lookup_.exchange(fn ? fn : &::LookupAccountSidW);
}

size_t SidLookupCache::size() const {
    std::lock_guard<CriticalSection> guard(lock_);
    return entries_.size();
}

void SidLookupCache::clear() {
    std::lock_guard<CriticalSection> guard(lock_);
    entries_.clear();
    ++generation_;
}

bool SidLookupCache::lookupCachedText(std::wstring_view sidText, DWORD& result, std::wstring& account,
                                      std::wstring& domain, Stamp* stamp) {
    if (disabled_) return false;
    std::lock_guard<CriticalSection> guard(lock_);
    auto it = entries_.find(sidText);
    if (it == entries_.end() || it->second.expiry < tickNow()) return false;
    if (stamp) *stamp = Stamp{it->second.expiry, generation_.load()};
    result = it->second.result;
    if (result == 0) {
        account = it->second.account;
        domain = it->second.domain;
    }
    return true;
}

bool SidLookupCache::stillCurrent(const Stamp& stamp) const {
    return !disabled_ && stamp.generation == generation_.load() && stamp.expiry >= tickNow();
}

DWORD SidLookupCache::lookupSid(PSID sid, std::wstring& account, std::wstring& domain, DWORD* type) {
    if (!sid || !::IsValidSid(sid)) return ERROR_INVALID_PARAMETER;

    const bool cached = !disabled_;
    std::wstring sidString;
    if (cached) {
        if (!sidToString(sid, sidString)) return ::GetLastError();
        std::lock_guard<CriticalSection> guard(lock_);
        auto it = entries_.find(sidString);
        if (it != entries_.end() && it->second.expiry >= tickNow()) {
            const Entry& e = it->second;
            if (e.result == 0) {
                account = e.account;
                domain = e.domain;
                if (type) *type = e.type;
            }
            return e.result;
        }
    }

    Entry fresh;
    fresh.result = lookupAccount(sid, sidString, fresh);

    if (cached) {
        const uint64_t now = tickNow();
        fresh.expiry = addSaturating(now, fresh.result ? negativeExpiryMs_.load() : expiryMs_.load());
        std::lock_guard<CriticalSection> guard(lock_);
        if (entries_.size() > maxEntries_) purgeLocked(now);
        entries_[sidString] = fresh;
        ++generation_;
    }
    if (fresh.result == 0) {
        account = std::move(fresh.account);
        domain = std::move(fresh.domain);
        if (type) *type = fresh.type;
    }
    return fresh.result;
}

DWORD SidLookupCache::lookupAccount(PSID sid, const std::wstring& sidString, Entry& out) const {
    const LookupAccountSidFn lookup = lookup_.load();
    wchar_t name[kFirstNameChars];
    wchar_t domain[kFirstNameChars];
    DWORD nameLen = kFirstNameChars;
    DWORD domainLen = kFirstNameChars;
    SID_NAME_USE use = SidTypeUnknown;
    DWORD error = 0;
    if (lookup(nullptr, sid, name, &nameLen, domain, &domainLen, &use)) {
        out.account.assign(name, nameLen);
        out.domain.assign(domain, domainLen);
        out.type = static_cast<DWORD>(use);
        return 0;
    }
    error = ::GetLastError();
    if (error == ERROR_INSUFFICIENT_BUFFER) {
        std::wstring bigName(nameLen, L'\0');
        std::wstring bigDomain(domainLen, L'\0');
        if (lookup(nullptr, sid, bigName.data(), &nameLen, bigDomain.data(), &domainLen, &use)) {
            bigName.resize(nameLen);
            bigDomain.resize(domainLen);
            out.account = std::move(bigName);
            out.domain = std::move(bigDomain);
            out.type = static_cast<DWORD>(use);
            return 0;
        }
        error = ::GetLastError();
    }
    if (error != ERROR_NONE_MAPPED) return error;

    // An unmapped SID (a foreign domain's account) is still an answer: its own text.
    if (!sidString.empty())
        out.account = sidString;
    else if (!sidToString(sid, out.account))
        out.account = L"NONE_MAPPED";
    out.domain.clear();
    out.type = static_cast<DWORD>(use);
    return 0;
}

void SidLookupCache::purgeLocked(uint64_t now) {
    if (entries_.size() <= maxEntries_) return;
    size_t removed = 0;
    for (auto it = entries_.begin(); it != entries_.end();) {
        if (it->second.expiry < now) {
            it = entries_.erase(it);
            ++generation_;
            ++removed;
        } else {
            ++it;
        }
    }
    if (removed) return;
    // Nothing aged out: make room by key order, deliberately not by use.
    for (int i = 0; i < 10 && !entries_.empty(); ++i) {
        entries_.erase(entries_.begin());
        ++generation_;
    }
}

}  // namespace skorva
