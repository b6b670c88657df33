#include "filter/FilterParser.h"

#include <algorithm>
#include <cstdint>
#include <limits>

#include "platform/Logger.h"
#include "platform/Strings.h"

namespace skorva {

const char* const kLegacyEventIdKey = "legacy_event_id";

namespace {

const char* const kXmlRegexKey = "$XmlRegex";

const char* const kStandardFields[] = {"Category", "CategoryString", "ComputerName", "EventCode", "Keywords",
                                       "LogName",  "Message",        "OpCode",       "RecordNumber", "Sid",
                                       "SidType",  "SourceName",     "TaskCategory", "Type",     "User"};

bool parseCode(std::string_view text, uint32_t& out) {
    text = trimView(text);
    if (text.empty()) return false;
    uint64_t v = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        v = v * 10 + static_cast<unsigned>(c - '0');
        if (v > std::numeric_limits<uint32_t>::max()) return false;
    }
    out = static_cast<uint32_t>(v);
    return true;
}

bool parsePiece(std::string_view piece, EventCodeRange& range) {
    size_t dash = piece.find('-');
    if (dash == std::string_view::npos) {
        if (!parseCode(piece, range.first)) return false;
        range.second = range.first;
        return true;
    }
    std::string_view high = piece.substr(dash + 1);
    if (high.find('-') != std::string_view::npos) return false;  // three parts or more
    // A reversed range is kept as written: it holds no code, and the rest of
    // the list still applies.
    return parseCode(piece.substr(0, dash), range.first) && parseCode(high, range.second);
}

// A message-bearing key marks the channel's rules as decided once the message
// is formatted; a pattern with "{" does not.
bool needsFormattedMessage(const std::string& key, const std::string& pattern, bool whitelist) {
    bool messageKey = key.find("Message") != std::string::npos ||
                      (whitelist && key.find("Object Type") != std::string::npos);
    return messageKey && pattern.find('{') == std::string::npos;
}

bool ruleHasKey(const FilterList& list, const std::string& key) {
    for (const auto& rule : list.rules)
        for (const auto& k : rule.keys)
            if (k.key == key) return true;
    return false;
}

}  // namespace

bool parseFilterValue(const std::string& settingName, const std::string& value, bool renderXml, FilterRuleMap& rule) {
    rule.clear();
    if (value.find('=') == std::string::npos) {
        rule[kLegacyEventIdKey] = value;
        return true;
    }
    const char* name = settingName.c_str();
    unsigned xmlCounter = 0;
    std::string_view rest = trimView(value);
    while (!rest.empty()) {
        size_t eq = rest.find('=');
        if (eq == std::string_view::npos) {
            LOG_ERROR("Processing: '%s', failed to find key in string data '%s'", name, std::string(rest).c_str());
            rule.clear();
            return false;
        }
        std::string key(trimView(rest.substr(0, eq)));
        LOG_DEBUG("Processing: '%s', key '%s' in '%s'", name, key.c_str(), value.c_str());
        bool keep = true;
        if (key == kXmlRegexKey) {
            std::string renamed = key + std::to_string(xmlCounter++);
            LOG_DEBUG("Internal name change: '%s' to '%s'", key.c_str(), renamed.c_str());
            key = renamed;
            if (!renderXml) {
                LOG_WARN("%s detected, but stanza was not configured to render XML. Ignoring XML portion of "
                         "whitelist/blacklist.",
                         kXmlRegexKey);
                keep = false;
            }
        }
        std::string_view regex = trimView(rest.substr(eq + 1));
        char delimiter = regex.empty() ? ' ' : regex[0];
        size_t close = regex.empty() ? std::string_view::npos : regex.find(delimiter, 1);
        if (close == std::string_view::npos) {
            LOG_ERROR("Processing: '%s', failed to find delimeter '%c' in regex '%s' for key '%s '. Discarding.", name,
                      delimiter, std::string(regex).c_str(), key.c_str());
            rule.clear();
            return false;
        }
        std::string pattern(regex.substr(1, close - 1));
        LOG_DEBUG("Procesing: '%s', Regex for this key is '%s'", name, pattern.c_str());
        if (keep) rule[key] = std::move(pattern);
        rest = trimView(regex.substr(close + 1));
    }
    return true;
}

EventCodeRanges parseEventCodeList(const std::string& text, const std::string& settingName) {
    EventCodeRanges ranges;
    if (trimView(text) == "*") {
        ranges.emplace_back(0u, std::numeric_limits<uint32_t>::max());
        return ranges;
    }
    for (const std::string& piece : split(text, ',')) {
        EventCodeRange range;
        if (!parsePiece(piece, range)) {
            LOG_ERROR("Processing: '%s' [legacy], range error found in '%s'. Discarding entire range.",
                      settingName.c_str(), text.c_str());
            return {};
        }
        ranges.push_back(range);
    }
    return ranges;
}

void addFilterRule(const std::string& settingName, const FilterRuleMap& rule, bool whitelist, FilterList& list,
                   bool& needsMessage) {
    const char* name = settingName.c_str();
    FilterRule compiled;
    for (const auto& [key, pattern] : rule) {
        if (key == kLegacyEventIdKey) {
            if (whitelist)
                LOG_DEBUG("Processing: '%s', legacy event IDs = %s created list", name, pattern.c_str());
            else
                LOG_DEBUG("Processing: '%s', legacy event IDs = %s create list", name, pattern.c_str());
            EventCodeRanges ranges = parseEventCodeList(pattern, settingName);
            if (!ranges.empty()) list.codeLists.push_back(std::move(ranges));
            continue;
        }
        std::string error;
        std::shared_ptr<const Regex> regex = Regex::compile(pattern, error);
        if (!regex) {
            if (whitelist)
                LOG_ERROR("Processing: '%s', invalid Regex: key=%s, regex=%s, Discarding.", name, key.c_str(),
                          pattern.c_str());
            else
                LOG_ERROR("Processing: '%s', invalid Regex: key='%s', regex='%s', Discarding.", name, key.c_str(),
                          pattern.c_str());
            continue;
        }
        LOG_INFO("Processing: '%s', key='%s', regex='%s'", name, key.c_str(), pattern.c_str());
        if (needsFormattedMessage(key, pattern, whitelist)) needsMessage = true;
        if (pattern.find('{') != std::string::npos) compiled.namesTokens = true;
        compiled.keys.push_back(KeyRegex{key, pattern, std::move(regex)});
    }
    // A rule left without keys would pass every event: it is not kept.
    if (!compiled.keys.empty()) list.rules.push_back(std::move(compiled));
}

void checkExcludedField(const std::string& name, const FilterList& whitelist, const FilterList& blacklist) {
    const auto* end = std::end(kStandardFields);
    if (std::find_if(std::begin(kStandardFields), end, [&](const char* f) { return name == f; }) == end)
        LOG_WARN("Excluding field: '%s' not a standard field entry", name.c_str());
    if (name == "EventCode" && (whitelist.hasCodeRanges() || blacklist.hasCodeRanges()))
        LOG_WARN("Excluding field: '%s' conflicts with whitelist/blacklist entry", name.c_str());
    if (ruleHasKey(whitelist, name)) LOG_WARN("Excluding field: '%s' conflicts with whitelist entry", name.c_str());
    if (ruleHasKey(blacklist, name)) LOG_WARN("Excluding field: '%s' conflicts with blacklist entry", name.c_str());
}

}  // namespace skorva
