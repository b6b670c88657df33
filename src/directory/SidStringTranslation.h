#pragma once
// Translation of SID strings found in message and XML text.

#include <string>
#include <string_view>

namespace skorva {

// "S-1-5-18" -> "NT AUTHORITY\SYSTEM" through the SID cache; an empty domain
// gives the bare account name. `account` and `domain` are the caller's
// scratch, reused from call to call.
bool translateSidString(const std::string& sid, std::wstring& out, std::wstring& account, std::wstring& domain);

}  // namespace skorva
