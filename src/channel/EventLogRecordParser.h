#pragma once
// The records of a ReadEventLogW buffer, taken apart as Microsoft documents
// EVENTLOGRECORD: a fixed part of 56 bytes, the source and computer names, the
// user SID, the strings, the data, padding to a DWORD boundary, and the length
// again. Every length and offset is checked against the record it belongs to:
// a damaged record is reported, never read out of bounds.
//
// No Windows header: the parsing also builds natively (sanitizers, fuzzing).

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace skorva {

// One record; its texts and bytes point into the buffer it was read into.
struct EventLogRecordView {
    uint32_t length = 0;
    uint32_t recordNumber = 0;
    uint32_t timeGenerated = 0;  // seconds since 1970-01-01 UTC
    uint32_t eventId = 0;        // the qualifiers in the high word
    uint16_t eventType = 0;
    uint16_t eventCategory = 0;
    std::u16string_view source;
    std::u16string_view computer;
    const uint8_t* sid = nullptr;  // not aligned ("no DWORD alignment enforced for UserSid")
    uint32_t sidLength = 0;
    std::vector<std::u16string_view> strings;  // each NUL-terminated in the record
    const uint8_t* data = nullptr;
    uint32_t dataLength = 0;

    uint16_t eventCode() const { return static_cast<uint16_t>(eventId & 0xFFFF); }
};

class EventLogRecordParser {
public:
    enum class Result {
        Record,   // `out` holds the next record
        End,      // the buffer is used up
        Damaged,  // the record is unusable (why()); the next one can still be found
        Broken,   // the record's length is unusable: nothing after it can be found
    };

    EventLogRecordParser(const uint8_t* buffer, size_t size) : buffer_(buffer), size_(size) {}

    // The next record; `out` is overwritten (its string list reused). After
    // Broken every call answers End.
    Result next(EventLogRecordView& out);
    // What was wrong with the last Damaged or Broken record.
    const char* why() const { return why_; }
    // Where the last record began in the buffer.
    size_t recordOffset() const { return recordOffset_; }

private:
    Result damaged(const char* why) {
        why_ = why;
        return Result::Damaged;
    }
    bool checkContent(const uint8_t* record, uint32_t end, EventLogRecordView& out);

    const uint8_t* buffer_;
    size_t size_;
    size_t offset_ = 0;
    size_t recordOffset_ = 0;
    const char* why_ = "";
};

// The SID's text ("S-1-5-21-...") appended to `out`; false (nothing appended)
// when the bytes are not a SID of exactly that length.
bool appendSidText(const uint8_t* sid, uint32_t length, std::wstring& out);

}  // namespace skorva
