#pragma once
// Typed reading of one stanza's parameters. A missing key and an empty value
// both mean the default; text that does not parse means the default too.

#include <cstdint>
#include <map>
#include <string>

namespace skorva {

enum class BoolWord { True, False, Other };
// "t", "true", "yes", "1" / "f", "false", "no", "0", in any case.
BoolWord boolWord(const std::string& text);

class StanzaValues {
public:
    explicit StanzaValues(const std::map<std::string, std::string>& params) : params_(params) {}

    // The value, or empty when absent.
    const std::string& text(const std::string& key) const;
    bool getBool(const std::string& key, bool defaultValue) const;
    // True unless empty or a false word: unrecognised text disables.
    bool disabled() const;
    int32_t getInt(const std::string& key, int32_t defaultValue) const;
    uint32_t getUInt(const std::string& key, uint32_t defaultValue) const;

private:
    const std::map<std::string, std::string>& params_;
};

}  // namespace skorva
