#include "channel/WinEventLogChannelBase.h"

#include "directory/SidScanner.h"
#include "directory/SidStringTranslation.h"
#include "platform/Logger.h"
#include "platform/Strings.h"

namespace skorva {

void WinEventLogChannelBase::translateSidLocally(std::string& message, std::wstring& xml) {
    static const char* const kFn = "WinEventLogChannelBase::translateSidLocally";
    LOG_DEBUG("%s Translating sids locally. msg length is: %d XmlBlob length is %d", kFn,
              static_cast<int>(message.size()), static_cast<int>(xml.size()));

    // Only one text is translated: the XML when there is one, else the message.
    const bool inXml = !xml.empty();
    std::string& work = sidWorkText_;
    if (inXml)
        narrowInto(xml, work);
    else
        work = message;
    const size_t limit = work.size();

    std::string sid;
    std::string pattern;
    std::wstring translation;
    std::string replacement;
    SidMatch match;
    size_t pos = 0;
    bool changed = false;
    while (findNextSid(work, pos, limit, match)) {
        sid.assign(match.sid);
        pattern.assign(match.pattern);
        pos = match.next;
        if (!translateSidString(sid, translation)) continue;
        narrowInto(translation, replacement);
        LOG_DEBUG("%s found: %s, replace with %s ", kFn, sid.c_str(), replacement.c_str());
        changed |= replaceAll(inXml ? work : message, pattern, replacement) > 0;
    }
    if (inXml && changed) widenInto(work, xml);
}

}  // namespace skorva
