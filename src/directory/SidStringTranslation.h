#pragma once
// Translation of SID strings found in message and XML text.

#include <string>
#include <string_view>

namespace skorva {

// "S-1-5-18" -> "NT AUTHORITY\SYSTEM" through the SID cache; an empty domain
// gives the bare account name.
bool translateSidString(const std::string& sid, std::wstring& out);

}  // namespace skorva
