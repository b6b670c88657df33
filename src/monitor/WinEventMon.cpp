#include "monitor/WinEventMon.h"

#include <windows.h>

#include "checkpoint/CheckpointPath.h"
#include "platform/Logger.h"
#include "platform/Strings.h"

namespace skorva {

WinEventMon::WinEventMon(std::wstring checkpointDir)
    : checkpointDir_(checkpointDir.empty() ? defaultCheckpointDirectory() : std::move(checkpointDir)) {
    LOG_DEBUG("WinEventMon instance created");
}

// The channels go first: each writes its final checkpoint, and only then is the
// stream closed. A daemon that ends the program once it has read "</stream>"
// then finds every event it received checkpointed.
WinEventMon::~WinEventMon() {
    LOG_DEBUG("WinEventMon instance destroyed");
    work_.clear();
    stanzaChannels_.clear();
    channels_.clear();
    writer_.reset();
}

WinEventLogChannel* WinEventMon::findChannel(std::string_view channelName) const {
    auto it = channels_.find(asciiLower(channelName));
    return it == channels_.end() ? nullptr : it->second.get();
}

std::string WinEventMon::channelFromStanza(const std::string& stanzaName) {
    size_t pos = stanzaName.find("://");
    if (pos != std::string::npos) return stanzaName.substr(pos + 3);
    pos = stanzaName.find(':');
    if (pos != std::string::npos) return stanzaName.substr(pos + 1);
    return stanzaName;
}

bool WinEventMon::include_event(const std::string& text, const std::string& stanzaName) const {
    static const char* const fn = "WinEventMon::include_event";
    LOG_DEBUG("%s: Whitelist/Blacklist Processing for stanza: %s", fn, stanzaName.c_str());
    auto it = stanzaChannels_.find(stanzaName);
    const WinEventLogChannel* channel =
        it != stanzaChannels_.end() ? it->second : findChannel(channelFromStanza(stanzaName));
    if (!channel) return true;
    const ChannelSettings& s = channel->settings();
    if (s.filters.onMessage) return true;  // decided by includeMessageKeys once the message is formatted
    return s.filters.admitsText(text, s.renderXml, fn);
}

bool WinEventMon::systemIsVistaOrLater() const {
    OSVERSIONINFOEXW info = {};
    info.dwOSVersionInfoSize = sizeof info;
    info.dwMajorVersion = 6;
    ULONGLONG mask = 0;
    mask = ::VerSetConditionMask(mask, VER_MAJORVERSION, VER_GREATER_EQUAL);
    mask = ::VerSetConditionMask(mask, VER_MINORVERSION, VER_GREATER_EQUAL);
    mask = ::VerSetConditionMask(mask, VER_SERVICEPACKMAJOR, VER_GREATER_EQUAL);
    return ::VerifyVersionInfoW(&info, VER_MAJORVERSION | VER_MINORVERSION | VER_SERVICEPACKMAJOR, mask) != FALSE;
}

}  // namespace skorva
