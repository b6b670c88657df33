#pragma once
// A scripted account look-up installed into a SID cache in place of
// LookupAccountSidW: answers by SID string, counts its calls, honours the
// caller's buffer sizes like the real one.

#include <windows.h>
#include <sddl.h>

#include <atomic>
#include <map>
#include <string>

#include "directory/SidLookupCache.h"
#include "platform/Handles.h"

namespace skorva::test {

struct FakeAccount {
    std::wstring account;
    std::wstring domain;
    DWORD error = 0;
    SID_NAME_USE type = SidTypeUser;
};

class FakeAccounts {
public:
    // Unscripted SIDs answer as DOM\user-<SID>.
    static std::map<std::wstring, FakeAccount>& table() {
        static std::map<std::wstring, FakeAccount> t;
        return t;
    }
    static std::atomic<int>& calls() {
        static std::atomic<int> n{0};
        return n;
    }
    static void reset() {
        table().clear();
        calls() = 0;
    }

    static BOOL WINAPI lookup(LPCWSTR, PSID sid, LPWSTR name, LPDWORD nameLen, LPWSTR domain, LPDWORD domainLen,
                              PSID_NAME_USE use) {
        ++calls();
        std::wstring text;
        if (!sidToString(sid, text)) return FALSE;
        FakeAccount a{L"user-" + text, L"DOM", 0, SidTypeUser};
        auto it = table().find(text);
        if (it != table().end()) a = it->second;
        if (a.error) {
            ::SetLastError(a.error);
            return FALSE;
        }
        if (*nameLen <= a.account.size() || *domainLen <= a.domain.size()) {
            *nameLen = static_cast<DWORD>(a.account.size() + 1);
            *domainLen = static_cast<DWORD>(a.domain.size() + 1);
            ::SetLastError(ERROR_INSUFFICIENT_BUFFER);
            return FALSE;
        }
        wmemcpy(name, a.account.c_str(), a.account.size() + 1);
        wmemcpy(domain, a.domain.c_str(), a.domain.size() + 1);
        *nameLen = static_cast<DWORD>(a.account.size());
        *domainLen = static_cast<DWORD>(a.domain.size());
        *use = a.type;
        return TRUE;
    }
};

// The binary form of a SID string, owned.
class SidBytes {
public:
    explicit SidBytes(const char* text) {
        PSID sid = nullptr;
        if (::ConvertStringSidToSidA(text, &sid)) owner_.reset(sid);
    }
    PSID get() const { return owner_.get(); }

private:
    UniqueLocalMem owner_;
};

// Installs the fake into the process-wide cache for one test, empty and with
// the built-in settings, and puts the real look-up back afterwards.
class ProcessCacheWithFake {
public:
    ProcessCacheWithFake() {
        FakeAccounts::reset();
        SidLookupCache::instance().clear();
        SidLookupCache::instance().configure(SidCacheSettings());
        SidLookupCache::instance().setLookupFunction(&FakeAccounts::lookup);
    }
    ~ProcessCacheWithFake() {
        SidLookupCache::instance().setLookupFunction(nullptr);
        SidLookupCache::instance().clear();
        FakeAccounts::reset();
    }
};

}  // namespace skorva::test
