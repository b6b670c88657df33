#include "channel/WinEventLogChannelBase.h"

#include <cwchar>

#include "platform/Clock.h"
#include "platform/Logger.h"
#include "platform/Strings.h"

namespace skorva {

namespace {

constexpr DWORD kNoMessageId = static_cast<DWORD>(-1);
constexpr DWORD kLocaleNotFound = 15033;     // ERROR_EVT_MESSAGE_LOCALE_NOT_FOUND
constexpr DWORD kRpcUnknownInterface = 1717; // RPC_S_UNKNOWN_IF
constexpr unsigned kMaxServiceRetries = 30;  // x 2 s: the "one minute" of the warning
constexpr uint32_t kServiceRetrySleepMs = 2000;
constexpr uint64_t kSweepIntervalMs = 2000;
constexpr uint64_t kMetadataIdleMs = 10000;

const char* formatFlagName(DWORD flag) {
    static const char* const names[] = {"",
                                        "EvtFormatMessageEvent",
                                        "EvtFormatMessageLevel",
                                        "EvtFormatMessageTask",
                                        "EvtFormatMessageOpcode",
                                        "EvtFormatMessageKeyword",
                                        "EvtFormatMessageChannel",
                                        "EvtFormatMessageProvider",
                                        "EvtFormatMessageId",
                                        "EvtFormatMessageXml"};
    return flag < sizeof(names) / sizeof(names[0]) ? names[flag] : "";
}

// The formatted text in the buffer. A keyword result is a list of strings that
// ends with an empty one; its names are joined with ", ".
void takeFormatted(const wchar_t* buffer, DWORD chars, DWORD flag, std::wstring& out) {
    const size_t first = wcsnlen(buffer, chars);
    out.assign(buffer, first);
    if (flag != EvtFormatMessageKeyword) return;
    size_t pos = first + 1;
    while (pos < chars && buffer[pos] != L'\0') {
        const size_t len = wcsnlen(buffer + pos, chars - pos);
        if (!out.empty()) out += L", ";
        out.append(buffer + pos, len);
        pos += len + 1;
    }
}

}  // namespace

EVT_HANDLE WinEventLogChannelBase::getPublisherMetadata(const std::wstring& publisher) {
    static const char* const kFn = "WinEventLogChannelBase::getPublisherMetadata";
    auto it = publisherCache_.find(publisher);
    if (it != publisherCache_.end()) {
        it->second.lastUse = tickNow();
        LOG_DEBUG("%s: for %ls pulled pubMetaData handle from cache", kFn, publisher.c_str());
        return it->second.handle.get();
    }
    const auto open = evtApi().EvtOpenPublisherMetadata;
    EVT_HANDLE handle = open ? open(nullptr, publisher.c_str(), nullptr, 0, 0) : nullptr;
    if (handle) {
        LOG_DEBUG("%s: OpenPublisherMetadata for %ls returned pubMetaData handle.", kFn, publisher.c_str());
    } else {
        LOG_INFO("%s: Failed to open publisher metadata provider '%ls' for event log, channel='%s'", kFn,
                 publisher.c_str(), channelName_.c_str());
    }
    // A publisher that cannot be opened is remembered too, so it is not asked
    // for again with every event while its entry lives.
    publisherCache_.try_emplace(publisher, handle, tickNow());
    return handle;
}

void WinEventLogChannelBase::cleanMetadataHandleCache(bool force) {
    static const char* const kFn = "WinEventLogChannelBase::cleanMetadataHandleCache";
    const uint64_t now = tickNow();
    if (!force && now < lastMetadataSweep_ + kSweepIntervalMs) return;
    lastMetadataSweep_ = now;
    for (auto it = publisherCache_.begin(); it != publisherCache_.end();) {
        if (!force && it->second.lastUse + kMetadataIdleMs >= now) {
            ++it;
            continue;
        }
        if (!it->second.handle.valid())
            LOG_DEBUG("Skipping null handle from non-existent publisher %s", narrow(it->first).c_str());
        else
            LOG_DEBUG("%s: closing pubMetaData handle due to timeout", kFn);
        it = publisherCache_.erase(it);
    }
}

bool WinEventLogChannelBase::formatMessageByFlag(EVT_HANDLE metadata, EVT_HANDLE event, DWORD flag,
                                                 DWORD messageId, std::wstring& out) {
    static const char* const kFn = "WinEventLogChannelBase::formatMessageByFlag";
    out.clear();
    lastFormatError_ = 0;
    const auto format = evtApi().EvtFormatMessage;
    if (!format) {
        lastFormatError_ = ERROR_PROC_NOT_FOUND;
        return false;
    }
    const EVT_HANDLE offeredMetadata = metadata;
    // Transient service failures are retried. ERROR_INVALID_PARAMETER counts as
    // transient only for event-bound flags: a message-id look-up fails with it
    // for good when the id has no text.
    const bool parameterRetry = flag >= EvtFormatMessageEvent && flag <= EvtFormatMessageXml &&
                                flag != EvtFormatMessageId && messageId == kNoMessageId;
    unsigned attempts = 0;
    DWORD error = 0;
    for (;;) {
        formatBuffer_[0] = L'\0';
        DWORD used = 0;
        if (format(metadata, event, messageId, 0, nullptr, flag, formatBufferChars_, formatBuffer_, &used)) {
            // Only what this call wrote: the buffer beyond it holds older texts.
            takeFormatted(formatBuffer_, used != 0 && used < formatBufferChars_ ? used : formatBufferChars_, flag, out);
            if (!metadata && event) preRendered_ = true;
            lastFormatError_ = 0;
            return true;
        }
        error = ::GetLastError();
        lastFormatError_ = error;

        if (error == ERROR_INSUFFICIENT_BUFFER) {
            // The keyword list ends with an extra terminator the count leaves out.
            const DWORD needed = used + (flag == EvtFormatMessageKeyword ? 1 : 0);
            if (needed > formatBufferChars_) {
                heapFormatBuffer_.reset(new wchar_t[needed]);
                formatBuffer_ = heapFormatBuffer_.get();
                formatBufferChars_ = needed;
                continue;
            }
            // A size no larger than the buffer cannot be honoured: no endless loop.
        } else if (error == kLocaleNotFound && metadata) {
            DWORD dataCount = 0;
            if (Logger::enabled(LogLevel::Debug) && event) placeholderMessage(event, out, dataCount);
            out.clear();
            LOG_DEBUG("%s: EvtFormatMessage failed because the locale specific resource for the desired message is "
                      "not present - trying to render event using embedded renderInfo: error=%d, channel='%s', "
                      "dataCount='%d'",
                      kFn, static_cast<int>(error), channelName_.c_str(), static_cast<int>(dataCount));
            metadata = nullptr;
            continue;
        } else if (error == ERROR_INVALID_HANDLE) {
            LOG_DEBUG("%s: EvtFormatMessage failed with error=%d, flag='(%d)%s', channel='%s'", kFn,
                      static_cast<int>(error), static_cast<int>(flag), formatFlagName(flag), channelName_.c_str());
            return false;
        } else if (error == kRpcUnknownInterface || (error == ERROR_INVALID_PARAMETER && parameterRetry)) {
            if (++attempts >= kMaxServiceRetries) {
                LOG_WARN("%s: EvtFormatMessage failed to render event data for channel='%s' after one minute. "
                         "Marking event data as unavailable",
                         kFn, channelName_.c_str());
                return false;
            }
            if (error == kRpcUnknownInterface)
                LOG_DEBUG("%s: EvtFormatMessage in RPC_S_UNKNOWN_IF loop for channel channel='%s', thread sleeping 2 "
                          "seconds",
                          kFn, channelName_.c_str());
            else
                LOG_DEBUG("%s: EvtFormatMessage in ERROR_INVALID_PARAMETER loop for channel channel='%s', thread "
                          "sleeping 2 seconds",
                          kFn, channelName_.c_str());
            sleepMs(kServiceRetrySleepMs);
            continue;
        }
        break;
    }

    if (formatBuffer_[0] != L'\0') {
        LOG_DEBUG("%s: EvtFormatMessage failed, but Skorva stored some kind of message: flag='(%d)%s', channel='%s', "
                  "Error=(0x%x)",
                  kFn, static_cast<int>(flag), formatFlagName(flag), channelName_.c_str(), static_cast<unsigned>(error));
        takeFormatted(formatBuffer_, formatBufferChars_, flag == EvtFormatMessageKeyword ? 0 : flag, out);
        return true;
    }
    LOG_DEBUG("%s: EvtFormatMessage returned no message with error=%d, flag='(%d)%s', channel='%s'", kFn,
              static_cast<int>(error), static_cast<int>(flag), formatFlagName(flag), channelName_.c_str());

    if (flag != EvtFormatMessageEvent || !event) return false;
    DWORD dataCount = 0;
    if (!placeholderMessage(event, out, dataCount) || dataCount == 0) {
        out.clear();
        return false;
    }
    if (!offeredMetadata && !preRendered_)
        LOG_DEBUG("%s: The event is not pre-rendered and there is an invalid or non-existent provider. Using the "
                  "placeholder data in EventData section",
                  kFn);
    else
        LOG_DEBUG("%s: EvtFormatMessage failed with error=%d, but there is placeholder data: flag='(%d)%s', "
                  "channel='%s', dataCount='%d'",
                  kFn, static_cast<int>(error), static_cast<int>(flag), formatFlagName(flag), channelName_.c_str(),
                  static_cast<int>(dataCount));
    return true;
}

bool WinEventLogChannelBase::placeholderMessage(EVT_HANDLE event, std::wstring& out, DWORD& dataCount) {
    static const char* const kFn = "WinEventLogChannelBase::formatMessageByFlag";
    out.clear();
    dataCount = 0;
    const EvtApi& api = evtApi();
    if (!api.EvtRender || !api.EvtCreateRenderContext) return false;
    if (!userRenderContext_) userRenderContext_.reset(api.EvtCreateRenderContext(0, nullptr, EvtRenderContextUser));
    if (!userRenderContext_) {
        LOG_INFO("%s: Rendering events for Windows Event Log channel='%s' failed, Error=(0x%x)", kFn,
                 channelName_.c_str(), static_cast<unsigned>(::GetLastError()));
        return false;
    }
    DWORD used = 0;
    DWORD count = 0;
    const DWORD size = static_cast<DWORD>(userValuesBuffer_.size());
    BOOL ok = api.EvtRender(userRenderContext_.get(), event, EvtRenderEventValues, size,
                            size ? userValuesBuffer_.data() : nullptr, &used, &count);
    if (!ok && ::GetLastError() == ERROR_INSUFFICIENT_BUFFER) {
        userValuesBuffer_.resize(used);
        ok = api.EvtRender(userRenderContext_.get(), event, EvtRenderEventValues, used, userValuesBuffer_.data(),
                           &used, &count);
    }
    if (!ok) {
        LOG_INFO("%s: Rendering events for Windows Event Log channel='%s' failed, Error=(0x%x)", kFn,
                 channelName_.c_str(), static_cast<unsigned>(::GetLastError()));
        return false;
    }
    const auto* values = reinterpret_cast<const EVT_VARIANT*>(userValuesBuffer_.data());
    for (DWORD i = 0; i < count; ++i) {
        if (values[i].Type != EvtVarTypeString || !values[i].StringVal || !values[i].StringVal[0]) continue;
        if (dataCount++) out += L'\n';
        out += values[i].StringVal;
    }
    if (dataCount) out += L'\n';
    return true;
}

bool WinEventLogChannelBase::formatEventMessage(EVT_HANDLE metadata, EventRecord& record) {
    static const char* const kFn = "WinEventLogChannelBase::setEventProperties";
    LOG_INFO("%s: Get message description of event log, channel='%s', rec_id=%llu", kFn, channelName_.c_str(),
             static_cast<unsigned long long>(record.recordNumber));
    if (formatMessageByFlag(metadata, record.handle.get(), EvtFormatMessageEvent, kNoMessageId, record.message))
        return true;
    LOG_INFO("%s: Failed to get message description of event log, channel='%s', rec_id=%llu", kFn,
             channelName_.c_str(), static_cast<unsigned long long>(record.recordNumber));
    record.message += L"\nFormatMessage error:\n";
    wchar_t* text = nullptr;
    const DWORD len = ::FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM |
                                           FORMAT_MESSAGE_IGNORE_INSERTS,
                                       nullptr, lastFormatError_, 0, reinterpret_cast<LPWSTR>(&text), 0, nullptr);
    UniqueLocalMem owner(text);
    if (len)
        record.message.append(text, len);
    else
        record.message += widen(format("Error=(0x%x)", static_cast<unsigned>(lastFormatError_)));
    return false;
}

}  // namespace skorva
