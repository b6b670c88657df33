#pragma once
// Reads one stanza's parameters into a channel's settings (defaults, clamps,
// the words booleans accept, filters), and the process-wide SID cache settings
// from the first stanza read.

#include <string>

#include "config/ChannelSettings.h"
#include "config/StanzaValues.h"
#include "modinput/InputConfig.h"

namespace skorva {

class StanzaReader {
public:
    explicit StanzaReader(const std::wstring& checkpointDir) : checkpointDir_(checkpointDir) {}

    // `channel` is the system's spelling of the channel, `written` the stanza's.
    void read(const Stanza& stanza, const std::string& channel, const std::string& written, bool vista,
              ChannelSettings& s);
    // True once a stanza was read: the SID cache settings are its.
    bool sidCacheRead() const { return sidCacheRead_; }
    const SidCacheSettings& sidCacheSettings() const { return sidCacheSettings_; }

private:
    void readPolling(const StanzaValues& v, ChannelSettings& s) const;
    void readResolution(const StanzaValues& v, ChannelSettings& s) const;
    void readRendering(const StanzaValues& v, const std::string& written, bool vista, ChannelSettings& s) const;
    void readDcKind(const StanzaValues& v, ChannelSettings& s) const;
    void readCaches(const StanzaValues& v, ChannelSettings& s);
    void logSummary(const std::string& channel, const ChannelSettings& s) const;
    void readFilters(const StanzaValues& v, ChannelSettings& s) const;
    void readExcludedFields(const StanzaValues& v, ChannelSettings& s) const;

    const std::wstring& checkpointDir_;
    SidCacheSettings sidCacheSettings_;
    bool sidCacheRead_ = false;
};

}  // namespace skorva
