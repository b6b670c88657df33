#include "directory/SidStringTranslation.h"

#include <windows.h>
#include <sddl.h>

#include "directory/SidLookupCache.h"
#include "platform/Handles.h"
#include "platform/Logger.h"

namespace skorva {

namespace {

// The cached answer for a SID text, when one is kept.
bool cachedAnswer(const std::string& sid, DWORD& rc, std::wstring& account, std::wstring& domain,
                  SidLookupCache::Stamp* stamp) {
    wchar_t wide[256];
    if (sid.size() >= sizeof(wide) / sizeof(wide[0])) return false;
    for (size_t i = 0; i < sid.size(); ++i) wide[i] = static_cast<unsigned char>(sid[i]);
    return SidLookupCache::instance().lookupCachedText(std::wstring_view(wide, sid.size()), rc, account, domain, stamp);
}

// Every SID text the system converts begins "S-" or is a two-letter alias;
// anything else, a GUID between braces say, is refused without the costly
// conversion, with the error it would give, and without asking the cache,
// which holds SIDs by their "S-" text only.
bool mayBeSid(const std::string& text) {
    return text.size() == 2 || (text.size() > 2 && (text[0] == 'S' || text[0] == 's') && text[1] == '-');
}

}  // namespace

bool translateSidString(const std::string& sid, std::wstring& out, std::wstring& account, std::wstring& domain,
                        SidAnswer* answer) {
    DWORD rc = 0;
    if (!mayBeSid(sid)) {
        LOG_DEBUG("ConvertStringSidTosid failed with error 0x%x", static_cast<unsigned>(ERROR_INVALID_SID));
        return false;
    }
    // A SID seen before is answered by its text, without parsing it.
    SidLookupCache::Stamp stamp;
    const bool cached = cachedAnswer(sid, rc, account, domain, &stamp);
    if (answer) *answer = SidAnswer{cached, rc, stamp};
    if (!cached) {
        PSID binary = nullptr;
        if (!::ConvertStringSidToSidA(sid.c_str(), &binary)) {
            LOG_DEBUG("ConvertStringSidTosid failed with error 0x%x", static_cast<unsigned>(::GetLastError()));
            return false;
        }
        UniqueLocalMem owner(binary);
        rc = SidLookupCache::instance().lookupSid(binary, account, domain);
    }
    if (!reportSidAnswer(sid, rc)) return false;
    out = domain;
    if (!out.empty()) out += L'\\';
    out += account;
    return true;
}

bool reportSidAnswer(const std::string& sid, DWORD error) {
    if (error != 0) {
        LOG_DEBUG("LookupAccountName failed with error 0x%x", static_cast<unsigned>(error));
        return false;
    }
    LOG_DEBUG("Translates the sid %s successfully.", sid.c_str());
    return true;
}

}  // namespace skorva
