#include "channel/WinEventLogChannel.h"

#include "platform/Logger.h"

namespace skorva {

WinEventLogChannel::WinEventLogChannel(std::string channelName, ChannelSettings settings)
    : WinEventLogChannelBase(std::move(channelName), std::move(settings)) {
    LOG_DEBUG("%s Creating instance of WinEventLogChannel", "WinEventLogChannel::WinEventLogChannel");
    initCheckpointState();
}

WinEventLogChannel::~WinEventLogChannel() {
    LOG_DEBUG("%s destroying instance of WinEventLogChannel", "WinEventLogChannel::~WinEventLogChannel");
    finalCheckpoint();
    if (initialized_) uninit();
    cleanMetadataHandleCache(true);
}

}  // namespace skorva
