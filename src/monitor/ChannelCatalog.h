#pragma once
// The event log channels the system knows: by the modern API's enumeration,
// or on systems without it from the classic logs under the EventLog service key.

#include <map>
#include <string>

namespace skorva {

class ChannelCatalog {
public:
    // Look-up key (lower-cased name) to the name as the system spells it.
    using KnownChannelMap = std::map<std::string, std::string>;

    // False only when no listing could be started at all; channels found
    // before a failure stay.
    bool enumerate();
    const KnownChannelMap& known() const { return known_; }
    KnownChannelMap& known() { return known_; }

private:
    bool enumerateRegistry();
    bool enumerateApi();
    void add(const std::string& name);

    KnownChannelMap known_;
};

}  // namespace skorva
