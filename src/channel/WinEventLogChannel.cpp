#include "channel/WinEventLogChannel.h"

#include "eventlog/WinEventLogAPIInitializer.h"
#include "platform/Clock.h"
#include "platform/Logger.h"

namespace skorva {

WinEventLogChannel::WinEventLogChannel(std::string channelName, ChannelSettings settings)
    : WinEventLogChannelBase(std::move(channelName), std::move(settings)) {
    LOG_DEBUG("%s Creating instance of WinEventLogChannel", "WinEventLogChannel::WinEventLogChannel");
}

WinEventLogChannel::~WinEventLogChannel() {
    LOG_DEBUG("%s destroying instance of WinEventLogChannel", "WinEventLogChannel::~WinEventLogChannel");
    checkpoints_.finalCheckpoint();
    if (active_->initialized()) uninit();
    cleanMetadataHandleCache(true);
}

bool WinEventLogChannel::init() {
    static const char* const fn = "WinEventLogChannel::init";
    LOG_DEBUG("%s: Initialize Event Log channel '%S'.", fn, channelNameW_.c_str());
    LOG_DEBUG("%s: eventFormat = %s", fn, settings_.wecEventFormat.c_str());

    const auto fail = [this] {
        uninit();
        return false;
    };
    reader_.forgetMissing();  // a refused channel is not a missing one
    if (WinEventLogAPIInitializer::isEcApiAvailable() &&
        !enumLocalWECSubscriptions(channelName_, settings_.wecEventFormat)) {
        LOG_ERROR("%s: Invalid config or enumLocalWECSubscriptions failure for channel = %s", fn,
                  channelName_.c_str());
        return fail();
    }
    if (settings_.resolveAdObj) bindDomainController(fn);
    const bool useLegacy = settings_.useOldApi || !WinEventLogAPIInitializer::isEvtApiAvailable();
    active_ = useLegacy ? static_cast<ChannelReader*>(&legacy_) : &reader_;
    checkpoints_.setLegacy(useLegacy);
    if (!active_->prepare(fn)) return fail();
    if (useLegacy) LOG_INFO("%s: Initializing Windows Event Log Api for XP", fn);
    if (!active_->open(fn)) return fail();
    active_->opened();
    LOG_INFO("%s: Successfully Initialized channel %s", fn, channelName_.c_str());
    return true;
}

void WinEventLogChannel::uninit() {
    active_->uninit();
    dc_.unbind();
}

// A channel whose controller cannot be bound still reads: its tokens stay as
// they are until a later bind succeeds.
void WinEventLogChannel::bindDomainController(const char* fn) {
    LOG_INFO("%s: Binding to DC to translate guids/sids for channel='%S'", fn, channelNameW_.c_str());
    const uint64_t started = tickNow();
    const bool bound = dc_.bind(settings_.dcName, settings_.dnsName, settings_.dcKind);
    const auto took = static_cast<unsigned long long>(tickNow() - started);
    if (bound)
        LOG_INFO("%s: Successfully bound to DC, dc_bind_time=%llu msec", fn, took);
    else
        LOG_ERROR("%s: Failed to bind to DC, dc_bind_time=%llu msec", fn, took);
}

bool WinEventLogChannel::includeEventWithEvtcodeMessage(const std::string& key, const std::string& value) const {
    static const char* const fn = "WinEventLogChannel::includeEventWithEvtcodeMessage";
    LOG_DEBUG("%s: Whitelist/Blacklist Processing for stanza: %s", fn, settings_.stanzaName.c_str());
    return settings_.filters.admitsValue(key, value, fn);
}

}  // namespace skorva
