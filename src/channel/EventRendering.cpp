#include "channel/WinEventLogChannelBase.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <cwchar>
#include <new>

#include "platform/Clock.h"
#include "platform/Logger.h"
#include "platform/Strings.h"

namespace skorva {

namespace {

// The values the render context selects, by position.
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

const wchar_t* const kSystemPaths[kSystemValueCount] = {
    L"Event/System/EventRecordID",   L"Event/System/TimeCreated/@SystemTime",
    L"Event/System/Channel",         L"Event/System/Provider/@Name",
    L"Event/System/EventID",         L"Event/System/Level",
    L"Event/System/Computer",        L"Event/System/Security/@UserID",
    L"Event/System/Task",            L"Event/System/Opcode",
    L"Event/System/Keywords"};

constexpr DWORD kNoMessageId = static_cast<DWORD>(-1);
constexpr uint64_t kFileTimeUnixEpoch = 116444736000000000ull;  // 100 ns ticks, 1601 to 1970

bool isString(const EVT_VARIANT& v) { return v.Type == EvtVarTypeString && v.StringVal; }

// Resizes a render buffer to the size the service asked for; false when that much
// memory cannot be had (a size reported wrongly must not end the process).
bool growTo(std::vector<uint8_t>& buffer, size_t bytes) {
    try {
        buffer.resize(bytes);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

// A number's decimal digits, without allocating.
class Decimal {
public:
    explicit Decimal(uint64_t n) {
        wchar_t* p = digits_ + sizeof(digits_) / sizeof(digits_[0]);
        do {
            *--p = static_cast<wchar_t>(L'0' + n % 10);
            n /= 10;
        } while (n);
        first_ = p;
    }
    operator std::wstring_view() const {
        return std::wstring_view(first_, static_cast<size_t>(digits_ + sizeof(digits_) / sizeof(digits_[0]) - first_));
    }

private:
    wchar_t digits_[20];
    const wchar_t* first_;
};

constexpr uint64_t kTicksPerHour = 36000000000ull;   // 100 ns ticks
constexpr uint64_t kBiasRecheckMs = 60000;            // a changed time zone shows within a minute

bool toSystemTime(uint64_t fileTime, SYSTEMTIME& st) {
    FILETIME ft;
    ft.dwLowDateTime = static_cast<DWORD>(fileTime);
    ft.dwHighDateTime = static_cast<DWORD>(fileTime >> 32);
    return ::FileTimeToSystemTime(&ft, &st) != FALSE;
}

bool toLocalSystemTime(uint64_t fileTime, SYSTEMTIME& local) {
    SYSTEMTIME utc;
    return toSystemTime(fileTime, utc) && ::SystemTimeToTzSpecificLocalTime(nullptr, &utc, &local);
}

uint64_t asFileTime(const SYSTEMTIME& st) {
    FILETIME ft;
    if (!::SystemTimeToFileTime(&st, &ft)) return 0;
    return (static_cast<uint64_t>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
}

// Local time through the offset of the event's UTC hour. The time-zone conversion
// is slow (notably under Wine) and events come in runs of the same hour, so the
// offset is kept per hour: only when it is the same at both ends of the hour (no
// daylight-saving change inside it), and re-checked after a minute in case the
// machine's time zone was changed.
class LocalTimeCache {
public:
    bool convert(uint64_t fileTime, SYSTEMTIME& local) {
        const uint64_t hour = fileTime / kTicksPerHour;
        const uint64_t now = tickNow();
        if (hour != hour_ || now >= recheckAt_) {
            hour_ = hour;
            recheckAt_ = now + kBiasRecheckMs;
            valid_ = measure(hour * kTicksPerHour, bias_);
            int64_t endBias = 0;
            valid_ = valid_ && measure((hour + 1) * kTicksPerHour - 10000, endBias) && endBias == bias_;
        }
        if (!valid_) return toLocalSystemTime(fileTime, local);
        return toSystemTime(static_cast<uint64_t>(static_cast<int64_t>(fileTime) + bias_), local);
    }

private:
    // Local minus UTC at `fileTime` (a whole millisecond), in 100 ns ticks.
    static bool measure(uint64_t fileTime, int64_t& bias) {
        SYSTEMTIME local;
        if (!toLocalSystemTime(fileTime, local)) return false;
        const uint64_t localTicks = asFileTime(local);
        if (localTicks == 0) return false;
        bias = static_cast<int64_t>(localTicks - fileTime);
        return true;
    }

    uint64_t hour_ = ~0ull;
    uint64_t recheckAt_ = 0;
    int64_t bias_ = 0;
    bool valid_ = false;
};

wchar_t* putTwoDigits(wchar_t* p, unsigned v) {
    p[0] = static_cast<wchar_t>(L'0' + v / 10);
    p[1] = static_cast<wchar_t>(L'0' + v % 10);
    return p + 2;
}

// "01/31/2024 09:05:07 PM" in local time.
bool formatLocalTimestamp(uint64_t fileTime, std::wstring& out) {
    thread_local LocalTimeCache cache;
    SYSTEMTIME local;
    if (!cache.convert(fileTime, local)) return false;
    if (local.wYear >= 1000 && local.wYear <= 9999) {
        // The C library's "%m/%d/%Y %I:%M:%S %p", without its per-call locale work.
        wchar_t text[22];
        wchar_t* p = putTwoDigits(text, local.wMonth);
        *p++ = L'/';
        p = putTwoDigits(p, local.wDay);
        *p++ = L'/';
        p = putTwoDigits(p, local.wYear / 100);
        p = putTwoDigits(p, local.wYear % 100);
        *p++ = L' ';
        const unsigned hour12 = local.wHour % 12 == 0 ? 12 : local.wHour % 12;
        p = putTwoDigits(p, hour12);
        *p++ = L':';
        p = putTwoDigits(p, local.wMinute);
        *p++ = L':';
        p = putTwoDigits(p, local.wSecond);
        *p++ = L' ';
        *p++ = local.wHour < 12 ? L'A' : L'P';
        *p++ = L'M';
        out.assign(text, static_cast<size_t>(p - text));
        return true;
    }
    std::tm tm = {};
    tm.tm_year = local.wYear - 1900;
    tm.tm_mon = local.wMonth - 1;
    tm.tm_mday = local.wDay;
    tm.tm_hour = local.wHour;
    tm.tm_min = local.wMinute;
    tm.tm_sec = local.wSecond;
    tm.tm_wday = local.wDayOfWeek;
    wchar_t text[128];
    const size_t n = std::wcsftime(text, 128, L"%m/%d/%Y %I:%M:%S %p", &tm);
    if (n == 0) return false;
    out.assign(text, n);
    return true;
}

}  // namespace

bool WinEventLogChannelBase::setRenderContext() {
    static const char* const kFn = "WinEventLogChannelBase::setRenderContext";
    LOG_DEBUG("%s: Set render contect for channel %s", kFn, channelName_.c_str());
    LOG_DEBUG("%s: Create render context for Windows Event Log channel '%s'.", kFn, channelName_.c_str());
    const auto create = evtApi().EvtCreateRenderContext;
    renderContext_.reset(create ? create(kSystemValueCount, const_cast<LPCWSTR*>(kSystemPaths),
                                         EvtRenderContextValues)
                                : nullptr);
    if (!renderContext_) {
        LOG_ERROR("%s: Could not create render context for Windows Event Log channel '%s'.", kFn,
                  channelName_.c_str());
        return false;
    }
    return true;
}

DWORD WinEventLogChannelBase::renderEvent(EventRecord& record, std::vector<uint8_t>& buffer, DWORD& bufferSize) {
    static const char* const kFn = "WinEventLogChannelBase::renderEvent";
    const auto render = evtApi().EvtRender;
    if (!render) return ERROR_PROC_NOT_FOUND;
    if (buffer.size() < bufferSize) buffer.resize(bufferSize);
    DWORD used = 0;
    DWORD count = 0;
    BOOL ok = render(renderContext_.get(), record.handle.get(), EvtRenderEventValues, bufferSize,
                     bufferSize ? buffer.data() : nullptr, &used, &count);
    DWORD error = ok ? 0 : ::GetLastError();
    if (error == ERROR_INSUFFICIENT_BUFFER) {
        // One 16-byte value slot per byte needed: far more than needed, kept so
        // that later events of the read almost never grow the buffer again.
        std::vector<uint8_t>().swap(buffer);
        bufferSize = 0;
        if (growTo(buffer, static_cast<size_t>(used) * 16)) {
            bufferSize = used;
            ok = render(renderContext_.get(), record.handle.get(), EvtRenderEventValues, bufferSize, buffer.data(),
                        &used, &count);
            error = ok ? 0 : ::GetLastError();
        } else {
            error = ERROR_NOT_ENOUGH_MEMORY;
        }
    }
    // The values are read by position: a short answer leaves the rest missing.
    if (error == 0 && count < kSystemValueCount && buffer.size() >= kSystemValueCount * sizeof(EVT_VARIANT)) {
        auto* values = reinterpret_cast<EVT_VARIANT*>(buffer.data());
        for (DWORD i = count; i < kSystemValueCount; ++i) values[i].Type = EvtVarTypeNull;
    }
    if (error == 0 && buffer.size() < kSystemValueCount * sizeof(EVT_VARIANT)) error = ERROR_INVALID_DATA;
    if (error == 0) return 0;
    if (error == ERROR_INVALID_HANDLE) {
        LOG_INFO("%s (%d): Failed to render event from channel='%s', buffer_used=%ld. Error=(0x%x)", kFn, 2530,
                 channelName_.c_str(), static_cast<long>(used), static_cast<unsigned>(error));
        return ERROR_INVALID_HANDLE;
    }
    LOG_INFO("%s (%d): Failed to render event from channel='%s', buffer_used=%ld. Error=(0x%x).", kFn, 2537,
             channelName_.c_str(), static_cast<long>(used), static_cast<unsigned>(error));
    return error;
}

DWORD WinEventLogChannelBase::renderEventAsXml(EventRecord& record) {
    static const char* const kFn = "WinEventLogChannelBase::renderEventAsXml";
    const auto render = evtApi().EvtRender;
    if (!render) return ERROR_PROC_NOT_FOUND;
    // The buffer is the channel's and kept between events; the first event
    // learns the size from an empty one.
    DWORD used = 0;
    DWORD count = 0;
    DWORD size = static_cast<DWORD>(xmlBuffer_.size());
    BOOL ok = render(nullptr, record.handle.get(), EvtRenderEventXml, size, size ? xmlBuffer_.data() : nullptr,
                     &used, &count);
    DWORD error = ok ? 0 : ::GetLastError();
    if (error == ERROR_INSUFFICIENT_BUFFER) {
        std::vector<uint8_t>().swap(xmlBuffer_);
        if (growTo(xmlBuffer_, static_cast<size_t>(used) * 2)) {
            size = used;
            ok = render(nullptr, record.handle.get(), EvtRenderEventXml, size, xmlBuffer_.data(), &used, &count);
            error = ok ? 0 : ::GetLastError();
        } else {
            error = ERROR_NOT_ENOUGH_MEMORY;
        }
    }
    if (error == 0) {
        // Never past the buffer, whatever the service says it used.
        const auto* text = reinterpret_cast<const wchar_t*>(xmlBuffer_.data());
        record.xml.assign(text, wcsnlen(text, std::min<size_t>(used, xmlBuffer_.size()) / sizeof(wchar_t)));
        return 0;
    }
    if (error == ERROR_INVALID_HANDLE) {
        LOG_INFO("%s (%d) : Failed to render event from channel='%s', buffer_used=%ld. Error=(0x%x)", kFn, 2476,
                 channelName_.c_str(), static_cast<long>(used), static_cast<unsigned>(error));
        return ERROR_INVALID_HANDLE;
    }
    LOG_INFO("%s (%d): Failed to render XML event from channel='%s', buffer_used=%ld. Error=(0x%x).", kFn, 2483,
             channelName_.c_str(), static_cast<long>(used), static_cast<unsigned>(error));
    return error;
}

DWORD WinEventLogChannelBase::setEventProperties(const EVT_VARIANT* values, EventRecord& record) {
    static const char* const kFn = "WinEventLogChannelBase::setEventProperties";
    const char* const channel = channelName_.c_str();
    const FieldNameSet& excluded = settings_.excludedFields;
    const auto recId = [&record] { return static_cast<unsigned long long>(record.recordNumber); };
    preRendered_ = false;

    if (values[kRecordId].Type == EvtVarTypeUInt64)
        record.recordNumber = values[kRecordId].UInt64Val;
    else
        LOG_INFO("%s: Failed to get the record id from event, channel='%s'", kFn, channel);

    const bool hasTime = values[kTimeCreated].Type == EvtVarTypeFileTime;
    if (hasTime) {
        const uint64_t ft = values[kTimeCreated].FileTimeVal;
        record.time = ft > kFileTimeUnixEpoch ? (ft - kFileTimeUnixEpoch) / 10000000ull : 0;
    }
    // An event rendered as XML is sent as that XML: the classic fields would be
    // formatted for nothing, and formatting is most of the cost of an event.
    if (settings_.renderXml) return 0;

    std::wstring& text = fieldText_;
    if (hasTime && formatLocalTimestamp(values[kTimeCreated].FileTimeVal, text))
        record.addField(L"$Timestamp", text, excluded);
    else
        LOG_INFO("%s: Failed to get timestamp from event, channel='%s'", kFn, channel);

    if (isString(values[kChannel]))
        record.addField(L"LogName", values[kChannel].StringVal, excluded);
    else
        LOG_INFO("%s: Failed to get the publisher name from event, channel='%s'", kFn, channel);

    if (values[kEventId].Type == EvtVarTypeUInt16) {
        record.eventCode = values[kEventId].UInt16Val;
        record.addField(L"EventCode", Decimal(record.eventCode), excluded);
    } else {
        LOG_INFO("%s: Failed to get event id from event, channel='%s'", kFn, channel);
    }

    if (values[kLevel].Type == EvtVarTypeByte)
        record.addField(L"EventType", Decimal(values[kLevel].ByteVal), excluded);
    else
        LOG_INFO("%s: Failed to get level id from event, channel='%s'", kFn, channel);

    if (isString(values[kComputer]))
        record.addField(L"ComputerName", values[kComputer].StringVal, excluded);
    else
        LOG_INFO("%s: Failed to get the computer name from event, channel='%s'", kFn, channel);

    if (values[kUserId].Type == EvtVarTypeSid && values[kUserId].SidVal) {
        SidProps& sid = sidProps_;
        sid.valid = false;
        sid.sidType = 0;
        sid.domainName.clear();
        if (sid.processSid(values[kUserId].SidVal, settings_.resolveAdObj)) {
            text = sid.domainName;
            if (!text.empty()) text += L'\\';
            text += sid.accountName;
            record.addField(L"User", text, excluded);
            record.addField(L"Sid", sid.sidString, excluded);
            record.addField(L"SidType", Decimal(sid.sidType), excluded);
        } else {
            LOG_DEBUG("%s: Unable to process sid for Windows Event Log='%s'; evtlog_id='%d';", kFn, channel,
                      static_cast<int>(record.eventCode));
        }
    } else {
        // '%m' of the message: the C library's text for errno.
        LOG_WARN("%s: Failed to get sid from event, channel='%s', '%s'.", kFn, channel, std::strerror(errno));
    }

    EVT_HANDLE metadata = nullptr;
    if (isString(values[kProvider])) {
        record.publisher.assign(values[kProvider].StringVal);
        metadata = getPublisherMetadata(record.publisher);
    } else {
        LOG_INFO("%s: Failed to get the publisher name from event, channel='%s'", kFn, channel);
    }
    const EVT_HANDLE event = record.handle.get();

    if (!settings_.suppressSourceName) {
        if (!formatMessageByFlag(metadata, event, EvtFormatMessageProvider, kNoMessageId, text)) {
            LOG_INFO("%s: Failed to format source name of event log, channel='%s', rec_id=%llu", kFn, channel,
                     recId());
            text = record.publisher;
        }
        record.addField(L"SourceName", text, excluded);
    }

    if (!settings_.suppressType) {
        if (formatMessageByFlag(metadata, event, EvtFormatMessageLevel, kNoMessageId, text)) {
            record.addField(L"Type", text, excluded);
        } else {
            LOG_INFO("%s: Failed to format level of event log, channel='%s', rec_id=%llu", kFn, channel, recId());
            if (lastFormatError_ == ERROR_INVALID_HANDLE) return ERROR_INVALID_HANDLE;
        }
    }

    record.addField(L"RecordNumber", Decimal(record.recordNumber), excluded);

    if (!settings_.suppressKeywords) {
        if (!formatMessageByFlag(metadata, event, EvtFormatMessageKeyword, kNoMessageId, text)) {
            LOG_INFO("%s: Failed to format keyword of event log, channel='%s', rec_id=%llu", kFn, channel, recId());
            if (lastFormatError_ == ERROR_INVALID_HANDLE) return ERROR_INVALID_HANDLE;
            text = L"None";
        }
        record.addField(L"Keywords", text, excluded);
    }

    if (!settings_.suppressTask) {
        const bool numeric = values[kTask].Type == EvtVarTypeUInt16;
        if (numeric && values[kTask].UInt16Val == 0) {
            text = L"None";
        } else if (!formatMessageByFlag(metadata, event, EvtFormatMessageTask, kNoMessageId, text)) {
            LOG_INFO("%s: Failed to format task of event log, channel='%s', rec_id=%llu", kFn, channel, recId());
            if (lastFormatError_ == ERROR_INVALID_HANDLE) return ERROR_INVALID_HANDLE;
            if (numeric)
                text.assign(Decimal(values[kTask].UInt16Val));
            else
                text.assign(L"None");
        }
        record.addField(L"TaskCategory", text, excluded);
    }

    if (!settings_.suppressOpcode) {
        bool ok = formatMessageByFlag(metadata, event, EvtFormatMessageOpcode, kNoMessageId, text);
        if (!ok && values[kOpcode].Type == EvtVarTypeByte)
            ok = formatMessageByFlag(metadata, nullptr, EvtFormatMessageId, values[kOpcode].ByteVal, text);
        if (!ok) {
            LOG_INFO("%s: Failed to format opCode of event log, channel='%s', rec_id=%llu", kFn, channel, recId());
            text = L"None";
        }
        record.addField(L"OpCode", text, excluded);
    }

    if (settings_.suppressText) return 0;
    formatEventMessage(metadata, record);
    return 0;
}

}  // namespace skorva
