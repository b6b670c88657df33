#include "channel/ClassicText.h"

#include "platform/Strings.h"

namespace skorva {

void classicText(const EventFields& fields, std::string& out) {
    out.clear();
    for (const auto [key, value] : fields) {
        if (!key.empty() && key[0] != L'$') {
            appendNarrow(key, out);
            out += '=';
        }
        appendNarrow(value, out);
        if (value.empty() || value.back() != L'\n') out += '\n';
    }
    size_t end = out.size();
    while (end > 0 && isSpace(out[end - 1])) --end;
    out.resize(end);
    size_t begin = 0;
    while (begin < out.size() && isSpace(out[begin])) ++begin;
    out.erase(0, begin);
}

}  // namespace skorva
