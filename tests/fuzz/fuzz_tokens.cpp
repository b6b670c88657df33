// Message and XML text from any event, scanned for the tokens that are
// translated: SID strings as the SID translation finds them, and directory
// objects ("{GUID}", "%{S-1-...}") as the directory translation does. Each scan
// ends, always moves forward, and everything it points at lies inside the text.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "FuzzSupport.h"
#include "directory/AdTokenScanner.h"
#include "directory/SidScanner.h"
#include "platform/Strings.h"

SKORVA_FUZZ_QUIET

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace skorva;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto inside = [&](std::string_view part) {
        return part.data() >= text.data() && part.data() + part.size() <= text.data() + text.size();
    };
    size_t pos = 0;
    for (SidMatch match; findNextSid(text, pos, text.size(), match);) {
        SidMatch fresh;  // what a scan that remembers nothing finds
        FUZZ_CHECK(findNextSid(text, pos, text.size(), fresh) && fresh.sid == match.sid && fresh.next == match.next);
        FUZZ_CHECK(match.next > pos && match.next <= text.size());
        FUZZ_CHECK(!match.sid.empty() && inside(match.sid) && inside(match.pattern));
        FUZZ_CHECK(match.pattern.find(match.sid) != std::string_view::npos);
        pos = match.next;
    }

    // The fast search finds what the standard one finds.
    for (size_t at = 0; at <= text.size() && at < 64; at += 7)
        for (const std::string_view needle : {std::string_view("S-1-"), std::string_view("%{"), text.substr(size / 2, 3)})
            if (!needle.empty()) FUZZ_CHECK(findText(text, needle, at) == text.find(needle, at));

    const std::wstring wide = widen(text);
    for (size_t at = 0; at <= wide.size() && at < 64; at += 5)
        for (const std::wstring_view needle : {std::wstring_view(L"</System>"), std::wstring_view(L"{")})
            FUZZ_CHECK(findText(wide, needle, at) == wide.find(needle, at));
    for (const bool skipGuids : {false, true}) {
        AdToken token;
        for (size_t at = 0; at < wide.size() && nextAdToken(wide, at, skipGuids, token); at = token.resume) {
            FUZZ_CHECK(token.start >= at && token.start < wide.size());
            FUZZ_CHECK(token.resume > at && token.length <= AdToken::kCapacity);
            if (token.kind == AdToken::kSkippedGuid) {
                FUZZ_CHECK(skipGuids && token.start + token.percent + 1 + 36 <= wide.size());
                FUZZ_CHECK(hasGuidShape(wide, token.start + token.percent + 1));
            }
        }
    }
    return 0;
}
