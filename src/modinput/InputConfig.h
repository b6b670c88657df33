#pragma once
// The configuration document the daemon writes on standard input, as read.

#include <map>
#include <string>

namespace skorva {

struct Stanza {
    std::string name;
    std::map<std::string, std::string> params;  // parameter name to value
};

struct InputConfig {
    std::string serverHost;
    std::string serverUri;
    std::string sessionKey;
    std::string checkpointDir;
    std::map<std::string, Stanza> stanzas;  // ordered by stanza name
};

}  // namespace skorva
