#include "config/StanzaValues.h"

#include <limits>

#include "platform/Strings.h"

namespace skorva {

BoolWord boolWord(const std::string& text) {
    std::string word = asciiLower(text);
    if (word == "t" || word == "true" || word == "yes" || word == "1") return BoolWord::True;
    if (word == "f" || word == "false" || word == "no" || word == "0") return BoolWord::False;
    return BoolWord::Other;
}

const std::string& StanzaValues::text(const std::string& key) const {
    static const std::string empty;
    auto it = params_.find(key);
    return it == params_.end() ? empty : it->second;
}

bool StanzaValues::getBool(const std::string& key, bool defaultValue) const {
    switch (boolWord(text(key))) {
    case BoolWord::True:
        return true;
    case BoolWord::False:
        return false;
    default:
        return defaultValue;
    }
}

bool StanzaValues::disabled() const {
    const std::string& v = text("disabled");
    return !v.empty() && boolWord(v) != BoolWord::False;
}

int32_t StanzaValues::getInt(const std::string& key, int32_t defaultValue) const {
    int64_t v;
    if (!parseInt64(text(key), v) || v < std::numeric_limits<int32_t>::min() || v > std::numeric_limits<int32_t>::max())
        return defaultValue;
    return static_cast<int32_t>(v);
}

uint32_t StanzaValues::getUInt(const std::string& key, uint32_t defaultValue) const {
    uint64_t v;
    if (!parseUInt64(text(key), v) || v > std::numeric_limits<uint32_t>::max()) return defaultValue;
    return static_cast<uint32_t>(v);
}

}  // namespace skorva
