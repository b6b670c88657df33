#pragma once
// The reader of one event log channel: the parts shared by every reader, each
// a unit of its own behind these names: the event-code filter (the channel's
// FilterSet), rendering (EventRenderer), message formatting with the publisher
// cache (MessageFormatter), the classic path's message files
// (LegacyMessageFiles), SID translation (SidTextTranslator), the event
// collector subscription check (CollectorSubscriptionCheck) and the domain
// controller binding (EvtDC) with its translations (AdObjectTranslator).

#include <cstdint>
#include <string>
#include <vector>

#include "channel/EventRecord.h"
#include "channel/EventRenderer.h"
#include "channel/LegacyMessageFiles.h"
#include "channel/MessageFormatter.h"
#include "config/ChannelSettings.h"
#include "directory/AdObjectTranslator.h"
#include "directory/EvtDC.h"
#include "directory/SidTextTranslator.h"
#include "eventlog/EvtApi.h"

namespace skorva {

class WinEventLogChannelBase {
public:
    WinEventLogChannelBase(std::string channelName, ChannelSettings settings);
    virtual ~WinEventLogChannelBase();
    WinEventLogChannelBase(const WinEventLogChannelBase&) = delete;
    WinEventLogChannelBase& operator=(const WinEventLogChannelBase&) = delete;

    const std::string& channelName() const { return channelName_; }
    const std::wstring& channelNameW() const { return channelNameW_; }
    const ChannelSettings& settings() const { return settings_; }
    ChannelSettings& settings() { return settings_; }

    // ---- Event-code filter: runs before rendering, so an excluded event costs
    // no rendering, formatting or look-ups.
    bool includeEvent(uint32_t eventCode) const;

    // ---- Rendering
    bool setRenderContext() { return renderer_.setRenderContext(); }
    // Renders the system values of `record` into `buffer` (grown when too small;
    // `bufferSize` is its size in bytes). Returns a Win32 error code, 0 on success.
    DWORD renderEvent(EventRecord& record, std::vector<uint8_t>& buffer, DWORD& bufferSize) {
        return renderer_.renderEvent(record, buffer, bufferSize);
    }
    DWORD renderEventAsXml(EventRecord& record) { return renderer_.renderEventAsXml(record); }
    DWORD setEventProperties(const EVT_VARIANT* values, EventRecord& record) {
        return renderer_.setEventProperties(values, record);
    }

    // ---- Message formatting
    EVT_HANDLE getPublisherMetadata(const std::wstring& publisher) {
        return formatter_.getPublisherMetadata(publisher);
    }
    bool formatMessageByFlag(EVT_HANDLE metadata, EVT_HANDLE event, DWORD flag, DWORD messageId, std::wstring& out) {
        return formatter_.formatMessageByFlag(metadata, event, flag, messageId, out);
    }
    // Also lets go of the classic message files unused for a while.
    void cleanMetadataHandleCache(bool force) {
        formatter_.cleanMetadataHandleCache(force);
        messageFiles_.sweep(force);
    }
    // The error of the last formatMessageByFlag call (0 when it succeeded).
    DWORD lastFormatError() const { return formatter_.lastFormatError(); }

    // ---- Event collector subscriptions that write into `channelName`: false
    // when one delivers what `eventFormat` cannot read. One that delivers
    // rendered text turns "raw_event" into "rendered_event" and marks the
    // channel's events pre-rendered for the formatting.
    bool enumLocalWECSubscriptions(const std::string& channelName, std::string& eventFormat);
    bool getWECSubscriptionProperty(EC_HANDLE subscription, EC_SUBSCRIPTION_PROPERTY_ID id,
                                    std::vector<uint8_t>& value);
    bool preRendered() const { return formatter_.preRendered(); }

    // ---- Directory translation through the channel's domain controller:
    // `offeredFormat` 0 for a GUID in braces, 1 for a SID; `wantedFormat` a
    // DS_NAME_FORMAT.
    virtual bool transADObject(const std::wstring& object, std::wstring& out, DWORD offeredFormat,
                               DWORD wantedFormat);
    EvtDC& evtDC() { return dc_; }

protected:
    std::string channelName_;
    std::wstring channelNameW_;
    ChannelSettings settings_;
    MessageFormatter formatter_{channelName_};
    EventRenderer renderer_{channelName_, settings_, formatter_};
    SidTextTranslator sids_;
    LegacyMessageFiles messageFiles_{channelName_};  // the classic path's messages
    EvtDC dc_;
    AdObjectTranslator adTranslator_{dc_};
};

}  // namespace skorva
