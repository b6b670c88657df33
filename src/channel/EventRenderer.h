#pragma once
// A channel's rendering of one event: its system values through the render
// context, its XML, and the classic fields made of both (with the texts the
// message formatter gives).

#include <cstdint>
#include <string>
#include <vector>

#include "channel/ClassicFields.h"
#include "channel/EventRecord.h"
#include "channel/MessageFormatter.h"
#include "config/ChannelSettings.h"

namespace skorva {

class EventRenderer {
public:
    // The system values the render context selects, by position.
    enum SystemValue : DWORD {
        kRecordId,
        kTimeCreated,
        kChannel,
        kProvider,
        kEventId,
        kLevel,
        kComputer,
        kUserId,
        kTask,
        kOpcode,
        kKeywords,
        kSystemValueCount
    };

    EventRenderer(const std::string& channelName, const ChannelSettings& settings, MessageFormatter& formatter);
    EventRenderer(const EventRenderer&) = delete;
    EventRenderer& operator=(const EventRenderer&) = delete;

    bool setRenderContext();
    // Closes the render context now; the error of a failed close, else 0.
    DWORD closeRenderContext();
    // The system values of `record` into `buffer` (grown when too small;
    // `bufferSize` is the size offered to the service). A Win32 error, 0 on success.
    DWORD renderEvent(EventRecord& record, std::vector<uint8_t>& buffer, DWORD& bufferSize);
    DWORD renderEventAsXml(EventRecord& record);
    // The record's number, time and classic fields from its values.
    DWORD setEventProperties(const EVT_VARIANT* values, EventRecord& record);

private:
    FieldValue systemValue(ClassicField field, const EVT_VARIANT* values, EventRecord& record,
                           std::wstring_view& value, std::wstring& scratch);
    FieldValue formattedValue(ClassicField field, const EVT_VARIANT* values, EVT_HANDLE metadata,
                              EventRecord& record, std::wstring_view& value, std::wstring& text);

    const std::string& channelName_;
    const ChannelSettings& settings_;
    MessageFormatter& formatter_;
    UniqueEvtHandle renderContext_;
    std::vector<uint8_t> xmlBuffer_;  // kept between events
    UserFields user_;                 // reused for each event's user SID
    std::wstring fieldText_;          // one field's text before it joins the record
};

}  // namespace skorva
