#include "channel/WinEventLogChannelBase.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <new>

#include "platform/Clock.h"
#include "platform/Logger.h"
#include "platform/Strings.h"

namespace skorva {

namespace {

constexpr DWORD kNoMessageId = static_cast<DWORD>(-1);
constexpr DWORD kLocaleNotFound = 15033;     // ERROR_EVT_MESSAGE_LOCALE_NOT_FOUND
constexpr DWORD kMuiFileNotFound = 15100;    // ERROR_MUI_FILE_NOT_FOUND
constexpr DWORD kLangNotFound = 1815;        // ERROR_RESOURCE_LANG_NOT_FOUND
constexpr DWORD kRpcUnknownInterface = 1717; // RPC_S_UNKNOWN_IF
// A service that keeps asking for more, or for more than any event's text, is not followed.
constexpr unsigned kMaxBufferGrowths = 4;    // per call
constexpr DWORD kMaxFormatChars = 1u << 25;  // 64 MiB of text
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

// Errors that come with the text, its unresolved inserts left as they were:
// ERROR_EVT_UNRESOLVED_VALUE_INSERT, ERROR_EVT_UNRESOLVED_PARAMETER_INSERT,
// ERROR_EVT_MAX_INSERTS_REACHED.
bool carriesText(DWORD error) { return error >= 15029 && error <= 15031; }

// The publisher's resources are not there (for this locale, or at all): the text
// a forwarded event carries may still be.
bool resourcesMissing(DWORD error) {
    return error == kLocaleNotFound || error == kMuiFileNotFound || error == kLangNotFound;
}

// The characters to grow the buffer to, or 0 when the text fitted. A buffer too
// small is not refused by the service: it copies what fits and succeeds (or
// reports an unresolved insert) with the full size in BufferUsed; only a call
// without a buffer fails with ERROR_INSUFFICIENT_BUFFER. So the count decides.
DWORD charsToGrowTo(bool ok, DWORD error, DWORD used, DWORD flag, DWORD chars) {
    if (!ok && error != ERROR_INSUFFICIENT_BUFFER && !carriesText(error)) return 0;
    // The keyword list ends with an extra terminator the count may leave out.
    const DWORD needed = used + (flag == EvtFormatMessageKeyword ? 1 : 0);
    return needed > chars ? needed : 0;
}

// Makes a heap buffer of `chars` characters the format buffer (the fixed one
// inside the channel is never freed). False when that much memory cannot be had.
bool growFormatBuffer(std::unique_ptr<wchar_t[]>& heap, wchar_t*& buffer, DWORD& size, DWORD chars) {
    std::unique_ptr<wchar_t[]> grown(new (std::nothrow) wchar_t[chars]);
    if (!grown) return false;
    heap = std::move(grown);
    buffer = heap.get();
    size = chars;
    return true;
}

// Names Winmeta.xml defines (levels, tasks, opcodes, keywords) are formatted
// without a publisher for any event; only the other texts show that the event
// carries its own rendering information.
bool winmetaFlag(DWORD flag) {
    return flag == EvtFormatMessageLevel || flag == EvtFormatMessageTask || flag == EvtFormatMessageOpcode ||
           flag == EvtFormatMessageKeyword;
}

void appendUnsigned(std::wstring& out, uint64_t n) {
    wchar_t digits[20];
    wchar_t* p = digits + 20;
    do {
        *--p = static_cast<wchar_t>(L'0' + n % 10);
        n /= 10;
    } while (n);
    out.append(p, static_cast<size_t>(digits + 20 - p));
}

void appendSigned(std::wstring& out, int64_t n) {
    if (n < 0) out += L'-';
    appendUnsigned(out, n < 0 ? 0 - static_cast<uint64_t>(n) : static_cast<uint64_t>(n));
}

void appendHex(std::wstring& out, uint64_t n) {
    static const wchar_t kDigits[] = L"0123456789abcdef";
    wchar_t digits[16];
    wchar_t* p = digits + 16;
    do {
        *--p = kDigits[n & 0xF];
        n >>= 4;
    } while (n);
    out += L"0x";
    out.append(p, static_cast<size_t>(digits + 16 - p));
}

// "2024-01-31T21:05:07.1234567Z", as the event's XML writes times.
void appendTime(std::wstring& out, const SYSTEMTIME& st, unsigned fraction, int fractionDigits) {
    wchar_t text[40];
    const int n = std::swprintf(text, 40, L"%04u-%02u-%02uT%02u:%02u:%02u.%0*uZ", st.wYear, st.wMonth, st.wDay,
                                st.wHour, st.wMinute, st.wSecond, fractionDigits, fraction);
    if (n > 0) out.append(text, static_cast<size_t>(n));
}

void appendSid(std::wstring& out, const void* sidBytes) {
    const auto* b = static_cast<const unsigned char*>(sidBytes);
    uint64_t authority = 0;
    for (int i = 0; i < 6; ++i) authority = (authority << 8) | b[2 + i];
    out += L"S-";
    appendUnsigned(out, b[0]);
    out += L'-';
    appendUnsigned(out, authority);
    for (unsigned i = 0; i < b[1]; ++i) {
        uint32_t sub;
        std::memcpy(&sub, b + 8 + 4 * i, sizeof sub);
        out += L'-';
        appendUnsigned(out, sub);
    }
}

// One event data value as text: strings as they are, numbers in decimal,
// hexadecimal types and pointers as 0x..., GUIDs, SIDs, times and binary data as
// the event's XML writes them. False for a value with nothing to show.
bool appendValueText(const EVT_VARIANT& v, std::wstring& out);

// An array value: its elements joined by ", ".
bool appendArrayText(const EVT_VARIANT& v, std::wstring& out) {
    const DWORD type = v.Type & EVT_VARIANT_TYPE_MASK;
    size_t size = 0;
    switch (type) {
    case EvtVarTypeSByte: case EvtVarTypeByte: size = 1; break;
    case EvtVarTypeInt16: case EvtVarTypeUInt16: size = 2; break;
    case EvtVarTypeInt32: case EvtVarTypeUInt32: case EvtVarTypeHexInt32: case EvtVarTypeBoolean: case EvtVarTypeSingle:
        size = 4;
        break;
    case EvtVarTypeInt64: case EvtVarTypeUInt64: case EvtVarTypeHexInt64: case EvtVarTypeDouble:
    case EvtVarTypeFileTime: case EvtVarTypeSizeT:
        size = 8;
        break;
    default: break;
    }
    bool any = false;
    for (DWORD i = 0; i < v.Count && v.ByteArr; ++i) {
        EVT_VARIANT e = {};
        e.Type = type;
        if (size) std::memcpy(&e, v.ByteArr + i * size, size);
        else if (type == EvtVarTypeString) e.StringVal = v.StringArr[i];
        else if (type == EvtVarTypeAnsiString) e.AnsiStringVal = v.AnsiStringArr[i];
        else if (type == EvtVarTypeGuid) e.GuidVal = v.GuidArr + i;
        else if (type == EvtVarTypeSid) e.SidVal = v.SidArr[i];
        else if (type == EvtVarTypeSysTime) e.SysTimeVal = v.SysTimeArr + i;
        else if (type == EvtVarTypeEvtXml) e.XmlVal = v.XmlValArr[i];
        else return any;
        const size_t mark = out.size();
        if (any) out += L", ";
        if (appendValueText(e, out)) any = true;
        else out.resize(mark);
    }
    return any;
}

bool appendValueText(const EVT_VARIANT& v, std::wstring& out) {
    if (v.Type & EVT_VARIANT_TYPE_ARRAY) return appendArrayText(v, out);
    wchar_t text[64];
    switch (v.Type) {
    case EvtVarTypeString:
    case EvtVarTypeEvtXml:
        if (!v.StringVal || !v.StringVal[0]) return false;
        out += v.StringVal;
        return true;
    case EvtVarTypeAnsiString: {
        if (!v.AnsiStringVal || !v.AnsiStringVal[0]) return false;
        const int n = ::MultiByteToWideChar(CP_ACP, 0, v.AnsiStringVal, -1, nullptr, 0);
        if (n <= 1) return false;
        const size_t at = out.size();
        out.resize(at + static_cast<size_t>(n));
        ::MultiByteToWideChar(CP_ACP, 0, v.AnsiStringVal, -1, &out[at], n);
        out.pop_back();  // the terminator
        return true;
    }
    case EvtVarTypeSByte: appendSigned(out, v.SByteVal); return true;
    case EvtVarTypeByte: appendUnsigned(out, v.ByteVal); return true;
    case EvtVarTypeInt16: appendSigned(out, v.Int16Val); return true;
    case EvtVarTypeUInt16: appendUnsigned(out, v.UInt16Val); return true;
    case EvtVarTypeInt32: appendSigned(out, v.Int32Val); return true;
    case EvtVarTypeUInt32: appendUnsigned(out, v.UInt32Val); return true;
    case EvtVarTypeInt64: appendSigned(out, v.Int64Val); return true;
    case EvtVarTypeUInt64: appendUnsigned(out, v.UInt64Val); return true;
    case EvtVarTypeHexInt32: appendHex(out, v.UInt32Val); return true;
    case EvtVarTypeHexInt64: appendHex(out, v.UInt64Val); return true;
    case EvtVarTypeSizeT: appendHex(out, v.SizeTVal); return true;
    case EvtVarTypeBoolean: out += v.BooleanVal ? L"true" : L"false"; return true;
    case EvtVarTypeSingle:
    case EvtVarTypeDouble: {
        const int n = std::swprintf(text, 64, L"%g", v.Type == EvtVarTypeSingle ? v.SingleVal : v.DoubleVal);
        if (n <= 0) return false;
        out.append(text, static_cast<size_t>(n));
        return true;
    }
    case EvtVarTypeGuid: {
        if (!v.GuidVal) return false;
        const GUID& g = *v.GuidVal;
        const int n = std::swprintf(text, 64, L"{%08lX-%04hX-%04hX-%02X%02X-%02X%02X%02X%02X%02X%02X}",
                                    static_cast<unsigned long>(g.Data1), g.Data2, g.Data3, g.Data4[0], g.Data4[1],
                                    g.Data4[2], g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
        if (n <= 0) return false;
        out.append(text, static_cast<size_t>(n));
        return true;
    }
    case EvtVarTypeSid:
        if (!v.SidVal || !::IsValidSid(v.SidVal)) return false;
        appendSid(out, v.SidVal);
        return true;
    case EvtVarTypeFileTime: {
        FILETIME ft;
        ft.dwLowDateTime = static_cast<DWORD>(v.FileTimeVal);
        ft.dwHighDateTime = static_cast<DWORD>(v.FileTimeVal >> 32);
        SYSTEMTIME st;
        if (!::FileTimeToSystemTime(&ft, &st)) return false;
        appendTime(out, st, static_cast<unsigned>(v.FileTimeVal % 10000000), 7);
        return true;
    }
    case EvtVarTypeSysTime:
        if (!v.SysTimeVal) return false;
        appendTime(out, *v.SysTimeVal, v.SysTimeVal->wMilliseconds, 3);
        return true;
    case EvtVarTypeBinary: {
        if (!v.BinaryVal || v.Count == 0) return false;
        static const wchar_t kDigits[] = L"0123456789ABCDEF";
        for (DWORD i = 0; i < v.Count; ++i) {
            out += kDigits[v.BinaryVal[i] >> 4];
            out += kDigits[v.BinaryVal[i] & 0xF];
        }
        return true;
    }
    default: return false;
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
    // Never past the buffer, whatever the service says it used.
    const auto visibleChars = [this](DWORD used) {
        return used != 0 && used < formatBufferChars_ ? used : formatBufferChars_;
    };
    // Transient service failures are retried. ERROR_INVALID_PARAMETER counts as
    // transient only for event-bound flags: a message-id look-up fails with it
    // for good when the id has no text.
    const bool parameterRetry = flag >= EvtFormatMessageEvent && flag <= EvtFormatMessageXml &&
                                flag != EvtFormatMessageId && messageId == kNoMessageId;
    unsigned attempts = 0;
    unsigned growths = 0;
    DWORD error = 0;
    DWORD used = 0;
    for (;;) {
        formatBuffer_[0] = L'\0';
        used = 0;
        const bool ok =
            format(metadata, event, messageId, 0, nullptr, flag, formatBufferChars_, formatBuffer_, &used) != FALSE;
        error = ok ? 0 : ::GetLastError();
        lastFormatError_ = error;

        if (const DWORD needed = charsToGrowTo(ok, error, used, flag, formatBufferChars_)) {
            if (needed <= kMaxFormatChars && growths++ < kMaxBufferGrowths &&
                growFormatBuffer(heapFormatBuffer_, formatBuffer_, formatBufferChars_, needed))
                continue;
            LOG_WARN("%s: EvtFormatMessage asks for a buffer of %lu characters, which is not given: flag='(%d)%s', "
                     "channel='%s'; only what fits is kept",
                     kFn, static_cast<unsigned long>(needed), static_cast<int>(flag), formatFlagName(flag),
                     channelName_.c_str());
            // What the buffer holds is still text, unless the call wrote nothing.
        }
        if (ok) {
            // Only what this call wrote: the buffer beyond it holds older texts.
            takeFormatted(formatBuffer_, visibleChars(used), flag, out);
            if (!metadata && event && !winmetaFlag(flag)) preRendered_ = true;
            return true;
        }

        if (resourcesMissing(error) && metadata) {
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
        takeFormatted(formatBuffer_, visibleChars(used), flag == EvtFormatMessageKeyword ? 0 : flag, out);
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
    // Every value with something to show, as text; never more values than the buffer holds.
    const auto* values = reinterpret_cast<const EVT_VARIANT*>(userValuesBuffer_.data());
    count = std::min<DWORD>(count, static_cast<DWORD>(userValuesBuffer_.size() / sizeof(EVT_VARIANT)));
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
