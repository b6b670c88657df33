#include <string_view>

#include "filter/EventTextLookup.h"
#include "monitor/WinEventMon.h"
#include "platform/Logger.h"
#include "platform/Strings.h"

namespace skorva {

namespace {

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

bool WinEventMon::rulesAdmit(const ChannelSettings& s, std::string_view text, const char* fn) {
    if (!s.whitelist.rules.empty()) {
        LOG_DEBUG("%s: Processing regex whitelist", fn);
        bool admitted = false;
        for (const FilterRule& rule : s.whitelist.rules) {
            if (rulePasses(rule, text, s.renderXml, fn, "whitelisting")) {
                LOG_DEBUG("%s: regex's passed, whitelisting", fn);
                admitted = true;
                break;
            }
        }
        if (!admitted) return false;
    }
    if (s.blacklist.rules.empty()) return true;
    LOG_DEBUG("%s: Processing regex blacklist", fn);
    for (const FilterRule& rule : s.blacklist.rules) {
        if (rulePasses(rule, text, s.renderXml, fn, "blacklisting")) {
            LOG_DEBUG("%s: regex's passed, blacklisting", fn);
            return false;
        }
    }
    return true;
}

bool WinEventMon::include_event(const std::string& text, const std::string& stanzaName) const {
    static const char* const fn = "WinEventMon::include_event";
    LOG_DEBUG("%s: Whitelist/Blacklist Processing for stanza: %s", fn, stanzaName.c_str());
    auto it = stanzaChannels_.find(stanzaName);
    const WinEventLogChannel* channel =
        it != stanzaChannels_.end() ? it->second : findChannel(channelFromStanza(stanzaName));
    if (!channel) return true;
    const ChannelSettings& s = channel->settings();
    if (s.filterOnMessage) return true;  // decided by includeMessageKeys once the message is formatted
    return rulesAdmit(s, text, fn);
}

}  // namespace skorva
