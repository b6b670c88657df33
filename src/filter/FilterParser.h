#pragma once
// Turns whitelist/blacklist setting values into filter rules, and checks the
// excluded-field names against them. Every parse error is logged and discards
// the whole value (or the whole event-code list); nothing throws.

#include <map>
#include <string>
#include <string_view>

#include "filter/FilterRules.h"

namespace skorva {

// Key to pattern, as written in one setting value.
using FilterRuleMap = std::map<std::string, std::string>;

// The key a bare event-code list is filed under.
extern const char* const kLegacyEventIdKey;

// Parses one setting value (`settingName` such as "whitelist3" names it in the
// messages). False when the value is discarded; `rule` is then empty.
bool parseFilterValue(const std::string& settingName, const std::string& value, bool renderXml, FilterRuleMap& rule);

// "4624,4625,4700-4800" into ranges; "*" is every code. Empty on any error.
EventCodeRanges parseEventCodeList(const std::string& text, const std::string& settingName);

// Compiles one parsed rule into `list`. Sets `needsMessage` when a key must be
// evaluated on the formatted message.
void addFilterRule(const std::string& settingName, const FilterRuleMap& rule, bool whitelist, FilterList& list,
                   bool& needsMessage);

// Warns about an excluded field that is not standard or that a rule depends on.
void checkExcludedField(const std::string& name, const FilterList& whitelist, const FilterList& blacklist);

}  // namespace skorva
