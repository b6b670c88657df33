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

bool WinEventLogChannel::includeEventWithEvtcodeMessage(const std::string& key, const std::string& value) const {
    static const char* const fn = "WinEventLogChannel::includeEventWithEvtcodeMessage";
    LOG_DEBUG("%s: Whitelist/Blacklist Processing for stanza: %s", fn, settings_.stanzaName.c_str());
    auto white = settings_.whitelist.messageKeyRules.find(key);
    if (white != settings_.whitelist.messageKeyRules.end()) {
        LOG_DEBUG("%s: Processing regex whitelist", fn);
        LOG_DEBUG("%s: Applying regex...", fn);
        if (!white->second.regex->search(value)) {
            LOG_DEBUG("%s: regex failed, not whitelisting", fn);
            return false;
        }
        LOG_DEBUG("%s: regex's passed, whitelisting key=%s, value=%s", fn, key.c_str(), value.c_str());
    }
    auto black = settings_.blacklist.messageKeyRules.find(key);
    if (black != settings_.blacklist.messageKeyRules.end()) {
        LOG_DEBUG("%s: Processing regex blacklist", fn);
        LOG_DEBUG("%s: Applying regex...", fn);
        if (!black->second.regex->search(value)) {
            LOG_DEBUG("%s: regex failed, not blacklisting", fn);
            return true;
        }
        LOG_DEBUG("%s: regex's passed, blacklisting key=%s value=%s", fn, key.c_str(), value.c_str());
        return false;
    }
    return true;
}

}  // namespace skorva
