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

// A rule naming tokens that was decided on the event as read is not asked again.
bool decides(const FilterRule& rule, TokenRules decided) {
    return decided == TokenRules::Undecided || !rule.namesTokens;
}

bool isMessageKey(std::string_view key) { return key == "Message" || key == kObjectTypeKey; }

const Regex* patternOf(const FilterRule& rule, std::string_view key) {
    for (const KeyRegex& k : rule.keys)
        if (k.key == key) return k.regex.get();
    return nullptr;
}

// False when `value` settles the whitelist against the event: every rule
// considered names `key` and none matches.
bool whitelistAdmitsValue(const std::vector<FilterRule>& rules, std::string_view key, std::string_view value,
                          const char* fn, TokenRules decided) {
    const auto considered = [decided](const FilterRule& rule) { return decides(rule, decided); };
    bool any = false;
    for (const FilterRule& rule : rules) {
        if (!considered(rule)) continue;
        if (!patternOf(rule, key)) return true;
        any = true;
    }
    if (!any) return true;
    LOG_DEBUG("%s: Processing regex whitelist", fn);
    const bool passed = std::any_of(rules.begin(), rules.end(), [&](const FilterRule& rule) {
        if (!considered(rule)) return false;
        LOG_DEBUG("%s: Applying regex...", fn);
        return patternOf(rule, key)->search(value);
    });
    if (!passed) {
        LOG_DEBUG("%s: regex failed, not whitelisting", fn);
        return false;
    }
    LOG_DEBUG("%s: regex's passed, whitelisting key=%s, value=%.*s", fn, std::string(key).c_str(),
              static_cast<int>(value.size()), value.data());
    return true;
}

// True when a rule of `key` alone matches `value`.
bool blacklistRejectsValue(const std::vector<FilterRule>& rules, std::string_view key, std::string_view value,
                           const char* fn) {
    bool checked = false;
    for (const FilterRule& rule : rules) {
        if (rule.keys.size() != 1 || rule.keys[0].key != key) continue;
        if (!checked) LOG_DEBUG("%s: Processing regex blacklist", fn);
        checked = true;
        LOG_DEBUG("%s: Applying regex...", fn);
        if (rule.keys[0].regex->search(value)) {
            LOG_DEBUG("%s: regex's passed, blacklisting key=%s value=%.*s", fn, std::string(key).c_str(),
                      static_cast<int>(value.size()), value.data());
            return true;
        }
    }
    if (checked) LOG_DEBUG("%s: regex failed, not blacklisting", fn);
    return false;
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

bool FilterSet::admitsText(std::string_view text, bool xml, const char* fn, TokenRules decided) const {
    const auto considered = [decided](const FilterRule& rule) { return decides(rule, decided); };
    if (!whitelist.rules.empty()) {
        LOG_DEBUG("%s: Processing regex whitelist", fn);
        const auto passes = [&](const FilterRule& rule) {
            return considered(rule) && rulePasses(rule, text, xml, fn, "whitelisting");
        };
        if (decided != TokenRules::Whitelisted && std::none_of(whitelist.rules.begin(), whitelist.rules.end(), passes))
            return false;
        LOG_DEBUG("%s: regex's passed, whitelisting", fn);
    }
    if (blacklist.rules.empty()) return true;
    LOG_DEBUG("%s: Processing regex blacklist", fn);
    for (const FilterRule& rule : blacklist.rules) {
        if (considered(rule) && rulePasses(rule, text, xml, fn, "blacklisting")) {
            LOG_DEBUG("%s: regex's passed, blacklisting", fn);
            return false;
        }
    }
    return true;
}

bool FilterSet::admitsValue(std::string_view key, std::string_view value, const char* fn, TokenRules decided) const {
    if (decided != TokenRules::Whitelisted && !whitelistAdmitsValue(whitelist.rules, key, value, fn, decided))
        return false;
    return !blacklistRejectsValue(blacklist.rules, key, value, fn);
}

bool FilterSet::hasTokenRules() const {
    const auto names = [](const FilterRule& rule) { return rule.namesTokens; };
    return std::any_of(whitelist.rules.begin(), whitelist.rules.end(), names) ||
           std::any_of(blacklist.rules.begin(), blacklist.rules.end(), names);
}

bool FilterSet::hasMessageKeys() const {
    const auto names = [](const FilterRule& rule) {
        return std::any_of(rule.keys.begin(), rule.keys.end(), [](const KeyRegex& k) { return isMessageKey(k.key); });
    };
    return std::any_of(whitelist.rules.begin(), whitelist.rules.end(), names) ||
           std::any_of(blacklist.rules.begin(), blacklist.rules.end(), names);
}

bool FilterSet::admitsAsRead(std::string_view text, bool xml, const char* fn, TokenRules& verdict,
                             const std::string*& pattern) const {
    verdict = TokenRules::NotWhitelisted;
    for (const FilterRule& rule : whitelist.rules) {
        if (rule.namesTokens && rulePasses(rule, text, xml, fn, "whitelisting")) {
            verdict = TokenRules::Whitelisted;
            break;
        }
    }
    for (const FilterRule& rule : blacklist.rules) {
        if (!rule.namesTokens || !rulePasses(rule, text, xml, fn, "blacklisting")) continue;
        pattern = &rule.keys.front().pattern;
        for (const KeyRegex& k : rule.keys)
            if (k.pattern.find('{') != std::string::npos) {
                pattern = &k.pattern;
                break;
            }
        return false;
    }
    return true;
}

bool FilterSet::blacklistsMessage(std::string_view text, bool xml, const char* fn) const {
    for (std::string_view key : {std::string_view("Message"), kObjectTypeKey}) {
        std::string_view value;
        const bool found = xml ? lookupXmlValue(text, key, value) : lookupMessageValue(text, key, value);
        if (found && blacklistRejectsValue(blacklist.rules, key, value, fn)) return true;
    }
    return false;
}

bool FilterSet::blacklistsMessageValue(std::string_view value, const char* fn) const {
    return blacklistRejectsValue(blacklist.rules, "Message", value, fn);
}

}  // namespace skorva
