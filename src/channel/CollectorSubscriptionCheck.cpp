#include "channel/CollectorSubscriptionCheck.h"

#include <cstring>

#include "eventlog/BufferGrowth.h"
#include "platform/Logger.h"
#include "platform/SkorvaException.h"
#include "platform/Strings.h"

namespace skorva {

namespace {

const char* const kEnumFn = "WinEventLogChannelBase::enumLocalWECSubscriptions";
const char* const kPropertyFn = "WinEventLogChannelBase::getWECSubscriptionProperty";
const char* const kRendered = "rendered_event";
const char* const kRaw = "raw_event";
constexpr DWORD kReadAccess = 1;    // EC_READ_ACCESS (MinGW's evcoll.h lacks the constants)
constexpr DWORD kOpenExisting = 2;  // EC_OPEN_EXISTING
constexpr unsigned kMaxSubscriptions = 10000;
constexpr DWORD kFirstNameChars = 128;

// The value at the start of a property buffer; a buffer too short to hold one
// reads as a property never set.
EC_VARIANT variantOf(const std::vector<uint8_t>& buffer) {
    EC_VARIANT v = {};
    v.Type = EcVarTypeNull;
    if (buffer.size() >= sizeof v) std::memcpy(&v, buffer.data(), sizeof v);
    return v;
}

}  // namespace

bool CollectorSubscriptionCheck::getProperty(EC_HANDLE subscription, EC_SUBSCRIPTION_PROPERTY_ID id,
                                             std::vector<uint8_t>& buffer) {
    const auto get = apiTable().ec.EcGetSubscriptionProperty;
    if (!get) {
        LOG_ERROR("%s: callEcGetSubscriptionProperty Failed! errorcode: %x", kPropertyFn,
                  static_cast<unsigned>(ERROR_PROC_NOT_FOUND));
        return false;
    }
    // The first call, without a buffer, asks for the size; the buffer is then
    // made sixteen times that, generously.
    DWORD capacity = 0;
    BufferGrowth growth;
    growth.over = 16;
    const SizedCall call = callSized(buffer, capacity, growth, [&](uint8_t* data, DWORD size, DWORD& used) {
        if (size) LOG_INFO("%s: calling callEcGetSubscriptionProperty again", kPropertyFn);
        const BOOL ok = get(subscription, id, 0, size, reinterpret_cast<PEC_VARIANT>(data), &used);
        if (!ok && !size && ::GetLastError() == ERROR_INSUFFICIENT_BUFFER) {
            KeepLastError keep;
            LOG_DEBUG("%s: callEcGetSubscriptionProperty: Insufficient buffer, reallocate %d bytes", kPropertyFn,
                      static_cast<int>(used));
        }
        return ok;
    });
    if (call.ok) return true;
    if (call.growths == 0 && call.error != ERROR_INSUFFICIENT_BUFFER)
        LOG_ERROR("%s: callEcGetSubscriptionProperty Failed! errorcode: %x", kPropertyFn,
                  static_cast<unsigned>(call.error));
    else
        LOG_ERROR("%s: callEcGetSubscriptionProperty Failed after realloc! errorcode: %x", kPropertyFn,
                  static_cast<unsigned>(call.error));
    return false;
}

bool CollectorSubscriptionCheck::run(std::string& eventFormat, bool& preRendered) {
    const EcApi& api = apiTable().ec;
    // The group counts as available without this name; nothing can be checked then.
    if (!api.EcGetSubscriptionProperty) {
        LOG_WARN("%s: The event collector library has no EcGetSubscriptionProperty; the subscriptions into channel "
                 "%s are not checked.",
                 kEnumFn, channelName_.c_str());
        return true;
    }
    UniqueEcHandle subscriptions(api.EcOpenSubscriptionEnum(0));
    if (!subscriptions) {
        LOG_WARN("%s: Cannot open enumeration handle. Error: %s Skipping enumeration.", kEnumFn,
                 systemErrorText(::GetLastError()).c_str());
        return true;
    }
    preRendered = false;
    rawAccepted_ = false;
    for (unsigned i = 0; i < kMaxSubscriptions; ++i) {
        const Next next = nextName(subscriptions.get());
        if (next != Next::Name) return next == Next::End;
        if (!checkSubscription(eventFormat, preRendered)) return false;
    }
    return true;
}

CollectorSubscriptionCheck::Next CollectorSubscriptionCheck::nextName(EC_HANDLE subscriptions) {
    const auto enumNext = apiTable().ec.EcEnumNextSubscription;
    if (name_.empty() && growBuffer(name_, kFirstNameChars)) nameChars_ = kFirstNameChars;
    const SizedCall call = callSized(name_, nameChars_, BufferGrowth{}, [&](wchar_t* data, DWORD chars, DWORD& used) {
        const BOOL ok = enumNext(subscriptions, chars, data, &used);
        if (!ok && ::GetLastError() == ERROR_INSUFFICIENT_BUFFER) {
            KeepLastError keep;
            LOG_DEBUG("%s: callEcEnumNextSubscription: Insufficient buffer, reallocate %d bytes", kEnumFn,
                      static_cast<int>(used));
        }
        return ok;
    });
    if (call.ok && nameChars_) {
        name_[nameChars_ - 1] = L'\0';
        return Next::Name;
    }
    if (call.growths == 0 && call.error == ERROR_NO_MORE_ITEMS) {
        LOG_DEBUG("%s: callEcEnumNextSubscription No more items", kEnumFn);
        return Next::End;
    }
    if (call.growths == 0 && call.error != ERROR_INSUFFICIENT_BUFFER)
        LOG_ERROR("%s: callEcEnumNextSubscription Failed with error %x, exiting", kEnumFn,
                  static_cast<unsigned>(call.error));
    else
        LOG_ERROR("%s: callEcEnumNextSubscription Failed! errorcode: %x", kEnumFn, static_cast<unsigned>(call.error));
    return Next::Failed;
}

bool CollectorSubscriptionCheck::enabled(EC_HANDLE subscription) {
    if (!getProperty(subscription, EcSubscriptionEnabled, value_)) {
        LOG_ERROR("%s: getWECSubscriptionProperty Failed for property EcSubscriptionEnabled! continuing though",
                  kEnumFn);
        return true;
    }
    const EC_VARIANT v = variantOf(value_);
    // Never set: a subscription is enabled unless told otherwise.
    const bool on = v.Type != EcVarTypeBoolean || v.BooleanVal != FALSE;
    LOG_DEBUG("%s: ChannelStatusBuffer->BinaryVal = %d", kEnumFn, on ? 1 : 0);
    return on;
}

bool CollectorSubscriptionCheck::checkSubscription(std::string& eventFormat, bool& preRendered) {
    const EcApi& api = apiTable().ec;
    UniqueEcHandle subscription(api.EcOpenSubscription(name_.data(), kReadAccess, kOpenExisting));
    if (!subscription) {
        LOG_ERROR("%s: callEcOpenSubscription Failed! errorcode: %x", kEnumFn, static_cast<unsigned>(::GetLastError()));
        return false;
    }
    if (!enabled(subscription.get())) return true;
    if (!getProperty(subscription.get(), EcSubscriptionLogFile, value_)) {
        LOG_ERROR("%s: getWECSubscriptionProperty Failed for property EcSubscriptionLogFile!", kEnumFn);
        return false;
    }
    const EC_VARIANT log = variantOf(value_);
    const wchar_t* logFile = log.Type == EcVarTypeString && log.StringVal ? log.StringVal : L"";
    LOG_DEBUG("%s: ChannelNameBuffer->BinaryVal = '%ls' skorvachannel name = %s", kEnumFn, logFile,
              channelName_.c_str());
    if (narrow(logFile) != channelName_) return true;

    LOG_DEBUG("%s: Found matching channel %s, proceed with contentFormat validation", kEnumFn, channelName_.c_str());
    if (!getProperty(subscription.get(), EcSubscriptionContentFormat, value_)) {
        LOG_ERROR("%s: getWECSubscriptionProperty Failed for property EcSubscriptionContentFormat!", kEnumFn);
        return false;
    }
    const EC_VARIANT format = variantOf(value_);
    const uint32_t contentFormat = format.Type == EcVarTypeUInt32 ? format.UInt32Val : 0;
    LOG_DEBUG("%s: ContentFormatBuffer->UInt32Val = %d", kEnumFn, static_cast<int>(contentFormat));
    return formatFits(contentFormat, eventFormat, preRendered);
}

bool CollectorSubscriptionCheck::formatFits(uint32_t contentFormat, std::string& eventFormat, bool& preRendered) {
    const wchar_t* name = name_.data();
    switch (contentFormat) {
    case EcContentFormatRenderedText:
        // Rendered events can only be read as such, unless raw ones arrive too.
        if (eventFormat == kRendered || (eventFormat == kRaw && !rawAccepted_)) {
            eventFormat = kRendered;
            preRendered = true;
            return true;
        }
        LOG_ERROR("%s: subscription:'%ls' - Invalid WEC content-format RenderedText, for skorva-format = %s. See the "
                  "description for the 'wec_event_format' setting at $SKORVA_HOME/etc/system/README/"
                  "inputs.conf.spec for more details. ",
                  kEnumFn, name, eventFormat.c_str());
        return false;
    case EcContentFormatEvents:
        if (eventFormat == kRaw) {
            rawAccepted_ = true;
            return true;
        }
        LOG_ERROR("%s: subscription:'%ls' - Invalid WEC content-format:'Events', for skorva-format = %sSee the "
                  "description for the 'wec_event_format' setting at $SKORVA_HOME/etc/system/README/"
                  "inputs.conf.spec for more details. ",
                  kEnumFn, name, eventFormat.c_str());
        return false;
    default:
        LOG_ERROR("%s: subscription:'%ls' - Unknown WEC content-format = %d for skorva-format %s", kEnumFn, name,
                  static_cast<int>(contentFormat), eventFormat.c_str());
        return false;
    }
}

}  // namespace skorva
