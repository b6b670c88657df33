#include "channel/MessageFormatter.h"

#include <algorithm>
#include <cwchar>

#include "channel/EventValueText.h"
#include "platform/Clock.h"
#include "platform/Logger.h"
#include "platform/Strings.h"

namespace skorva {

namespace {

constexpr DWORD kLocaleNotFound = 15033;     // ERROR_EVT_MESSAGE_LOCALE_NOT_FOUND
constexpr DWORD kMuiFileNotFound = 15100;    // ERROR_MUI_FILE_NOT_FOUND
constexpr DWORD kLangNotFound = 1815;        // ERROR_RESOURCE_LANG_NOT_FOUND
constexpr DWORD kRpcUnknownInterface = 1717; // RPC_S_UNKNOWN_IF
// A service that keeps asking for more, or for more than any event's text, is not followed.
constexpr unsigned kMaxBufferGrowths = 4;    // per call
constexpr DWORD kMaxFormatChars = 1u << 25;  // 64 MiB of text
constexpr DWORD kFirstFormatChars = 2048;
constexpr unsigned kMaxServiceRetries = 30;  // x 2 s: the "one minute" of the warning
constexpr uint32_t kServiceRetrySleepMs = 2000;

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
    if (flag != EvtFormatMessageKeyword && chars > 0 && buffer[chars - 1] == L'\0') {
        // One string with its terminator counted: no need to look for it.
        out.assign(buffer, chars - 1);
        return;
    }
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

// Errors that come with the text, its unresolved inserts left as they were:
// ERROR_EVT_UNRESOLVED_VALUE_INSERT, ERROR_EVT_UNRESOLVED_PARAMETER_INSERT,
// ERROR_EVT_MAX_INSERTS_REACHED.
bool carriesText(DWORD error) { return error >= 15029 && error <= 15031; }

// The publisher's resources are not there (for this locale, or at all): the text
// a forwarded event carries may still be.
bool resourcesMissing(DWORD error) {
    return error == kLocaleNotFound || error == kMuiFileNotFound || error == kLangNotFound;
}

// A buffer too small is not refused by the service: it copies what fits and
// succeeds (or reports an unresolved insert) with the full size in BufferUsed;
// only a call without a buffer fails with ERROR_INSUFFICIENT_BUFFER. So the
// count decides.
bool cutAnswer(bool ok, DWORD error) { return ok || carriesText(error); }

// Names Winmeta.xml defines (levels, tasks, opcodes, keywords) are formatted
// without a publisher for any event; only the other texts show that the event
// carries its own rendering information.
bool winmetaFlag(DWORD flag) {
    return flag == EvtFormatMessageLevel || flag == EvtFormatMessageTask || flag == EvtFormatMessageOpcode ||
           flag == EvtFormatMessageKeyword;
}

}  // namespace

MessageFormatter::MessageFormatter(const std::string& channelName)
    : channelName_(channelName), formatBuffer_(kFirstFormatChars), formatChars_(kFirstFormatChars) {}

EVT_HANDLE MessageFormatter::getPublisherMetadata(const std::wstring& publisher) {
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

void MessageFormatter::cleanMetadataHandleCache(bool force) {
    static const char* const kFn = "WinEventLogChannelBase::cleanMetadataHandleCache";
    const uint64_t now = tickNow();
    if (!force && now < lastMetadataSweep_ + kSweepIntervalMs) return;
    lastMetadataSweep_ = now;
    for (auto it = publisherCache_.begin(); it != publisherCache_.end();) {
        if (!force && it->second.lastUse + kIdleMs >= now) {
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

bool MessageFormatter::formatMessageByFlag(EVT_HANDLE metadata, EVT_HANDLE event, DWORD flag, DWORD messageId,
                                           std::wstring& out) {
    out.clear();
    lastFormatError_ = 0;
    if (!evtApi().EvtFormatMessage) {
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
    unsigned growths = 0;
    for (;;) {
        const SizedCall call = formatOnce(metadata, event, flag, messageId, growths);
        if (call.ok) {
            // Only what this call wrote: the buffer beyond it holds older texts.
            takeFormatted(formatBuffer_.data(), visibleChars(call.used), flag, out);
            if (!metadata && event && !winmetaFlag(flag)) preRendered_ = true;
            return true;
        }
        switch (afterFailure(call.error, metadata, event, flag, parameterRetry, attempts)) {
        case Next::Retry: continue;
        case Next::GiveUp: return false;
        case Next::Fallback: return fallback(offeredMetadata, event, flag, call, out);
        }
    }
}

SizedCall MessageFormatter::formatOnce(EVT_HANDLE metadata, EVT_HANDLE event, DWORD flag, DWORD messageId,
                                       unsigned& growths) {
    static const char* const kFn = "WinEventLogChannelBase::formatMessageByFlag";
    BufferGrowth growth;
    // The keyword list ends with an extra terminator the count may leave out.
    growth.extra = flag == EvtFormatMessageKeyword ? 1 : 0;
    growth.maxGrowths = growths < kMaxBufferGrowths ? kMaxBufferGrowths - growths : 0;
    growth.maxUnits = kMaxFormatChars;
    growth.cutAnswer = &cutAnswer;
    const auto format = evtApi().EvtFormatMessage;
    const SizedCall call = callSized(formatBuffer_, formatChars_, growth, [&](wchar_t* data, DWORD chars, DWORD& used) {
        data[0] = L'\0';
        return format(metadata, event, messageId, 0, nullptr, flag, chars, data, &used);
    });
    growths += call.growths;
    lastFormatError_ = call.error;
    // What the buffer holds is still text, unless the call wrote nothing.
    if (call.refused)
        LOG_WARN("%s: EvtFormatMessage asks for a buffer of %lu characters, which is not given: flag='(%d)%s', "
                 "channel='%s'; only what fits is kept",
                 kFn, static_cast<unsigned long>(call.refused), static_cast<int>(flag), formatFlagName(flag),
                 channelName_.c_str());
    return call;
}

MessageFormatter::Next MessageFormatter::afterFailure(DWORD error, EVT_HANDLE& metadata, EVT_HANDLE event, DWORD flag,
                                                      bool parameterRetry, unsigned& attempts) {
    static const char* const kFn = "WinEventLogChannelBase::formatMessageByFlag";
    if (resourcesMissing(error) && metadata) {
        DWORD dataCount = 0;
        std::wstring ignored;
        if (Logger::enabled(LogLevel::Debug) && event) placeholderMessage(event, ignored, dataCount);
        LOG_DEBUG("%s: EvtFormatMessage failed because the locale specific resource for the desired message is "
                  "not present - trying to render event using embedded renderInfo: error=%d, channel='%s', "
                  "dataCount='%d'",
                  kFn, static_cast<int>(error), channelName_.c_str(), static_cast<int>(dataCount));
        metadata = nullptr;
        return Next::Retry;
    }
    if (error == ERROR_INVALID_HANDLE) {
        LOG_DEBUG("%s: EvtFormatMessage failed with error=%d, flag='(%d)%s', channel='%s'", kFn,
                  static_cast<int>(error), static_cast<int>(flag), formatFlagName(flag), channelName_.c_str());
        return Next::GiveUp;
    }
    if (error != kRpcUnknownInterface && !(error == ERROR_INVALID_PARAMETER && parameterRetry)) return Next::Fallback;
    if (++attempts >= kMaxServiceRetries) {
        LOG_WARN("%s: EvtFormatMessage failed to render event data for channel='%s' after one minute. "
                 "Marking event data as unavailable",
                 kFn, channelName_.c_str());
        return Next::GiveUp;
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
    return Next::Retry;
}

bool MessageFormatter::fallback(EVT_HANDLE offeredMetadata, EVT_HANDLE event, DWORD flag, const SizedCall& call,
                                std::wstring& out) {
    static const char* const kFn = "WinEventLogChannelBase::formatMessageByFlag";
    const DWORD error = call.error;
    if (formatBuffer_[0] != L'\0') {
        LOG_DEBUG("%s: EvtFormatMessage failed, but Skorva stored some kind of message: flag='(%d)%s', channel='%s', "
                  "Error=(0x%x)",
                  kFn, static_cast<int>(flag), formatFlagName(flag), channelName_.c_str(), static_cast<unsigned>(error));
        takeFormatted(formatBuffer_.data(), visibleChars(call.used), flag == EvtFormatMessageKeyword ? 0 : flag, out);
        return true;
    }
    LOG_DEBUG("%s: EvtFormatMessage returned no message with error=%d, flag='(%d)%s', channel='%s'", kFn,
              static_cast<int>(error), static_cast<int>(flag), formatFlagName(flag), channelName_.c_str());

    if (flag != EvtFormatMessageEvent || !event || channelPreRendered_) return false;
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

bool MessageFormatter::placeholderMessage(EVT_HANDLE event, std::wstring& out, DWORD& dataCount) {
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
    DWORD count = 0;
    const SizedCall call =
        callSized(userValues_, userValuesSize_, BufferGrowth{}, [&](uint8_t* data, DWORD size, DWORD& used) {
            return api.EvtRender(userRenderContext_.get(), event, EvtRenderEventValues, size, data, &used, &count);
        });
    if (!call.ok) {
        LOG_INFO("%s: Rendering events for Windows Event Log channel='%s' failed, Error=(0x%x)", kFn,
                 channelName_.c_str(), static_cast<unsigned>(call.error));
        return false;
    }
    // Every value with something to show, as text; never more values than the buffer holds.
    const auto* values = reinterpret_cast<const EVT_VARIANT*>(userValues_.data());
    count = std::min<DWORD>(count, static_cast<DWORD>(userValues_.size() / sizeof(EVT_VARIANT)));
    for (DWORD i = 0; i < count; ++i) {
        const size_t mark = out.size();
        if (dataCount) out += L'\n';
        if (appendValueText(values[i], out))
            ++dataCount;
        else
            out.resize(mark);
    }
    if (dataCount) out += L'\n';
    return true;
}

bool MessageFormatter::formatEventMessage(EVT_HANDLE metadata, EventRecord& record) {
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
