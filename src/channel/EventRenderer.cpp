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
        // Never past the buffer, whatever the service says it used; the text
        // normally ends where the service says, so look there first.
        const auto* text = reinterpret_cast<const wchar_t*>(xmlBuffer_.data());
        const size_t chars = std::min<size_t>(call.used, xmlBuffer_.size()) / sizeof(wchar_t);
        record.xml.assign(text, chars > 0 && text[chars - 1] == L'\0' ? chars - 1 : wcsnlen(text, chars));
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

    EVT_HANDLE metadata = nullptr;
    if (isString(values[kProvider])) {
        record.publisher.assign(values[kProvider].StringVal);
        metadata = formatter_.getPublisherMetadata(record.publisher);
    } else {
        LOG_INFO("%s: Failed to get the publisher name from event, channel='%s'", kFn, channel);
    }
    const bool complete = addClassicFields(
        record, settings_, fieldText_, [&](ClassicField field, std::wstring_view& value, std::wstring& scratch) {
            return field < ClassicField::SourceName ? systemValue(field, values, record, value, scratch)
                                                    : formattedValue(field, values, metadata, record, value, scratch);
        });
    // A handle that went bad while formatting ends the event.
    if (!complete) return ERROR_INVALID_HANDLE;
    if (!settings_.suppressText) formatter_.formatEventMessage(metadata, record);
    return 0;
}

// Timestamp, LogName, EventCode, EventType, ComputerName and the user's SID.
FieldValue EventRenderer::systemValue(ClassicField field, const EVT_VARIANT* values, EventRecord& record,
                                      std::wstring_view& value, std::wstring& scratch) {
    static const char* const kFn = "WinEventLogChannelBase::setEventProperties";
    const char* const channel = channelName_.c_str();
    const auto present = [&](bool has, std::wstring_view text, const char* what) {
        if (has) {
            value = text;
            return FieldValue::Present;
        }
        LOG_INFO("%s: Failed to get %s from event, channel='%s'", kFn, what, channel);
        return FieldValue::Absent;
    };
    const auto text = [](const EVT_VARIANT& v) {
        return isString(v) ? std::wstring_view(v.StringVal) : std::wstring_view();
    };
    switch (field) {
    case ClassicField::Timestamp: {
        const bool hasTime = values[kTimeCreated].Type == EvtVarTypeFileTime &&
                             formatLocalTimestamp(values[kTimeCreated].FileTimeVal, scratch);
        return present(hasTime, scratch, "timestamp");
    }
    case ClassicField::LogName: return present(isString(values[kChannel]), text(values[kChannel]), "the publisher name");
    case ClassicField::EventCode: {
        const bool hasCode = values[kEventId].Type == EvtVarTypeUInt16;
        if (hasCode) record.eventCode = values[kEventId].UInt16Val;
        return present(hasCode, decimalText(record.eventCode, scratch), "event id");
    }
    case ClassicField::EventType: {
        const bool hasLevel = values[kLevel].Type == EvtVarTypeByte;
        return present(hasLevel, decimalText(hasLevel ? values[kLevel].ByteVal : 0, scratch), "level id");
    }
    case ClassicField::ComputerName:
        return present(isString(values[kComputer]), text(values[kComputer]), "the computer name");
    case ClassicField::User:
        if (values[kUserId].Type != EvtVarTypeSid || !values[kUserId].SidVal) {
            user_.clear();  // '%m' of the message: the C library's text for errno.
            LOG_WARN("%s: Failed to get sid from event, channel='%s', '%s'.", kFn, channel, std::strerror(errno));
        } else if (!user_.process(values[kUserId].SidVal, settings_.resolveAdObj)) {
            LOG_DEBUG("%s: Unable to process sid for Windows Event Log='%s'; evtlog_id='%d';", kFn, channel,
                      static_cast<int>(record.eventCode));
        }
        return user_.value(field, value, scratch);
    default: return user_.value(field, value, scratch);
    }
}

// SourceName, Type, RecordNumber, Keywords, TaskCategory and OpCode, each built
// in `text`. A handle that went bad while formatting aborts the event.
FieldValue EventRenderer::formattedValue(ClassicField field, const EVT_VARIANT* values, EVT_HANDLE metadata,
                                         EventRecord& record, std::wstring_view& value, std::wstring& text) {
    static const char* const kFn = "WinEventLogChannelBase::setEventProperties";
    const char* const channel = channelName_.c_str();
    const auto recId = [&record] { return static_cast<unsigned long long>(record.recordNumber); };
    const auto handleWentBad = [this] { return formatter_.lastFormatError() == ERROR_INVALID_HANDLE; };
    const auto formatted = [&](DWORD flag) {
        return formatter_.formatMessageByFlag(metadata, record.handle.get(), flag, kNoMessageId, text);
    };
    switch (field) {
    case ClassicField::SourceName:
        if (!formatted(EvtFormatMessageProvider)) {
            LOG_INFO("%s: Failed to format source name of event log, channel='%s', rec_id=%llu", kFn, channel, recId());
            text = record.publisher;
        }
        break;
    case ClassicField::Type:
        if (formatted(EvtFormatMessageLevel)) break;
        LOG_INFO("%s: Failed to format level of event log, channel='%s', rec_id=%llu", kFn, channel, recId());
        return handleWentBad() ? FieldValue::Abort : FieldValue::Absent;
    case ClassicField::RecordNumber: decimalText(record.recordNumber, text); break;
    case ClassicField::Keywords:
        if (formatted(EvtFormatMessageKeyword)) break;
        LOG_INFO("%s: Failed to format keyword of event log, channel='%s', rec_id=%llu", kFn, channel, recId());
        if (handleWentBad()) return FieldValue::Abort;
        text = L"None";
        break;
    case ClassicField::TaskCategory: {
        const bool numeric = values[kTask].Type == EvtVarTypeUInt16;
        if (numeric && values[kTask].UInt16Val == 0) {
            text = L"None";
        } else if (!formatted(EvtFormatMessageTask)) {
            LOG_INFO("%s: Failed to format task of event log, channel='%s', rec_id=%llu", kFn, channel, recId());
            if (handleWentBad()) return FieldValue::Abort;
            if (numeric)
                decimalText(values[kTask].UInt16Val, text);
            else
                text = L"None";
        }
        break;
    }
    case ClassicField::OpCode: {
        bool ok = formatted(EvtFormatMessageOpcode);
        if (!ok && values[kOpcode].Type == EvtVarTypeByte)
            ok = formatter_.formatMessageByFlag(metadata, nullptr, EvtFormatMessageId, values[kOpcode].ByteVal, text);
        if (!ok) {
            LOG_INFO("%s: Failed to format opCode of event log, channel='%s', rec_id=%llu", kFn, channel, recId());
            text = L"None";
        }
        break;
    }
    default: return FieldValue::Absent;
    }
    value = text;
    return FieldValue::Present;
}

}  // namespace skorva
