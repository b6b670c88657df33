#pragma once
// The classic text of an event: its fields' names, their order, and the
// settings that leave one out. The modern and the legacy reader both fill an
// event's fields through addClassicFields, so their texts cannot drift apart;
// each only says what it has for a field.

#include <cstdint>
#include <string>
#include <string_view>

#include "channel/EventRecord.h"
#include "config/ChannelSettings.h"
#include "directory/SidProps.h"

namespace skorva {

// In the order of the text; "$Timestamp" is written as its value alone.
enum class ClassicField {
    Timestamp,
    LogName,
    EventCode,
    EventType,
    ComputerName,
    User,
    Sid,
    SidType,
    SourceName,
    Type,
    RecordNumber,
    Keywords,
    TaskCategory,
    OpCode,
    Message,
};

std::wstring_view classicFieldName(ClassicField field);
// Left out by a suppress switch (the message is added even when empty).
bool classicFieldSuppressed(ClassicField field, const ChannelSettings& settings);

// What a reader has for one field.
enum class FieldValue {
    Present,  // the value given
    Absent,   // no such field for this event
    Abort,    // the event went bad: stop here
};

// `n` in decimal, written into `scratch`.
std::wstring_view decimalText(uint64_t n, std::wstring& scratch);

// "User" (domain\account), "Sid" and "SidType" of an event's user SID. The
// properties are reused from event to event.
class UserFields {
public:
    // False when the SID could not be processed: no user fields then.
    bool process(PSID sid, bool lookup);
    void clear() { ok_ = false; }
    FieldValue value(ClassicField field, std::wstring_view& value, std::wstring& scratch) const;

private:
    SidProps sid_;
    bool ok_ = false;
};

// Adds the fields from the timestamp to the opcode in their order, asking
// `valueOf(field, value, scratch)` for each one the settings keep (`value` may
// point into `scratch`). False when the reader aborted.
template <class ValueOf>
bool addClassicFields(EventRecord& record, const ChannelSettings& settings, std::wstring& scratch,
                      ValueOf&& valueOf) {
    for (int i = 0; i < static_cast<int>(ClassicField::Message); ++i) {
        const auto field = static_cast<ClassicField>(i);
        if (classicFieldSuppressed(field, settings)) continue;
        std::wstring_view value;
        switch (valueOf(field, value, scratch)) {
        case FieldValue::Present: record.addField(classicFieldName(field), value, settings.excludedFields); break;
        case FieldValue::Absent: break;
        case FieldValue::Abort: return false;
        }
    }
    return true;
}

// The last field: the record's message.
inline void addMessageField(EventRecord& record, const ChannelSettings& settings) {
    record.addField(classicFieldName(ClassicField::Message), record.message, settings.excludedFields);
}

}  // namespace skorva
