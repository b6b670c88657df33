#include "directory/SidProps.h"

#include "directory/SidLookupCache.h"
#include "platform/Logger.h"

namespace skorva {

namespace {

void appendDecimal(std::wstring& out, unsigned long v) {
    wchar_t digits[10];
    int n = 0;
    do {
        digits[n++] = static_cast<wchar_t>(L'0' + v % 10);
        v /= 10;
    } while (v);
    while (n) out += digits[--n];
}

// "S-1-5-21-...", written straight into `out` (whose storage is reused from event
// to event) for the usual identifier authorities below 2^31. Larger ones go through
// the system's conversion: they print in hex from 2^32 up, and Wine prints those
// from 2^31 up as negative numbers.
bool sidText(PSID sid, std::wstring& out) {
    const SID_IDENTIFIER_AUTHORITY* auth = ::GetSidIdentifierAuthority(sid);
    if (auth->Value[0] != 0 || auth->Value[1] != 0 || auth->Value[2] >= 0x80) return sidToString(sid, out);
    const unsigned long authority = (static_cast<unsigned long>(auth->Value[2]) << 24) |
                                    (static_cast<unsigned long>(auth->Value[3]) << 16) |
                                    (static_cast<unsigned long>(auth->Value[4]) << 8) | auth->Value[5];
    const UCHAR count = *::GetSidSubAuthorityCount(sid);
    out.assign(L"S-");
    appendDecimal(out, static_cast<const SID*>(sid)->Revision);
    out += L'-';
    appendDecimal(out, authority);
    for (UCHAR i = 0; i < count; ++i) {
        out += L'-';
        appendDecimal(out, *::GetSidSubAuthority(sid, i));
    }
    return true;
}

}  // namespace

bool SidProps::processSid(PSID sid, bool lookup) {
    static const char* const kFn = "SidProps::processSid";
    if (!sid || !::IsValidSid(sid) || !sidText(sid, sidString)) {
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
