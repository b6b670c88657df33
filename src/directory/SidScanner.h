#pragma once
// Finds SID strings in message and XML text: "%{S-1-...}" or a bare "S-1-...".
// Text logic only, no Windows header.

#include <cstddef>
#include <string_view>

namespace skorva {

struct SidMatch {
    std::string_view sid;      // the SID text
    std::string_view pattern;  // what to replace: the SID, or "%{" SID "}"
    size_t next = 0;           // where the scan goes on
    // Set once no "%{" is left from the scan's position on, so that the next
    // calls on the same text do not look for one again. A caller that changes
    // the scanned text clears it.
    bool noWrapped = false;
};

// Looks for the next SID from `pos`. A bare SID extends over "-" and digits up
// to `limit`. Returns false when the scan ends: no SID left, or a "%{" with no
// closing brace, or braces around nothing (plain SIDs after it are not looked for).
bool findNextSid(std::string_view text, size_t pos, size_t limit, SidMatch& match);

}  // namespace skorva
