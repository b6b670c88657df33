#pragma once
// The event log monitor: the channels known to the system, one reader per
// configured stanza, and the whitelist/blacklist decision for their events.
// Members by concern, each implemented in its own source file:
//   ChannelEnumeration.cpp   enumEvtLogChannels
//   WinEventMonConfigure.cpp configure
//   WinEventMonFilter.cpp    include_event
//   (lifecycle and workers: init, start, stop, processLogChannel, added later)

#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "channel/WinEventLogChannel.h"
#include "modinput/InputConfig.h"
#include "monitor/ChannelSettings.h"

namespace skorva {

class WinEventMon {
public:
    // Lower-cased channel name to its reader.
    using ChannelMap = std::map<std::string, std::unique_ptr<WinEventLogChannel>>;
    // Look-up key (lower-cased name) to the name as the system spells it.
    using KnownChannelMap = std::map<std::string, std::string>;

    // `checkpointDir` empty: defaultCheckpointDirectory().
    explicit WinEventMon(std::wstring checkpointDir = std::wstring());
    virtual ~WinEventMon();
    WinEventMon(const WinEventMon&) = delete;
    WinEventMon& operator=(const WinEventMon&) = delete;

    // ---- Channel enumeration: fills the known-channel map. False only when no
    // listing could be started at all; channels found before a failure stay.
    bool enumEvtLogChannels();
    const KnownChannelMap& knownChannels() const { return knownChannels_; }
    KnownChannelMap& knownChannels() { return knownChannels_; }

    // ---- Configuration: one channel per accepted stanza. True when some stanza
    // other than "default" and not disabled was present.
    bool configure(const std::map<std::string, Stanza>& stanzas);
    const ChannelMap& channels() const { return channels_; }
    // By channel name, any case; null when not configured.
    WinEventLogChannel* findChannel(std::string_view channelName) const;
    // The process-wide SID cache settings, from the first configured stanza.
    SidCacheSettings sidCacheSettings() const { return sidCacheSettings_; }
    const std::wstring& checkpointDirectory() const { return checkpointDir_; }

    // ---- Whitelist/blacklist rules on the rendered text of one event of the
    // stanza's channel (classic key=value text or XML, as the channel renders).
    bool include_event(const std::string& text, const std::string& stanzaName) const;

    // The channel name a stanza name carries: after "://", else after ":".
    static std::string channelFromStanza(const std::string& stanzaName);

protected:
    // Vista or later: decides whether XML rendering is possible.
    virtual bool systemIsVistaOrLater() const;

private:
    bool enumRegistryChannels();
    bool enumApiChannels();
    // Reads one stanza's settings into `s`; `channel` is the system's spelling,
    // `written` the stanza's.
    void readSettings(const Stanza& stanza, const std::string& channel, const std::string& written, bool vista,
                      ChannelSettings& s);

    std::wstring checkpointDir_;
    KnownChannelMap knownChannels_;
    ChannelMap channels_;
    // Stanza name to its channel: the per-event look-up needs no string built.
    std::map<std::string, WinEventLogChannel*, std::less<>> stanzaChannels_;
    SidCacheSettings sidCacheSettings_;
    bool sidCacheRead_ = false;
};

}  // namespace skorva
