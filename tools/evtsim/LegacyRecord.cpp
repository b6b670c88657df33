// An event as the classic event log API returns it: the EVENTLOGRECORD layout of
// the EVENTLOGRECORD documentation ("Event Log Records"), built from the event XML.
#include <algorithm>
#include <cstring>

#include "Legacy.h"
#include "Text.h"
#include "Xml.h"

namespace evtsim {

namespace {

constexpr uint64_t kUnixEpochFileTime = 116444736000000000ull;  // 1970-01-01 as a FILETIME count
constexpr uint64_t kAuditFailure = 0x0010000000000000ull;      // StandardEventKeywords
constexpr uint64_t kAuditSuccess = 0x0020000000000000ull;

std::string_view textOf(const XmlNode* n) { return n ? std::string_view(n->text) : std::string_view(); }
std::string_view attrOf(const XmlNode* n, std::string_view name) {
    const std::string* v = n ? n->attr(name) : nullptr;
    return v ? std::string_view(*v) : std::string_view();
}
uint64_t numberOf(std::string_view text) { return parseUnsigned(text).value_or(0); }

// The classic type of an event: the audit keywords first, then the level as the
// service maps ReportEvent's types to levels (error 2, warning 3, information 4,
// success and audits 0); a critical event is an error, verbose and custom levels
// read as information. A classic source's undefined type comes back as
// EVENTLOG_SUCCESS on Vista and later (Wine's conformance test,
// dlls/advapi32/tests/eventlog.c, test_readwrite).
WORD eventType(uint64_t level, uint64_t keywords) {
    if (keywords & kAuditFailure) return EVENTLOG_AUDIT_FAILURE;
    if (keywords & kAuditSuccess) return EVENTLOG_AUDIT_SUCCESS;
    switch (level) {
    case 0: return EVENTLOG_SUCCESS;
    case 1:
    case 2: return EVENTLOG_ERROR_TYPE;
    case 3: return EVENTLOG_WARNING_TYPE;
    default: return EVENTLOG_INFORMATION_TYPE;
    }
}

DWORD unixSeconds(std::string_view systemTime) {
    const uint64_t ft = parseSystemTime(systemTime).value_or(0);
    return ft <= kUnixEpochFileTime ? 0 : static_cast<DWORD>((ft - kUnixEpochFileTime) / 10000000ull);
}

// Appends `utf8` as UTF-16 with its terminator at `at`; returns the offset after it.
size_t putString(std::vector<BYTE>& out, size_t at, std::string_view utf8) {
    const size_t units = wideLength(utf8);
    auto* dest = reinterpret_cast<wchar_t*>(out.data() + at);
    toWideInto(utf8, dest, units);
    dest[units] = L'\0';
    return at + (units + 1) * sizeof(wchar_t);
}

size_t wideBytes(std::string_view utf8) { return (wideLength(utf8) + 1) * sizeof(wchar_t); }

}  // namespace

void layoutEventLogRecord(std::string_view eventXml, uint64_t recordId, std::vector<BYTE>& out) {
    XmlNode doc;
    const XmlNode* event = parseXml(eventXml, doc) ? &doc.children[0] : nullptr;
    const XmlNode* system = event ? event->child("System") : nullptr;
    auto sys = [&](std::string_view name) { return system ? system->child(name) : nullptr; };

    // Classic sources keep their name in EventSourceName; manifest providers have Name only.
    const XmlNode* provider = sys("Provider");
    std::string_view source = attrOf(provider, "EventSourceName");
    if (source.empty()) source = attrOf(provider, "Name");
    const std::string_view computer = textOf(sys("Computer"));
    const XmlNode* eventId = sys("EventID");

    std::vector<std::string_view> strings;
    std::string data, sid;
    if (const XmlNode* ed = event ? event->child("EventData") : nullptr) {
        for (const auto& c : ed->children) {
            if (c.localName() == "Data") strings.emplace_back(c.text);
            else if (c.localName() == "Binary" && !parseBinary(c.text, data)) data.clear();
        }
    } else if (const XmlNode* ud = event ? event->child("UserData") : nullptr; ud && !ud->children.empty()) {
        for (const auto& c : ud->children[0].children) strings.emplace_back(c.text);
    }
    if (!parseSid(attrOf(sys("Security"), "UserID"), sid)) sid.clear();
    strings.resize(std::min<size_t>(strings.size(), 0xFFFF));

    // Fixed part, the two names, the SID, the strings, the data, padding to a DWORD
    // boundary, and the length again. The SID is not aligned: on Vista and later
    // "there is no DWORD alignment enforced for UserSid" (Wine's conformance test),
    // so readers must go by the offsets.
    size_t size = sizeof(EVENTLOGRECORD) + wideBytes(source) + wideBytes(computer);
    const size_t sidOffset = size;
    size += sid.size();
    const size_t stringOffset = size;
    for (std::string_view s : strings) size += wideBytes(s);
    const size_t dataOffset = size;
    size += data.size();
    size = (size + 3) / 4 * 4 + sizeof(DWORD);

    out.assign(size, 0);
    EVENTLOGRECORD r{};
    r.Length = static_cast<DWORD>(size);
    r.Reserved = 0x654c664c;  // ELF_LOG_SIGNATURE, "LfLe"
    r.RecordNumber = static_cast<DWORD>(recordId);
    r.TimeGenerated = r.TimeWritten = unixSeconds(attrOf(sys("TimeCreated"), "SystemTime"));
    r.EventID = static_cast<DWORD>((numberOf(attrOf(eventId, "Qualifiers")) & 0xFFFF) << 16 | (numberOf(textOf(eventId)) & 0xFFFF));
    r.EventType = eventType(numberOf(textOf(sys("Level"))), numberOf(textOf(sys("Keywords"))));
    r.NumStrings = static_cast<WORD>(strings.size());
    r.EventCategory = static_cast<WORD>(numberOf(textOf(sys("Task"))));
    r.StringOffset = static_cast<DWORD>(stringOffset);
    r.UserSidLength = static_cast<DWORD>(sid.size());
    r.UserSidOffset = static_cast<DWORD>(sidOffset);
    r.DataLength = static_cast<DWORD>(data.size());
    r.DataOffset = static_cast<DWORD>(dataOffset);
    std::memcpy(out.data(), &r, sizeof r);
    size_t at = putString(out, sizeof r, source);
    putString(out, at, computer);
    std::memcpy(out.data() + sidOffset, sid.data(), sid.size());
    at = stringOffset;
    for (std::string_view s : strings) at = putString(out, at, s);
    std::memcpy(out.data() + dataOffset, data.data(), data.size());
    std::memcpy(out.data() + size - sizeof(DWORD), &r.Length, sizeof(DWORD));
}

}  // namespace evtsim
