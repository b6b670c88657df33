#pragma once
// Whether what the local event collector delivers into a channel can be read the
// way the channel is set to read it (wec_event_format): events rendered at their
// source ("rendered_event") or raw events ("raw_event"). Reading rendered events
// as raw ones gives empty messages, and the reverse fails; a channel that would be
// misread is refused before it is opened.

#include <cstdint>
#include <string>
#include <vector>

#include "eventlog/EvtApi.h"

namespace skorva {

class CollectorSubscriptionCheck {
public:
    explicit CollectorSubscriptionCheck(const std::string& channelName) : channelName_(channelName) {}
    CollectorSubscriptionCheck(const CollectorSubscriptionCheck&) = delete;
    CollectorSubscriptionCheck& operator=(const CollectorSubscriptionCheck&) = delete;

    // Checks every enabled subscription that writes into the channel. One that
    // delivers rendered text turns "raw_event" into "rendered_event" and sets
    // `preRendered`, which is otherwise cleared once the subscriptions could be
    // listed. True when all fit, or when there is no collector to ask.
    bool run(std::string& eventFormat, bool& preRendered);

    // One property of an open subscription into `buffer`, its EC_VARIANT at the start.
    static bool getProperty(EC_HANDLE subscription, EC_SUBSCRIPTION_PROPERTY_ID id, std::vector<uint8_t>& buffer);

private:
    enum class Next { Name, End, Failed };
    // The next subscription's name into name_.
    Next nextName(EC_HANDLE subscriptions);
    bool checkSubscription(std::string& eventFormat, bool& preRendered);
    // The enabled state (an unreadable one counts as enabled: checked all the same).
    bool enabled(EC_HANDLE subscription);
    bool formatFits(uint32_t contentFormat, std::string& eventFormat, bool& preRendered);

    const std::string& channelName_;
    std::vector<wchar_t> name_;
    DWORD nameChars_ = 0;
    std::vector<uint8_t> value_;
    // A subscription of raw events was found: rendered ones can no longer be read alongside.
    bool rawAccepted_ = false;
};

}  // namespace skorva
