#include "directory/SidTextTranslator.h"

#include "directory/SidScanner.h"
#include "directory/SidStringTranslation.h"
#include "platform/Logger.h"
#include "platform/Strings.h"

namespace skorva {

namespace {
const char* const kFn = "WinEventLogChannelBase::translateSidLocally";
}

void SidTextTranslator::translate(std::wstring& message, std::wstring_view xml, std::string& xmlOut) {
    narrowInto(message, message_);
    LOG_DEBUG("%s Translating sids locally. msg length is: %d XmlBlob length is %d", kFn,
              static_cast<int>(message_.size()), static_cast<int>(xml.size()));
    if (!xml.empty()) {
        // The XML is scanned as it is rewritten.
        narrowInto(xml, xmlOut);
        rewrite(xmlOut, xmlOut);
        return;
    }
    xmlOut.clear();
    // The message is scanned as it came, so that no name put in is scanned.
    scanned_ = message_;
    if (rewrite(scanned_, message_)) widenInto(message_, message);
}

bool SidTextTranslator::rewrite(const std::string& scanned, std::string& text) {
    const size_t limit = scanned.size();
    SidMatch match;
    size_t pos = 0;
    bool changed = false;
    while (findNextSid(scanned, pos, limit, match)) {
        sid_.assign(match.sid);
        pattern_.assign(match.pattern);
        pos = match.next;
        if (!replacementFor()) continue;
        LOG_DEBUG("%s found: %s, replace with %s ", kFn, sid_.c_str(), replacement_.c_str());
        if (replaceAll(text, pattern_, replacement_) == 0) continue;
        changed = true;
        // A text changed under the scan may hold a "%{" it did not.
        if (&scanned == &text) match.noWrapped = false;
    }
    return changed;
}

bool SidTextTranslator::replacementFor() {
    const SidLookupCache& cache = SidLookupCache::instance();
    for (const Remembered& r : remembered_) {
        if (r.sid != sid_ || !r.answer.cached || !cache.stillCurrent(r.answer.stamp)) continue;
        if (!reportSidAnswer(sid_, r.answer.error)) return false;
        replacement_ = r.replacement;
        return true;
    }
    SidAnswer answer;
    const bool translated = translateSidString(sid_, translation_, account_, domain_, &answer);
    if (translated) narrowInto(translation_, replacement_);
    if (answer.cached) {
        Remembered& slot = remembered_[nextSlot_];
        nextSlot_ = (nextSlot_ + 1) % remembered_.size();
        slot.sid = sid_;
        slot.replacement = translated ? replacement_ : std::string();
        slot.answer = answer;
    }
    return translated;
}

}  // namespace skorva
