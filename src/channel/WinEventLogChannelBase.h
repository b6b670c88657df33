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
#include <memory>
#include <string>
#include <vector>

#include "channel/EventRecord.h"
#include "eventlog/EvtApi.h"
#include "channel/WinEventMetadataHandle.h"
#include "directory/SidProps.h"
#include "config/ChannelSettings.h"

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
    // The error of the last formatMessageByFlag call (0 when it succeeded).
    DWORD lastFormatError() const { return lastFormatError_; }
    // Formats the event message into record.message (with the fallbacks);
    // false when no message could be had.
    bool formatEventMessage(EVT_HANDLE metadata, EventRecord& record);

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
    std::vector<uint8_t> xmlBuffer_;   // reused by renderEventAsXml
    SidProps sidProps_;                // reused for each event's user SID
    std::wstring fieldText_;           // one field's text before it joins the record

    // Message formatting state
    struct PublisherEntry {
        PublisherEntry(EVT_HANDLE h, uint64_t t) : handle(h), lastUse(t) {}
        WinEventMetadataHandle handle;
        uint64_t lastUse;
    };
    // Builds the message from the event's own string data (placeholder fallback).
    bool placeholderMessage(EVT_HANDLE event, std::wstring& out, DWORD& dataCount);
    std::map<std::wstring, PublisherEntry> publisherCache_;
    uint64_t lastMetadataSweep_ = 0;
    static constexpr DWORD kFixedFormatChars = 2048;
    wchar_t fixedFormatBuffer_[kFixedFormatChars] = {};
    std::unique_ptr<wchar_t[]> heapFormatBuffer_;   // replaces the fixed one once a text does not fit
    wchar_t* formatBuffer_ = fixedFormatBuffer_;
    DWORD formatBufferChars_ = kFixedFormatChars;
    DWORD lastFormatError_ = 0;
    bool preRendered_ = false;          // this event's own rendering information answered
    UniqueEvtHandle userRenderContext_; // the event's data values
    std::vector<uint8_t> userValuesBuffer_;

    // SID translation state
    std::string sidWorkText_;
};

}  // namespace skorva
