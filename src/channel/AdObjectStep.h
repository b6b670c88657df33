#pragma once
// The reader's directory step for one event (evt_resolve_ad_obj): the event
// code's place in the GUID skip list, the directory objects the channel drops
// (the blacklist memo, and the stanza's rules naming tokens, decided on the
// event as read), the names put in place of the tokens of the message (or of
// the XML), and the directory-object filter on the result. src/filter/README.md
// ("Directory objects") says what the operator gets.

#include <string>

#include "channel/EventRecord.h"
#include "config/ChannelSettings.h"
#include "directory/AdObjBlacklistMemo.h"
#include "directory/AdObjectNames.h"

namespace skorva {

class AdObjectStep {
public:
    AdObjectStep(const ChannelSettings& settings, AdObjectNames& names, const AdObjBlacklistMemo& memo)
        : settings_(settings), names_(names), memo_(memo) {}
    AdObjectStep(const AdObjectStep&) = delete;
    AdObjectStep& operator=(const AdObjectStep&) = delete;

    // False when the event is dropped.
    bool apply(EventRecord& record);

private:
    bool decide(EventRecord& record);
    // evt_skip_GUID_resolution = * (every event code).
    bool skipsWholeChannel() const;
    bool inSkipList(uint32_t eventCode) const;
    bool knownBlacklisted(const EventRecord& record);
    bool admittedAsRead(EventRecord& record);
    // `from`: where the text to translate starts (in XML, after System).
    void translate(EventRecord& record, size_t from, bool blacklistCheck);
    // The single key/value check on the message-bearing values of the event.
    bool objectFilterAdmits(const EventRecord& record);

    const ChannelSettings& settings_;
    AdObjectNames& names_;
    const AdObjBlacklistMemo& memo_;
    // Reused from event to event.
    std::string text_;
    std::string out_;
    std::wstring data_;
    std::wstring noXml_;
};

}  // namespace skorva
