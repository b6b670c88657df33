#pragma once
// The whitelist and blacklist of one channel, and the three checks made with
// them: the event-code ranges before an event is rendered, the key/regex rules
// on its text, and one key's value alone. No Windows header: plain text logic.

#include <cstdint>
#include <string>
#include <string_view>

#include "filter/FilterRules.h"

namespace skorva {

struct FilterSet {
    FilterList whitelist;
    FilterList blacklist;
    // Some rule has a message-bearing key: the rules are decided once the
    // formatted message is part of the event's text, still rule by rule.
    bool onMessage = false;

    // `fn` names the caller in the log lines.
    // The event-code ranges of `channel`: a code outside the whitelist ranges
    // or inside a blacklist range is excluded.
    bool admitsCode(uint32_t code, const char* fn, const std::string& channel) const;
    // The key/regex rules on the whole event text (classic or XML): the first
    // whitelist rule that passes admits, then the first blacklist rule that
    // passes drops.
    bool admitsText(std::string_view text, bool xml, const char* fn) const;
    // One value alone (a message before the rest of the event is known): it
    // excludes only when it settles the rules by itself, that is when every
    // whitelist rule names the key and none matches, or a blacklist rule of
    // that key alone matches.
    bool admitsValue(const std::string& key, const std::string& value, const char* fn) const;
};

}  // namespace skorva
