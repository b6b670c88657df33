// Message and XML text from any event, scanned for SID strings as the SID
// translation does it: the scan ends, always moves forward, and every match and
// its pattern lie inside the text.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "FuzzSupport.h"
#include "directory/SidScanner.h"

SKORVA_FUZZ_QUIET

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace skorva;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto inside = [&](std::string_view part) {
        return part.data() >= text.data() && part.data() + part.size() <= text.data() + text.size();
    };
    size_t pos = 0;
    for (SidMatch match; findNextSid(text, pos, text.size(), match);) {
        FUZZ_CHECK(match.next > pos && match.next <= text.size());
        FUZZ_CHECK(!match.sid.empty() && inside(match.sid) && inside(match.pattern));
        FUZZ_CHECK(match.pattern.find(match.sid) != std::string_view::npos);
        pos = match.next;
    }
    return 0;
}
