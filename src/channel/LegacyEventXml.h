#pragma once
// A classic record as event XML (the event schema the modern API renders), with
// the fields the record has: provider, event id and qualifiers, level (from the
// event type, as the event log service maps ReportEvent's types), category as
// task, audit keywords, time, record number, channel, computer, user, the
// strings as unnamed data and the binary data.
//
// No Windows header: builds natively too.

#include <string>
#include <string_view>

#include "channel/EventLogRecordParser.h"

namespace skorva {

// Replaces `out` with the XML of `record` read from `channel`.
void renderLegacyEventXml(const EventLogRecordView& record, std::wstring_view channel, std::wstring& out);

// The classic event types (EVENTLOGRECORD.EventType).
enum LegacyEventType : uint16_t {
    kTypeSuccess = 0,
    kTypeError = 1,
    kTypeWarning = 2,
    kTypeInformation = 4,
    kTypeAuditSuccess = 8,
    kTypeAuditFailure = 16,
};

}  // namespace skorva
