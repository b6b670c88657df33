#include "monitor/WinEventMon.h"

#include <windows.h>

#include <charconv>

#include "checkpoint/CheckpointPath.h"
#include "directory/SidLookupCache.h"
#include "eventlog/WinEventLogAPIInitializer.h"
#include "modinput/ConfigInput.h"
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
    dispatcher_.clear();
    stanzaChannels_.clear();
    channels_.clear();
    output_.close();
}

bool WinEventMon::init() {
    static const char* const fn = "WinEventMon::init";
    LOG_DEBUG("%s: Initailizing WinEventMon", fn);
    bool ok = enumEvtLogChannels();
    if (ok) {
        ConfigXmlStreamingParser parser;
        const InputConfig config = readConfigFromStdin(parser);
        ok = configure(config.stanzas);
    }
    if (!ok) LOG_INFO("%s: Cannot configure windows event log monitor", fn);
    return ok;
}

bool WinEventMon::configure(const std::map<std::string, Stanza>& stanzas) {
    static const char* const kFn = "WinEventMon::configure";
    const bool vista = systemIsVistaOrLater();
    bool anyStanza = false;
    for (const auto& [name, stanza] : stanzas) {
        if (name == "default") continue;
        if (StanzaValues(stanza.params).disabled()) continue;
        anyStanza = true;

        if (asciiLower(name).compare(0, 12, "wineventlog:") != 0) {
            LOG_ERROR("%s Found a stanza named '%s' without the WinEventLog prefix, this will not be processed.", kFn,
                      name.c_str());
            continue;
        }
        const std::string written = channelFromStanza(name);
        const std::string lower = asciiLower(written);
        auto known = knownChannels().find(lower);
        if (known == knownChannels().end()) {
            LOG_ERROR("%s: Failed to find Event Log with channel name='%s'", kFn, written.c_str());
            continue;
        }
        if (channels_.count(lower)) {
            LOG_ERROR("%s: Duplicate channels found in config. channel name='%s'", kFn, lower.c_str());
            continue;
        }
        ChannelSettings settings;
        settings.stanzaName = name;
        stanzaReader_.read(stanza, known->second, written, vista, settings);
        auto channel = std::make_unique<WinEventLogChannel>(known->second, std::move(settings));
        stanzaChannels_[name] = channel.get();
        channels_.emplace(lower, std::move(channel));
    }
    if (stanzaReader_.sidCacheRead()) SidLookupCache::instance().configure(stanzaReader_.sidCacheSettings());
    return anyStanza;
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

bool WinEventMon::start() {
    LOG_DEBUG("%s: Starting WinEventMon", "WinEventMon::start");
    knownChannels().clear();
    WinEventLogAPIInitializer::initWinEvtApi();
    // A run cut short by a stream the daemon stopped reading is a failed run.
    return dispatcher_.run(channels_) && !output_.broken();
}

void WinEventMon::stop() {
    LOG_DEBUG("%s: Signaling stopping", "WinEventMon::stop");
    dispatcher_.stop();
}

DWORD WINAPI WinEventMon::ProcessChannelWorker(void* param) {
    ChannelWork& w = *static_cast<ChannelWork*>(param);
    w.monitor->dispatcher_.firstPass(w);
    return 0;
}

void CALLBACK WinEventMon::ProcessChannelWaitWorker(void* param, BOOLEAN /*timedOut*/) {
    ChannelWork& w = *static_cast<ChannelWork*>(param);
    w.monitor->dispatcher_.signalled(w);
}

bool WinEventMon::include_event(std::string_view text, const std::string& stanzaName,
                                TokenRules tokenRules) const {
    static const char* const fn = "WinEventMon::include_event";
    LOG_DEBUG("%s: Whitelist/Blacklist Processing for stanza: %s", fn, stanzaName.c_str());
    auto it = stanzaChannels_.find(stanzaName);
    const WinEventLogChannel* channel =
        it != stanzaChannels_.end() ? it->second : findChannel(channelFromStanza(stanzaName));
    if (!channel) return true;
    const ChannelSettings& s = channel->settings();
    if (s.filters.onMessage) return true;  // decided by includeMessageKeys once the message is formatted
    return s.filters.admitsText(text, s.renderXml, fn, tokenRules);
}

bool WinEventMon::processEvent(ChannelWork& work, EventRecord& event, OutputScratch& scratch) {
    const WinEventLogChannel& channel = *work.channel;
    const ChannelSettings& settings = channel.settings();
    if (event.noMessage) ++work.emptyMsg;

    if (!include_event(event.text, settings.stanzaName, event.tokenRules)) return false;
    if (settings.filters.onMessage && !includeMessageKeys(channel, event.text, event.tokenRules)) return false;

    char time[24];
    const std::string_view timeText(time, std::to_chars(time, time + sizeof time, event.time).ptr - time);
    // The stanza's own elements are made once, not with every event.
    EventEnvelope& envelope = scratch.envelope;
    if (!envelope.fits(settings.stanzaName, settings.source, settings.sourceType, settings.index))
        envelope.set(settings.stanzaName, settings.source, settings.sourceType, settings.index);
    // A failure part way leaves no half event in the block.
    const size_t mark = scratch.block.size();
    try {
        EventStreamWriter::appendEvent(scratch.block, envelope, timeText, event.text);
    } catch (...) {
        scratch.block.resize(mark);
        throw;
    }
    return true;
}

bool WinEventMon::flushOutput(OutputScratch& scratch) {
    if (scratch.block.empty()) return !output_.broken();
    const bool ok = output_.write(scratch.block);
    scratch.block.clear();
    // A stream nobody reads ends the run: nothing more can reach the daemon.
    if (!ok) stop();
    return ok;
}

// The message is part of the event's text by now: the rules are decided as on
// any other event, rule by rule ("Object Type" is read from the message).
bool WinEventMon::includeMessageKeys(const WinEventLogChannel& channel, std::string_view text,
                                     TokenRules tokenRules) const {
    static const char* const fn = "WinEventMon::includeMessageKeys";
    const ChannelSettings& settings = channel.settings();
    LOG_DEBUG("%s: Whitelist/Blacklist Processing for stanza: %s", fn, settings.stanzaName.c_str());
    return settings.filters.admitsText(text, settings.renderXml, fn, tokenRules);
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
