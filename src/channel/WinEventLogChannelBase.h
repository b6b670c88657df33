#pragma once
// The reader of one event log channel: the parts shared by every reader
// (event-code filter, rendering, message formatting, SID translation).
// The members of each concern are implemented in their own source file:
//   ChannelEventFilter.cpp   includeEvent
//   EventRendering.cpp       setRenderContext, renderEvent, renderEventAsXml, setEventProperties
//   MessageFormatting.cpp    getPublisherMetadata, formatMessageByFlag, cleanMetadataHandleCache
//   SidTranslation.cpp       translateSidLocally

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "channel/EventRecord.h"
#include "channel/EvtApi.h"
#include "monitor/ChannelSettings.h"

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

    // ---- Event-code filter
    bool includeEvent(uint32_t eventCode) const;

    // ---- Rendering
    bool setRenderContext();
    // Renders the system values of `record` into `buffer` (grown when too small;
    // `bufferSize` is its size in bytes). Returns a Win32 error code, 0 on success.
    DWORD renderEvent(EventRecord& record, std::vector<uint8_t>& buffer, DWORD& bufferSize);
    DWORD renderEventAsXml(EventRecord& record);
    DWORD setEventProperties(const EVT_VARIANT* values, EventRecord& record);

    // ---- Message formatting
    EVT_HANDLE getPublisherMetadata(const std::wstring& publisher);
    bool formatMessageByFlag(EVT_HANDLE metadata, EVT_HANDLE event, DWORD flag, DWORD messageId,
                             std::wstring& out);
    void cleanMetadataHandleCache(bool force);

    // ---- SID translation: rewrites the SIDs of the XML (when not empty) or else
    // of the message with their account names.
    void translateSidLocally(std::string& message, std::wstring& xml);

    // ---- Directory translation (bound to a domain controller by a later stage).
    virtual bool transADObject(const std::wstring& object, std::wstring& out, DWORD offeredFormat,
                               DWORD wantedFormat);

protected:
    std::string channelName_;
    std::wstring channelNameW_;
    ChannelSettings settings_;

    // Rendering state
    UniqueEvtHandle renderContext_;
    std::map<uint16_t, std::wstring> eventTypeNames_;
};

}  // namespace skorva
