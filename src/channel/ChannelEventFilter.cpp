#include <algorithm>

#include "channel/WinEventLogChannel.h"
#include "channel/WinEventLogChannelBase.h"
#include "platform/Logger.h"

namespace skorva {

namespace {

bool inRanges(const std::vector<EventCodeRanges>& lists, uint32_t code) {
    for (const EventCodeRanges& ranges : lists)
        for (const EventCodeRange& r : ranges)
            if (r.first <= code && code <= r.second) return true;
    return false;
}

}  // namespace

// Runs before rendering, so an excluded event costs no rendering, formatting or look-ups.
bool WinEventLogChannelBase::includeEvent(uint32_t eventCode) const {
    static const char* const fn = "WinEventLogChannelBase::includeEvent";
    LOG_DEBUG("%s: Whitelist/Blacklist Processing for stanza/channel: %s", fn, channelName_.c_str());
    if (settings_.whitelist.hasCodeRanges()) {
        LOG_DEBUG("%s: Processing legacy whitelist", fn);
        if (!inRanges(settings_.whitelist.codeLists, eventCode)) return false;
        LOG_DEBUG("%s: event code %d is in range, whitelisting.", fn, static_cast<int>(eventCode));
    }
    if (settings_.blacklist.hasCodeRanges()) {
        LOG_DEBUG("%s: Processing legacy blacklist", fn);
        if (inRanges(settings_.blacklist.codeLists, eventCode)) {
            LOG_DEBUG("%s: event code %d is in range, blacklisting.", fn, static_cast<int>(eventCode));
            return false;
        }
    }
    return true;
}

// Only one value of the event is known here, so it excludes the event only when
// it settles the rules by itself: every whitelist rule names the key and none of
// their patterns matches, or a blacklist rule of that key alone matches.
// Anything else is left to the rules on the whole event.
bool WinEventLogChannel::includeEventWithEvtcodeMessage(const std::string& key, const std::string& value) const {
    static const char* const fn = "WinEventLogChannel::includeEventWithEvtcodeMessage";
    LOG_DEBUG("%s: Whitelist/Blacklist Processing for stanza: %s", fn, settings_.stanzaName.c_str());
    const auto patternOf = [&key](const FilterRule& rule) -> const Regex* {
        for (const KeyRegex& k : rule.keys)
            if (k.key == key) return k.regex.get();
        return nullptr;
    };
    const auto namesKey = [&](const FilterRule& rule) { return patternOf(rule) != nullptr; };
    const std::vector<FilterRule>& white = settings_.whitelist.rules;
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
    for (const FilterRule& rule : settings_.blacklist.rules) {
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
