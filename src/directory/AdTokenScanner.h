#pragma once
// Finds the directory-object tokens of an event's text: a schema or object GUID
// in braces ("{bf967aba-...}"), or a SID in braces ("{S-1-5-...}"), either one
// optionally after "%". Text logic only, no Windows header.
//
// The rules are the product's long-standing ones, odd corners kept on purpose:
// a token is collected into at most 63 characters (a longer one is cut, with no
// closing brace); a GUID skipped by the event's skip list resumes the scan one
// character past the one that follows its closing brace; braces around anything
// but a GUID or a SID ("{hello}") are no token.

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace skorva {

// What a token is offered as (the translation's own markers) and the name
// wanted for it (DS_NAME_FORMAT values: DS_FQDN_1779_NAME, DS_NT4_ACCOUNT_NAME).
enum AdOffered : uint32_t { kOfferedGuid = 0, kOfferedSid = 1 };
enum AdWanted : uint32_t { kWantedDn = 1, kWantedNt4Account = 2 };

// The 36 characters from `from` read as a GUID: hexadecimal digits with "-" at
// 8, 13, 18 and 23.
bool hasGuidShape(std::wstring_view text, size_t from);

struct AdToken {
    enum Kind {
        kSkippedGuid,     // a GUID the skip list keeps as it is
        kNotTranslated,   // braces around something else: stays as written
        kSid,             // a SID, wanted as an account name
        kSchemaGuid,      // a GUID, wanted as a schema name or else a distinguished name
    };
    static constexpr size_t kCapacity = 63;

    Kind kind = kNotTranslated;
    size_t start = 0;    // the "%" or "{" the token begins with
    size_t resume = 0;   // where the scan goes on (may lie past the end after a skipped GUID)
    bool percent = false;
    wchar_t text[kCapacity];  // collected: a GUID with its braces, a SID without
    size_t length = 0;

    std::wstring_view collected() const { return std::wstring_view(text, length); }
    std::wstring_view skippedGuid(std::wstring_view source) const { return source.substr(start + percent + 1, 36); }
    uint32_t offeredFormat() const { return kind == kSid ? kOfferedSid : kOfferedGuid; }
    uint32_t wantedFormat() const { return kind == kSid ? kWantedNt4Account : kWantedDn; }
};

// The next token from `pos`; false when there is none. With `skipGuids` (the
// event's code is in the skip list) a GUID-shaped token is reported as skipped.
bool nextAdToken(std::wstring_view text, size_t pos, bool skipGuids, AdToken& token);

}  // namespace skorva
