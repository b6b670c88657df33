#include "filter/FilterSet.h"

#include <algorithm>
#include <vector>

#include "filter/EventTextLookup.h"
#include "platform/Logger.h"

namespace skorva {

namespace {

bool inRanges(const std::vector<EventCodeRanges>& lists, uint32_t code) {
    for (const EventCodeRanges& ranges : lists)
        for (const EventCodeRange& r : ranges)
            if (r.first <= code && code <= r.second) return true;
    return false;
}

// True when every key of `rule` finds its value in the text and matches it.
bool rulePasses(const FilterRule& rule, std::string_view text, bool xml, const char* fn, const char* notPassing) {
    for (const KeyRegex& k : rule.keys) {
        LOG_DEBUG("%s: Applying regex...", fn);
        std::string_view value;
        if (!lookupEventValue(text, xml, k.key, value)) {
            LOG_DEBUG("%s: key value not found, not %s", fn, notPassing);
            return false;
        }
        if (!k.regex->search(value)) {
            LOG_DEBUG("%s: regex failed, not %s", fn, notPassing);
            return false;
        }
    }
    return true;
}

}  // namespace

bool FilterSet::admitsCode(uint32_t code, const char* fn, const std::string& channel) const {
    LOG_DEBUG("%s: Whitelist/Blacklist Processing for stanza/channel: %s", fn, channel.c_str());
    if (whitelist.hasCodeRanges()) {
        LOG_DEBUG("%s: Processing legacy whitelist", fn);
        if (!inRanges(whitelist.codeLists, code)) return false;
        LOG_DEBUG("%s: event code %d is in range, whitelisting.", fn, static_cast<int>(code));
    }
    if (blacklist.hasCodeRanges()) {
        LOG_DEBUG("%s: Processing legacy blacklist", fn);
        if (inRanges(blacklist.codeLists, code)) {
            LOG_DEBUG("%s: event code %d is in range, blacklisting.", fn, static_cast<int>(code));
            return false;
        }
    }
    return true;
}

bool FilterSet::admitsText(std::string_view text, bool xml, const char* fn) const {
    if (!whitelist.rules.empty()) {
        LOG_DEBUG("%s: Processing regex whitelist", fn);
        const auto passes = [&](const FilterRule& rule) { return rulePasses(rule, text, xml, fn, "whitelisting"); };
        if (std::none_of(whitelist.rules.begin(), whitelist.rules.end(), passes)) return false;
        LOG_DEBUG("%s: regex's passed, whitelisting", fn);
    }
    if (blacklist.rules.empty()) return true;
    LOG_DEBUG("%s: Processing regex blacklist", fn);
    for (const FilterRule& rule : blacklist.rules) {
        if (rulePasses(rule, text, xml, fn, "blacklisting")) {
            LOG_DEBUG("%s: regex's passed, blacklisting", fn);
            return false;
        }
    }
    return true;
}

bool FilterSet::admitsValue(const std::string& key, const std::string& value, const char* fn) const {
    const auto patternOf = [&key](const FilterRule& rule) -> const Regex* {
        for (const KeyRegex& k : rule.keys)
            if (k.key == key) return k.regex.get();
        return nullptr;
    };
    const auto namesKey = [&](const FilterRule& rule) { return patternOf(rule) != nullptr; };
    const std::vector<FilterRule>& white = whitelist.rules;
    if (!white.empty() && std::all_of(white.begin(), white.end(), namesKey)) {
        LOG_DEBUG("%s: Processing regex whitelist", fn);
        const bool passed = std::any_of(white.begin(), white.end(), [&](const FilterRule& rule) {
            LOG_DEBUG("%s: Applying regex...", fn);
            return patternOf(rule)->search(value);
        });
        if (!passed) {
            LOG_DEBUG("%s: regex failed, not whitelisting", fn);
            return false;
        }
        LOG_DEBUG("%s: regex's passed, whitelisting key=%s, value=%s", fn, key.c_str(), value.c_str());
    }
    bool checked = false;
    for (const FilterRule& rule : blacklist.rules) {
        if (rule.keys.size() != 1 || rule.keys[0].key != key) continue;
        if (!checked) LOG_DEBUG("%s: Processing regex blacklist", fn);
        checked = true;
        LOG_DEBUG("%s: Applying regex...", fn);
        if (rule.keys[0].regex->search(value)) {
            LOG_DEBUG("%s: regex's passed, blacklisting key=%s value=%s", fn, key.c_str(), value.c_str());
            return false;
        }
    }
    if (checked) LOG_DEBUG("%s: regex failed, not blacklisting", fn);
    return true;
}

}  // namespace skorva
