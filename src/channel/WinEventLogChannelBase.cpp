#include "channel/WinEventLogChannelBase.h"

#include "platform/Strings.h"

namespace skorva {

WinEventLogChannelBase::WinEventLogChannelBase(std::string channelName, ChannelSettings settings)
    : channelName_(std::move(channelName)), channelNameW_(widen(channelName_)), settings_(std::move(settings)) {
    eventTypeNames_ = {{0, L"Success"}, {1, L"Error"}, {2, L"Warning"},
                       {4, L"Information"}, {8, L"Success Audit"}, {16, L"Failure Audit"}};
}

WinEventLogChannelBase::~WinEventLogChannelBase() = default;

bool WinEventLogChannelBase::transADObject(const std::wstring&, std::wstring&, DWORD, DWORD) { return false; }

}  // namespace skorva
