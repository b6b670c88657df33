#pragma once
// Rewrites the SID strings of an event's text ("S-1-5-18", "%{S-1-5-18}") with
// their account names, through the SID cache.

#include <array>
#include <string>
#include <string_view>

#include "directory/SidStringTranslation.h"

namespace skorva {

class SidTextTranslator {
public:
    // Only one text is translated: the XML when there is one, else the message.
    // The message is rewritten in place; the XML is rewritten into `xmlOut`, in
    // UTF-8 as it goes out (left empty when there is no XML), so that it is not
    // widened again only to be narrowed for sending.
    void translate(std::wstring& message, std::wstring_view xml, std::string& xmlOut);

private:
    // Replaces in `text` the SIDs found in `scanned` (`text` itself or a copy).
    bool rewrite(const std::string& scanned, std::string& text);
    // The name for sid_ in replacement_; false when it does not translate.
    bool replacementFor();

    // The last answers the SID cache gave, as they go into a text: the same
    // few accounts fill a channel's events, and a copy that is still the
    // cache's answer spares the look-up, the joining and the conversion.
    struct Remembered {
        std::string sid;
        std::string replacement;
        SidAnswer answer;
    };
    std::array<Remembered, 8> remembered_;
    size_t nextSlot_ = 0;

    // Reused from event to event.
    std::string message_;
    std::string scanned_;
    std::string sid_;
    std::string pattern_;
    std::wstring translation_;
    std::wstring account_;
    std::wstring domain_;
    std::string replacement_;
};

}  // namespace skorva
