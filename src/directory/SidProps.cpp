#include "directory/SidProps.h"

#include "directory/SidLookupCache.h"
#include "platform/Logger.h"

namespace skorva {

bool SidProps::processSid(PSID sid, bool lookup) {
    static const char* const kFn = "SidProps::processSid";
    if (!sid || !::IsValidSid(sid) || !sidToString(sid, sidString)) {
        LOG_ERROR("%s: Failed to convert sid to string", kFn);
        sidString.clear();
        return false;
    }
    valid = true;
    if (!lookup) {
        accountName = L"NOT_TRANSLATED";
        return true;
    }
    DWORD type = 0;
    if (SidLookupCache::instance().lookupSid(sid, accountName, domainName, &type) != 0) {
        LOG_ERROR("%s:  Failed to lookup sid", kFn);
        return false;
    }
    sidType = type;
    return true;
}

}  // namespace skorva
