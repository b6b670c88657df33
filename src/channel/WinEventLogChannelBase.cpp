#include "channel/WinEventLogChannelBase.h"

#include "platform/Strings.h"

namespace skorva {

WinEventLogChannelBase::WinEventLogChannelBase(std::string channelName, ChannelSettings settings)
    : channelName_(std::move(channelName)), channelNameW_(widen(channelName_)), settings_(std::move(settings)) {}

WinEventLogChannelBase::~WinEventLogChannelBase() = default;

bool WinEventLogChannelBase::includeEvent(uint32_t eventCode) const {
    return settings_.filters.admitsCode(eventCode, "WinEventLogChannelBase::includeEvent", channelName_);
}

bool WinEventLogChannelBase::transADObject(const std::wstring& object, std::wstring& out, DWORD offeredFormat,
                                           DWORD wantedFormat) {
    return adTranslator_.translate(object, out, offeredFormat, wantedFormat);
}

}  // namespace skorva
