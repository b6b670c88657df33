#pragma once
// Translation of SID strings found in message and XML text.

#include <string>
#include <string_view>

#include "directory/SidLookupCache.h"

namespace skorva {

// How the cache answered a SID text, when it did.
struct SidAnswer {
    bool cached = false;
    DWORD error = 0;  // 0: translated
    SidLookupCache::Stamp stamp;
};

// "S-1-5-18" -> "NT AUTHORITY\SYSTEM" through the SID cache; an empty domain
// gives the bare account name. `account` and `domain` are the caller's
// scratch, reused from call to call. `answer`, when given, says whether the
// cache answered, so that a caller may keep a copy while it stays current.
bool translateSidString(const std::string& sid, std::wstring& out, std::wstring& account, std::wstring& domain,
                        SidAnswer* answer = nullptr);

// Logs the outcome for `sid` as the translation does; true when translated.
bool reportSidAnswer(const std::string& sid, DWORD error);

}  // namespace skorva
