#include "channel/LegacyEventXml.h"

#include <cstdint>

#include "platform/Strings.h"

namespace skorva {

namespace {

constexpr wchar_t kHex[] = L"0123456789ABCDEF";

void appendPadded(unsigned n, int width, std::wstring& out) {
    wchar_t digits[8];
    for (int i = width - 1; i >= 0; --i, n /= 10) digits[i] = static_cast<wchar_t>(L'0' + n % 10);
    out.append(digits, static_cast<size_t>(width));
}

// Text and attribute values escaped; characters XML 1.0 cannot carry become U+FFFD.
template <class Text>
void appendEscaped(Text text, std::wstring& out) {
    for (auto c : text) {
        const auto u = static_cast<uint32_t>(c);
        switch (u) {
        case '&': out += L"&amp;"; break;
        case '<': out += L"&lt;"; break;
        case '>': out += L"&gt;"; break;
        case '\'': out += L"&apos;"; break;
        case '"': out += L"&quot;"; break;
        default:
            if (u < 0x20 && u != '\t' && u != '\n' && u != '\r')
                out += static_cast<wchar_t>(0xFFFD);
            else
                out += static_cast<wchar_t>(u);
        }
    }
}

void element(const wchar_t* name, std::u16string_view text, std::wstring& out) {
    out += L'<';
    out += name;
    out += L'>';
    appendEscaped(text, out);
    out += L"</";
    out += name;
    out += L'>';
}

// "2024-01-31T21:05:07.0000000Z" from seconds since 1970 (the date counted in
// 400-year eras from 0000-03-01, so leap days fall at the end of a year).
void appendSystemTime(uint32_t seconds, std::wstring& out) {
    const int64_t z = static_cast<int64_t>(seconds / 86400) + 719468;
    const int64_t era = z / 146097;
    const unsigned doe = static_cast<unsigned>(z - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    const unsigned day = doy - (153 * mp + 2) / 5 + 1;
    const unsigned month = mp < 10 ? mp + 3 : mp - 9;
    const unsigned year = static_cast<unsigned>(yoe + era * 400 + (month <= 2 ? 1 : 0));
    const unsigned secs = seconds % 86400;
    appendPadded(year, 4, out);
    out += L'-';
    appendPadded(month, 2, out);
    out += L'-';
    appendPadded(day, 2, out);
    out += L'T';
    appendPadded(secs / 3600, 2, out);
    out += L':';
    appendPadded(secs / 60 % 60, 2, out);
    out += L':';
    appendPadded(secs % 60, 2, out);
    out += L".0000000Z";
}

// The level the event log service gives a classic event of this type.
unsigned levelOf(uint16_t type) {
    switch (type) {
    case kTypeError: return 2;
    case kTypeWarning: return 3;
    case kTypeInformation: return 4;
    default: return 0;  // success and the audits
    }
}

void appendSystem(const EventLogRecordView& r, std::wstring_view channel, std::wstring& out) {
    out += L"<System><Provider Name='";
    appendEscaped(r.source, out);
    out += L"'/><EventID Qualifiers='";
    appendDecimal(r.eventId >> 16, out);
    out += L"'>";
    appendDecimal(r.eventCode(), out);
    out += L"</EventID><Level>";
    appendDecimal(levelOf(r.eventType), out);
    out += L"</Level><Task>";
    appendDecimal(r.eventCategory, out);
    out += L"</Task>";
    // The audit types are the audit keywords; other types carry none the record knows.
    if (r.eventType == kTypeAuditSuccess) out += L"<Keywords>0x20000000000000</Keywords>";
    if (r.eventType == kTypeAuditFailure) out += L"<Keywords>0x10000000000000</Keywords>";
    out += L"<TimeCreated SystemTime='";
    appendSystemTime(r.timeGenerated, out);
    out += L"'/><EventRecordID>";
    appendDecimal(r.recordNumber, out);
    out += L"</EventRecordID><Channel>";
    appendEscaped(channel, out);
    out += L"</Channel>";
    element(L"Computer", r.computer, out);
    const size_t mark = out.size();
    out += L"<Security UserID='";
    if (appendSidText(r.sid, r.sidLength, out)) {
        out += L"'/>";
    } else {
        out.resize(mark);
        out += L"<Security/>";
    }
    out += L"</System>";
}

}  // namespace

void renderLegacyEventXml(const EventLogRecordView& r, std::wstring_view channel, std::wstring& out) {
    out.assign(L"<Event xmlns='http://schemas.microsoft.com/win/2004/08/events/event'>");
    appendSystem(r, channel, out);
    if (r.strings.empty() && !r.dataLength) {
        out += L"<EventData/></Event>";
        return;
    }
    out += L"<EventData>";
    for (std::u16string_view s : r.strings) element(L"Data", s, out);
    if (r.dataLength) {
        out += L"<Binary>";
        for (uint32_t i = 0; i < r.dataLength; ++i) {
            out += kHex[r.data[i] >> 4];
            out += kHex[r.data[i] & 0xF];
        }
        out += L"</Binary>";
    }
    out += L"</EventData></Event>";
}

}  // namespace skorva
