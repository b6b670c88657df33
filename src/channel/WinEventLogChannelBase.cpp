#include "channel/WinEventLogChannelBase.h"

#include "channel/CollectorSubscriptionCheck.h"
#include "platform/Strings.h"

namespace skorva {

WinEventLogChannelBase::WinEventLogChannelBase(std::string channelName, ChannelSettings settings)
    : channelName_(std::move(channelName)), channelNameW_(widen(channelName_)), settings_(std::move(settings)) {}

WinEventLogChannelBase::~WinEventLogChannelBase() = default;

bool WinEventLogChannelBase::includeEvent(uint32_t eventCode) const {
    return settings_.filters.admitsCode(eventCode, "WinEventLogChannelBase::includeEvent", channelName_);
}

bool WinEventLogChannelBase::enumLocalWECSubscriptions(const std::string& channelName, std::string& eventFormat) {
    bool preRendered = formatter_.preRendered();
    const bool ok = CollectorSubscriptionCheck(channelName).run(eventFormat, preRendered);
    formatter_.setPreRendered(preRendered);
    return ok;
}

bool WinEventLogChannelBase::getWECSubscriptionProperty(EC_HANDLE subscription, EC_SUBSCRIPTION_PROPERTY_ID id,
                                                        std::vector<uint8_t>& value) {
    return CollectorSubscriptionCheck::getProperty(subscription, id, value);
}

bool WinEventLogChannelBase::transADObject(const std::wstring& object, std::wstring& out, DWORD offeredFormat,
                                           DWORD wantedFormat) {
    return adTranslator_.translate(object, out, offeredFormat, wantedFormat);
}

}  // namespace skorva
