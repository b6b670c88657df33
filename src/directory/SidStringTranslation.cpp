#include "directory/SidStringTranslation.h"

#include <windows.h>
#include <sddl.h>

#include "directory/SidLookupCache.h"
#include "platform/Handles.h"
#include "platform/Logger.h"

namespace skorva {

bool translateSidString(const std::string& sid, std::wstring& out) {
    PSID binary = nullptr;
    if (!::ConvertStringSidToSidA(sid.c_str(), &binary)) {
        LOG_DEBUG("ConvertStringSidTosid failed with error 0x%x", static_cast<unsigned>(::GetLastError()));
        return false;
    }
    UniqueLocalMem owner(binary);
    std::wstring account;
    std::wstring domain;
    const DWORD rc = SidLookupCache::instance().lookupSid(binary, account, domain);
    if (rc != 0) {
        LOG_DEBUG("LookupAccountName failed with error 0x%x", static_cast<unsigned>(rc));
        return false;
    }
    out = domain;
    if (!out.empty()) out += L'\\';
    out += account;
    LOG_DEBUG("Translates the sid %s successfully.", sid.c_str());
    return true;
}

}  // namespace skorva
