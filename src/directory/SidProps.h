#pragma once
// The SID properties of one event, from the binary SID attached to it.

#include <windows.h>

#include <string>

namespace skorva {

struct SidProps {
    bool valid = false;
    DWORD sidType = 0;
    std::wstring sidString;
    std::wstring accountName;
    std::wstring domainName;

    // Fills the SID string, and with `lookup` the account through the SID cache;
    // without it the account name is "NOT_TRANSLATED".
    bool processSid(PSID sid, bool lookup);
};

}  // namespace skorva
