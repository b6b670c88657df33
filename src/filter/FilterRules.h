#pragma once
// Whitelist and blacklist rules of a channel, as parsed from its stanza.
// No Windows header: the rules and their evaluation are plain text logic.

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/Regex.h"

namespace skorva {

using EventCodeRange = std::pair<uint32_t, uint32_t>;  // low, high (inclusive)
using EventCodeRanges = std::vector<EventCodeRange>;

// One key of a rule with its compiled pattern (compiled once, at configuration).
struct KeyRegex {
    std::string key;
    std::string pattern;
    std::shared_ptr<const Regex> regex;
};

// A rule admits (or rejects) an event when every key matches; of several
// rules of a list, the first that passes decides.
struct FilterRule {
    std::vector<KeyRegex> keys;  // in key order
    // A pattern holds "{": the rule names directory objects by the tokens the
    // event carries ("%{bf967aba-...}"), which translation replaces with names.
    bool namesTokens = false;
};

// What the rules naming tokens decided on an event as it was read, before its
// directory objects were translated (Undecided: nothing was translated).
enum class TokenRules : uint8_t { Undecided, Whitelisted, NotWhitelisted };

// All rules of one kind (whitelist or blacklist) of a channel.
struct FilterList {
    std::vector<EventCodeRanges> codeLists;
    std::vector<FilterRule> rules;

    bool hasCodeRanges() const {
        for (const auto& list : codeLists)
            if (!list.empty()) return true;
        return false;
    }
    bool empty() const { return codeLists.empty() && rules.empty(); }
};

}  // namespace skorva
