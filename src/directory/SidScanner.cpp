#include "directory/SidScanner.h"

#include <algorithm>

#include "platform/Strings.h"

namespace skorva {

bool findNextSid(std::string_view text, size_t pos, size_t limit, SidMatch& match) {
    if (pos >= text.size()) return false;
    const size_t open = match.noWrapped ? std::string_view::npos : findText(text, "%{", pos);
    match.noWrapped = open == std::string_view::npos;
    if (!match.noWrapped) {
        const size_t close = text.find('}', open);
        if (close == std::string_view::npos || close - open <= 2) return false;
        match.sid = text.substr(open + 2, close - open - 2);
        match.pattern = text.substr(open, close - open + 1);
        match.next = close;
        return true;
    }
    const size_t start = findText(text, "S-1-", pos);
    if (start == std::string_view::npos) return false;
    const size_t end = std::min(limit, text.size());
    size_t i = start + 1;
    while (i < end && (text[i] == '-' || (text[i] >= '0' && text[i] <= '9'))) ++i;
    match.sid = text.substr(start, i - start);
    match.pattern = match.sid;
    match.next = i;
    return true;
}

}  // namespace skorva
