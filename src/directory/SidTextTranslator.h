#pragma once
// Rewrites the SID strings of an event's text ("S-1-5-18", "%{S-1-5-18}") with
// their account names, through the SID cache.

#include <string>

namespace skorva {

class SidTextTranslator {
public:
    // Only one text is translated: the XML when there is one, else the message.
    void translate(std::string& message, std::wstring& xml);

private:
    // Reused from event to event.
    std::string work_;
    std::string sid_;
    std::string pattern_;
    std::wstring translation_;
    std::string replacement_;
};

}  // namespace skorva
