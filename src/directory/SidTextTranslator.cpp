#include "directory/SidTextTranslator.h"

#include "directory/SidScanner.h"
#include "directory/SidStringTranslation.h"
#include "platform/Logger.h"
#include "platform/Strings.h"

namespace skorva {

void SidTextTranslator::translate(std::string& message, std::wstring& xml) {
    static const char* const kFn = "WinEventLogChannelBase::translateSidLocally";
    LOG_DEBUG("%s Translating sids locally. msg length is: %d XmlBlob length is %d", kFn,
              static_cast<int>(message.size()), static_cast<int>(xml.size()));

    const bool inXml = !xml.empty();
    if (inXml)
        narrowInto(xml, work_);
    else
        work_ = message;
    const size_t limit = work_.size();

    SidMatch match;
    size_t pos = 0;
    bool changed = false;
    while (findNextSid(work_, pos, limit, match)) {
        sid_.assign(match.sid);
        pattern_.assign(match.pattern);
        pos = match.next;
        if (!translateSidString(sid_, translation_)) continue;
        narrowInto(translation_, replacement_);
        LOG_DEBUG("%s found: %s, replace with %s ", kFn, sid_.c_str(), replacement_.c_str());
        changed |= replaceAll(inXml ? work_ : message, pattern_, replacement_) > 0;
    }
    if (inXml && changed) widenInto(work_, xml);
}

}  // namespace skorva
