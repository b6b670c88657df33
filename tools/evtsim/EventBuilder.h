#pragma once
// Builds event XML in the service's schema and layout, for the generator and tests.

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace evtsim {

struct EventSpec {
    std::string provider = "Evtsim-Test";
    std::string providerGuid;  // "{...}" or empty
    unsigned eventId = 1;
    unsigned qualifiers = 0;   // written only when `classic` is set
    bool classic = false;      // classic sources: EventID carries Qualifiers, no Guid
    unsigned version = 0, level = 4, task = 0, opcode = 0;
    uint64_t keywords = 0x8000000000000000ull;
    std::string timeCreated = "2024-01-31T21:05:07.1234567Z";
    unsigned processId = 4, threadId = 8;
    std::string channel;  // empty: the store writes the channel's name
    std::string computer = "host.example.test";
    std::string userSid;  // empty: <Security/>
    bool userData = false;  // data as <UserData><EventXML>...</EventXML></UserData>
    std::vector<std::pair<std::string, std::string>> data;  // name (may be empty), value
    std::string binary;  // hexadecimal bytes of EventData/Binary, as classic sources log data
    // Forwarded events carry their texts.
    bool rendering = false;
    std::string renderMessage, renderLevel, renderTask, renderOpcode, renderChannel, renderProvider;
    std::vector<std::string> renderKeywords;
};

std::string buildEventXml(const EventSpec& event);

}  // namespace evtsim
