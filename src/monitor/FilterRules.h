#pragma once
// Whitelist and blacklist rules of a channel, as parsed from its stanza.

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/Regex.h"

namespace skorva {

using EventCodeRange = std::pair<uint32_t, uint32_t>;  // low, high (inclusive)
using EventCodeRanges = std::vector<EventCodeRange>;

// One key of a rule with its compiled pattern.
struct KeyRegex {
    std::string key;
    std::string pattern;
    std::shared_ptr<const Regex> regex;
};

// A rule admits (or rejects) an event when every key matches.
struct FilterRule {
    std::vector<KeyRegex> keys;  // in key order
};

// All rules of one kind (whitelist or blacklist) of a channel.
struct FilterList {
    std::vector<EventCodeRanges> codeLists;
    std::vector<FilterRule> rules;
    // Rules on message-bearing keys, evaluated once the message is formatted.
    std::map<std::string, FilterRule> messageKeyRules;

    bool empty() const { return codeLists.empty() && rules.empty() && messageKeyRules.empty(); }
};

}  // namespace skorva
