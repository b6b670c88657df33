#include "channel/EventRenderer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <cwchar>

#include "channel/LocalTimestamp.h"
#include "platform/Logger.h"
#include "platform/Strings.h"

namespace skorva {

namespace {

const wchar_t* const kSystemPaths[EventRenderer::kSystemValueCount] = {
    L"Event/System/EventRecordID",   L"Event/System/TimeCreated/@SystemTime",
    L"Event/System/Channel",         L"Event/System/Provider/@Name",
    L"Event/System/EventID",         L"Event/System/Level",
    L"Event/System/Computer",        L"Event/System/Security/@UserID",
    L"Event/System/Task",            L"Event/System/Opcode",
    L"Event/System/Keywords"};

constexpr uint64_t kFileTimeUnixEpoch = 116444736000000000ull;  // 100 ns ticks, 1601 to 1970

bool isString(const EVT_VARIANT& v) { return v.Type == EvtVarTypeString && v.StringVal; }

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

}  // namespace

EventRenderer::EventRenderer(const std::string& channelName, const ChannelSettings& settings,
                             MessageFormatter& formatter)
    : channelName_(channelName), settings_(settings), formatter_(formatter) {}

bool EventRenderer::setRenderContext() {
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

DWORD EventRenderer::closeRenderContext() { return closeEvtHandleNow(renderContext_); }

DWORD EventRenderer::renderEvent(EventRecord& record, std::vector<uint8_t>& buffer, DWORD& bufferSize) {
    static const char* const kFn = "WinEventLogChannelBase::renderEvent";
    const auto render = evtApi().EvtRender;
    if (!render) return ERROR_PROC_NOT_FOUND;
    if (buffer.size() < bufferSize) buffer.resize(bufferSize);
    DWORD count = 0;
    // One 16-byte value slot per byte needed: far more than needed, kept so
    // that later events of the read almost never grow the buffer again.
    BufferGrowth growth;
    growth.over = 16;
    const SizedCall call = callSized(buffer, bufferSize, growth, [&](uint8_t* data, DWORD size, DWORD& used) {
        return render(renderContext_.get(), record.handle.get(), EvtRenderEventValues, size, data, &used, &count);
    });
    DWORD error = call.outOfMemory ? ERROR_NOT_ENOUGH_MEMORY : call.error;
    // The values are read by position: a short answer leaves the rest missing.
    if (error == 0 && count < kSystemValueCount && buffer.size() >= kSystemValueCount * sizeof(EVT_VARIANT)) {
        auto* values = reinterpret_cast<EVT_VARIANT*>(buffer.data());
        for (DWORD i = count; i < kSystemValueCount; ++i) values[i].Type = EvtVarTypeNull;
    }
    if (error == 0 && buffer.size() < kSystemValueCount * sizeof(EVT_VARIANT)) error = ERROR_INVALID_DATA;
    if (error == 0) return 0;
    const bool badHandle = error == ERROR_INVALID_HANDLE;  // ends the read: the channel is opened again
    LOG_INFO(badHandle ? "%s (%d): Failed to render event from channel='%s', buffer_used=%ld. Error=(0x%x)"
                       : "%s (%d): Failed to render event from channel='%s', buffer_used=%ld. Error=(0x%x).",
             kFn, badHandle ? 2530 : 2537, channelName_.c_str(), static_cast<long>(call.used),
             static_cast<unsigned>(error));
    return error;
}

DWORD EventRenderer::renderEventAsXml(EventRecord& record) {
    static const char* const kFn = "WinEventLogChannelBase::renderEventAsXml";
    const auto render = evtApi().EvtRender;
    if (!render) return ERROR_PROC_NOT_FOUND;
    // The buffer is the channel's and kept between events; the first event
    // learns the size from an empty one.
    DWORD size = static_cast<DWORD>(xmlBuffer_.size());
    BufferGrowth growth;
    growth.over = 2;
    const SizedCall call = callSized(xmlBuffer_, size, growth, [&](uint8_t* data, DWORD bytes, DWORD& used) {
        DWORD count = 0;
        return render(nullptr, record.handle.get(), EvtRenderEventXml, bytes, data, &used, &count);
    });
    const DWORD error = call.outOfMemory ? ERROR_NOT_ENOUGH_MEMORY : call.error;
    if (error == 0) {
        // Never past the buffer, whatever the service says it used.
        const auto* text = reinterpret_cast<const wchar_t*>(xmlBuffer_.data());
        record.xml.assign(text, wcsnlen(text, std::min<size_t>(call.used, xmlBuffer_.size()) / sizeof(wchar_t)));
        return 0;
    }
    const bool badHandle = error == ERROR_INVALID_HANDLE;
    LOG_INFO(badHandle ? "%s (%d) : Failed to render event from channel='%s', buffer_used=%ld. Error=(0x%x)"
                       : "%s (%d): Failed to render XML event from channel='%s', buffer_used=%ld. Error=(0x%x).",
             kFn, badHandle ? 2476 : 2483, channelName_.c_str(), static_cast<long>(call.used),
             static_cast<unsigned>(error));
    return error;
}

DWORD EventRenderer::setEventProperties(const EVT_VARIANT* values, EventRecord& record) {
    static const char* const kFn = "WinEventLogChannelBase::setEventProperties";
    const char* const channel = channelName_.c_str();
    formatter_.beginEvent();

    if (values[kRecordId].Type == EvtVarTypeUInt64)
        record.recordNumber = values[kRecordId].UInt64Val;
    else
        LOG_INFO("%s: Failed to get the record id from event, channel='%s'", kFn, channel);

    if (values[kTimeCreated].Type == EvtVarTypeFileTime) {
        const uint64_t ft = values[kTimeCreated].FileTimeVal;
        record.time = ft > kFileTimeUnixEpoch ? (ft - kFileTimeUnixEpoch) / 10000000ull : 0;
    }
    // An event rendered as XML is sent as that XML: the classic fields would be
    // formatted for nothing, and formatting is most of the cost of an event.
    if (settings_.renderXml) return 0;

    addSystemFields(values, record);
    EVT_HANDLE metadata = nullptr;
    if (isString(values[kProvider])) {
        record.publisher.assign(values[kProvider].StringVal);
        metadata = formatter_.getPublisherMetadata(record.publisher);
    } else {
        LOG_INFO("%s: Failed to get the publisher name from event, channel='%s'", kFn, channel);
    }
    if (const DWORD error = addFormattedFields(values, metadata, record)) return error;
    if (!settings_.suppressText) formatter_.formatEventMessage(metadata, record);
    return 0;
}

// Timestamp, LogName, EventCode, EventType, ComputerName and the user's SID.
void EventRenderer::addSystemFields(const EVT_VARIANT* values, EventRecord& record) {
    static const char* const kFn = "WinEventLogChannelBase::setEventProperties";
    const char* const channel = channelName_.c_str();
    const FieldNameSet& excluded = settings_.excludedFields;
    const auto field = [&](bool present, std::wstring_view key, std::wstring_view value, const char* what) {
        if (present)
            record.addField(key, value, excluded);
        else
            LOG_INFO("%s: Failed to get %s from event, channel='%s'", kFn, what, channel);
    };
    const auto text = [](const EVT_VARIANT& v) {
        return isString(v) ? std::wstring_view(v.StringVal) : std::wstring_view();
    };
    const bool hasTime = values[kTimeCreated].Type == EvtVarTypeFileTime &&
                         formatLocalTimestamp(values[kTimeCreated].FileTimeVal, fieldText_);
    field(hasTime, L"$Timestamp", fieldText_, "timestamp");
    field(isString(values[kChannel]), L"LogName", text(values[kChannel]), "the publisher name");
    const bool hasCode = values[kEventId].Type == EvtVarTypeUInt16;
    if (hasCode) record.eventCode = values[kEventId].UInt16Val;
    field(hasCode, L"EventCode", Decimal(record.eventCode), "event id");
    const bool hasLevel = values[kLevel].Type == EvtVarTypeByte;
    field(hasLevel, L"EventType", Decimal(hasLevel ? values[kLevel].ByteVal : 0), "level id");
    field(isString(values[kComputer]), L"ComputerName", text(values[kComputer]), "the computer name");
    if (values[kUserId].Type == EvtVarTypeSid && values[kUserId].SidVal)
        addUserFields(values[kUserId], record);
    else  // '%m' of the message: the C library's text for errno.
        LOG_WARN("%s: Failed to get sid from event, channel='%s', '%s'.", kFn, channel, std::strerror(errno));
}

void EventRenderer::addUserFields(const EVT_VARIANT& user, EventRecord& record) {
    const FieldNameSet& excluded = settings_.excludedFields;
    SidProps& sid = sidProps_;
    sid.valid = false;
    sid.sidType = 0;
    sid.domainName.clear();
    if (!sid.processSid(user.SidVal, settings_.resolveAdObj)) {
        LOG_DEBUG("%s: Unable to process sid for Windows Event Log='%s'; evtlog_id='%d';",
                  "WinEventLogChannelBase::setEventProperties", channelName_.c_str(),
                  static_cast<int>(record.eventCode));
        return;
    }
    std::wstring& text = fieldText_;
    text = sid.domainName;
    if (!text.empty()) text += L'\\';
    text += sid.accountName;
    record.addField(L"User", text, excluded);
    record.addField(L"Sid", sid.sidString, excluded);
    record.addField(L"SidType", Decimal(sid.sidType), excluded);
}

// SourceName, Type, RecordNumber, Keywords, TaskCategory and OpCode. A handle
// that went bad while formatting ends the event (ERROR_INVALID_HANDLE).
DWORD EventRenderer::addFormattedFields(const EVT_VARIANT* values, EVT_HANDLE metadata, EventRecord& record) {
    static const char* const kFn = "WinEventLogChannelBase::setEventProperties";
    const char* const channel = channelName_.c_str();
    const FieldNameSet& excluded = settings_.excludedFields;
    const auto recId = [&record] { return static_cast<unsigned long long>(record.recordNumber); };
    const auto handleWentBad = [this] { return formatter_.lastFormatError() == ERROR_INVALID_HANDLE; };
    const EVT_HANDLE event = record.handle.get();
    std::wstring& text = fieldText_;
    const auto formatted = [&](DWORD flag) {
        return formatter_.formatMessageByFlag(metadata, event, flag, kNoMessageId, text);
    };

    if (!settings_.suppressSourceName) {
        if (!formatted(EvtFormatMessageProvider)) {
            LOG_INFO("%s: Failed to format source name of event log, channel='%s', rec_id=%llu", kFn, channel,
                     recId());
            text = record.publisher;
        }
        record.addField(L"SourceName", text, excluded);
    }
    if (!settings_.suppressType) {
        if (formatted(EvtFormatMessageLevel)) {
            record.addField(L"Type", text, excluded);
        } else {
            LOG_INFO("%s: Failed to format level of event log, channel='%s', rec_id=%llu", kFn, channel, recId());
            if (handleWentBad()) return ERROR_INVALID_HANDLE;
        }
    }
    record.addField(L"RecordNumber", Decimal(record.recordNumber), excluded);
    if (!settings_.suppressKeywords) {
        if (!formatted(EvtFormatMessageKeyword)) {
            LOG_INFO("%s: Failed to format keyword of event log, channel='%s', rec_id=%llu", kFn, channel, recId());
            if (handleWentBad()) return ERROR_INVALID_HANDLE;
            text = L"None";
        }
        record.addField(L"Keywords", text, excluded);
    }
    if (!settings_.suppressTask) {
        const bool numeric = values[kTask].Type == EvtVarTypeUInt16;
        if (numeric && values[kTask].UInt16Val == 0) {
            text = L"None";
        } else if (!formatted(EvtFormatMessageTask)) {
            LOG_INFO("%s: Failed to format task of event log, channel='%s', rec_id=%llu", kFn, channel, recId());
            if (handleWentBad()) return ERROR_INVALID_HANDLE;
            if (numeric)
                text.assign(Decimal(values[kTask].UInt16Val));
            else
                text.assign(L"None");
        }
        record.addField(L"TaskCategory", text, excluded);
    }
    if (!settings_.suppressOpcode) {
        bool ok = formatted(EvtFormatMessageOpcode);
        if (!ok && values[kOpcode].Type == EvtVarTypeByte)
            ok = formatter_.formatMessageByFlag(metadata, nullptr, EvtFormatMessageId, values[kOpcode].ByteVal, text);
        if (!ok) {
            LOG_INFO("%s: Failed to format opCode of event log, channel='%s', rec_id=%llu", kFn, channel, recId());
            text = L"None";
        }
        record.addField(L"OpCode", text, excluded);
    }
    return 0;
}

}  // namespace skorva
