#include <string_view>

#include "monitor/EventTextLookup.h"
#include "monitor/WinEventMon.h"
#include "platform/Logger.h"
#include "platform/Strings.h"

namespace skorva {

namespace {

const char* const kFn = "WinEventMon::include_event";

// True when every key of `rule` finds its value in the text and matches it.
bool rulePasses(const FilterRule& rule, std::string_view text, bool xml, const char* notPassing) {
    for (const KeyRegex& k : rule.keys) {
        LOG_DEBUG("%s: Applying regex...", kFn);
        std::string_view value;
        if (!lookupEventValue(text, xml, k.key, value)) {
            LOG_DEBUG("%s: key value not found, not %s", kFn, notPassing);
            return false;
        }
        if (!k.regex->search(value)) {
            LOG_DEBUG("%s: regex failed, not %s", kFn, notPassing);
            return false;
        }
    }
    return true;
}

}  // namespace

bool WinEventMon::include_event(const std::string& text, const std::string& stanzaName) const {
    LOG_DEBUG("%s: Whitelist/Blacklist Processing for stanza: %s", kFn, stanzaName.c_str());
    auto it = stanzaChannels_.find(stanzaName);
    const WinEventLogChannel* channel =
        it != stanzaChannels_.end() ? it->second : findChannel(channelFromStanza(stanzaName));
    if (!channel) return true;
    const ChannelSettings& s = channel->settings();
    if (s.filterOnMessage) return true;  // decided key by key once the message is formatted

    if (!s.whitelist.rules.empty()) {
        LOG_DEBUG("%s: Processing regex whitelist", kFn);
        bool admitted = false;
        for (const FilterRule& rule : s.whitelist.rules) {
            if (rulePasses(rule, text, s.renderXml, "whitelisting")) {
                LOG_DEBUG("%s: regex's passed, whitelisting", kFn);
                admitted = true;
                break;
            }
        }
        if (!admitted) return false;
    }
    if (s.blacklist.rules.empty()) return true;
    LOG_DEBUG("%s: Processing regex blacklist", kFn);
    for (const FilterRule& rule : s.blacklist.rules) {
        if (rulePasses(rule, text, s.renderXml, "blacklisting")) {
            LOG_DEBUG("%s: regex's passed, blacklisting", kFn);
            return false;
        }
    }
    return true;
}

}  // namespace skorva
