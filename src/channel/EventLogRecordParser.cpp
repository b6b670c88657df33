#include "channel/EventLogRecordParser.h"

#include <cstring>

#include "platform/Strings.h"

namespace skorva {

namespace {

// Offsets of the fixed part (EVENTLOGRECORD).
constexpr uint32_t kLength = 0;
constexpr uint32_t kReserved = 4;
constexpr uint32_t kRecordNumber = 8;
constexpr uint32_t kTimeGenerated = 12;
constexpr uint32_t kEventId = 20;
constexpr uint32_t kEventType = 24;
constexpr uint32_t kNumStrings = 26;
constexpr uint32_t kEventCategory = 28;
constexpr uint32_t kStringOffset = 36;
constexpr uint32_t kUserSidLength = 40;
constexpr uint32_t kUserSidOffset = 44;
constexpr uint32_t kDataLength = 48;
constexpr uint32_t kDataOffset = 52;
constexpr uint32_t kFixedSize = 56;
constexpr uint32_t kSignature = 0x654c664c;  // "LfLe"
// The fixed part, two empty names and the closing length.
constexpr uint32_t kSmallestRecord = kFixedSize + 2 * 2 + 4;

uint32_t dword(const uint8_t* p) {
    uint32_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

uint16_t word(const uint8_t* p) {
    uint16_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// The NUL-terminated UTF-16 text at `at`, which must end before `end`; the
// offset after its terminator, or 0 when it does not.
uint32_t text(const uint8_t* record, uint32_t at, uint32_t end, std::u16string_view& out) {
    if (at % 2 != 0) return 0;
    for (uint32_t i = at; i + 2 <= end; i += 2) {
        if (record[i] == 0 && record[i + 1] == 0) {
            out = std::u16string_view(reinterpret_cast<const char16_t*>(record + at), (i - at) / 2);
            return i + 2;
        }
    }
    return 0;
}

// `length` bytes at `offset` lie before `end` (no wrap-around).
bool within(uint32_t offset, uint32_t length, uint32_t end) { return offset <= end && length <= end - offset; }

}  // namespace

EventLogRecordParser::Result EventLogRecordParser::next(EventLogRecordView& out) {
    if (offset_ >= size_) return Result::End;
    recordOffset_ = offset_;
    const size_t left = size_ - offset_;
    const uint8_t* record = buffer_ + offset_;
    const uint32_t length = left >= 4 ? dword(record + kLength) : 0;
    // Without a trustworthy length the next record cannot be found.
    if (left < kSmallestRecord || length < kSmallestRecord || length > left || length % 4 != 0 ||
        dword(record + length - 4) != length) {
        offset_ = size_;
        why_ = "its length does not hold";
        return Result::Broken;
    }
    offset_ += length;
    if (dword(record + kReserved) != kSignature) return damaged("it lacks the record signature");
    out.length = length;
    out.recordNumber = dword(record + kRecordNumber);
    out.timeGenerated = dword(record + kTimeGenerated);
    out.eventId = dword(record + kEventId);
    out.eventType = word(record + kEventType);
    out.eventCategory = word(record + kEventCategory);
    return checkContent(record, length - 4, out) ? Result::Record : Result::Damaged;
}

// The variable part, everything before `end` (the closing length).
bool EventLogRecordParser::checkContent(const uint8_t* record, uint32_t end, EventLogRecordView& out) {
    const uint32_t afterSource = text(record, kFixedSize, end, out.source);
    if (!afterSource || !text(record, afterSource, end, out.computer)) {
        why_ = "its source or computer name is not terminated";
        return false;
    }
    out.sidLength = dword(record + kUserSidLength);
    const uint32_t sidOffset = dword(record + kUserSidOffset);
    out.sid = out.sidLength ? record + sidOffset : nullptr;
    if (out.sidLength && (!within(sidOffset, out.sidLength, end) || out.sidLength < 8 ||
                          out.sidLength != 8 + 4u * record[sidOffset + 1])) {
        why_ = "its user SID lies outside the record or is not a SID";
        return false;
    }
    out.dataLength = dword(record + kDataLength);
    const uint32_t dataOffset = dword(record + kDataOffset);
    out.data = out.dataLength ? record + dataOffset : nullptr;
    if (out.dataLength && !within(dataOffset, out.dataLength, end)) {
        why_ = "its data lies outside the record";
        return false;
    }
    const uint16_t count = word(record + kNumStrings);
    out.strings.clear();
    uint32_t at = dword(record + kStringOffset);
    for (uint16_t i = 0; i < count; ++i) {
        std::u16string_view s;
        at = at <= end ? text(record, at, end, s) : 0;
        if (!at) {
            why_ = "its strings run past the record";
            return false;
        }
        out.strings.push_back(s);
    }
    return true;
}

bool appendSidText(const uint8_t* sid, uint32_t length, std::wstring& out) {
    // Revision, sub-authority count, a 6-byte big-endian authority, then the
    // sub-authorities (little-endian DWORDs).
    if (!sid || length < 8 || sid[0] != 1 || sid[1] > 15 || length != 8 + 4u * sid[1]) return false;
    uint64_t authority = 0;
    for (int i = 2; i < 8; ++i) authority = authority << 8 | sid[i];
    out += L"S-1-";
    if (authority >> 32) {
        static const wchar_t kHex[] = L"0123456789ABCDEF";
        out += L"0x";
        for (int i = 2; i < 8; ++i) {
            out += kHex[sid[i] >> 4];
            out += kHex[sid[i] & 0xF];
        }
    } else {
        appendDecimal(authority, out);
    }
    for (uint32_t i = 0; i < sid[1]; ++i) {
        out += L'-';
        appendDecimal(dword(sid + 8 + 4 * i), out);
    }
    return true;
}

}  // namespace skorva
