#include "directory/AdTokenScanner.h"

namespace skorva {

namespace {

constexpr size_t kGuidLength = 36;
// The scan resumes this far after a skipped GUID's first character: one past
// the character that follows its closing brace, which is passed over unread.
constexpr size_t kSkipStep = 38;

bool isHex(wchar_t c) { return (c >= L'0' && c <= L'9') || (c >= L'a' && c <= L'f') || (c >= L'A' && c <= L'F'); }

}  // namespace

bool hasGuidShape(std::wstring_view text, size_t from) {
    if (from > text.size() || text.size() - from < kGuidLength) return false;
    for (size_t i = 0; i < kGuidLength; ++i) {
        const wchar_t c = text[from + i];
        const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash ? c != L'-' : !isHex(c)) return false;
    }
    return true;
}

bool nextAdToken(std::wstring_view text, size_t pos, bool skipGuids, AdToken& token) {
    const size_t n = text.size();
    for (size_t i = pos; i < n; ++i) {
        size_t brace;
        if (text[i] == L'{')
            brace = i;
        else if (text[i] == L'%' && i + 1 < n && text[i + 1] == L'{')
            brace = i + 1;
        else
            continue;
        token.start = i;
        token.percent = brace != i;
        token.length = 0;
        if (skipGuids && hasGuidShape(text, brace + 1)) {
            token.kind = AdToken::kSkippedGuid;
            token.resume = brace + 1 + kSkipStep;
            return true;
        }
        const bool sid = brace + 2 < n && (text[brace + 1] == L's' || text[brace + 1] == L'S') &&
                         text[brace + 2] == L'-';
        // "%" is never collected, nor a SID's "{"; "}" ends the token and is
        // kept for a GUID. At 63 characters collecting stops, brace or not.
        size_t j = sid ? brace + 1 : brace;
        while (j < n && token.length < AdToken::kCapacity) {
            const wchar_t c = text[j++];
            if (c == L'}') {
                if (!sid) token.text[token.length++] = c;
                break;
            }
            token.text[token.length++] = c;
        }
        token.resume = j;
        if (hasGuidShape(token.collected(), 1))
            token.kind = AdToken::kSchemaGuid;
        else
            token.kind = sid ? AdToken::kSid : AdToken::kNotTranslated;
        return true;
    }
    return false;
}

}  // namespace skorva
