#include "channel/AdObjectStep.h"

#include "channel/ClassicText.h"
#include "filter/EventTextLookup.h"
#include "platform/Clock.h"
#include "platform/Logger.h"
#include "platform/Strings.h"

namespace skorva {

namespace {

const char* const kFn = "WinEventLogChannel::getEventsNew";
constexpr uint64_t kSlowTranslationMs = 10;

}  // namespace

bool AdObjectStep::apply(EventRecord& record) {
    const uint64_t started = tickNow();
    const bool keep = decide(record);
    const uint64_t took = tickNow() - started;
    if (took > kSlowTranslationMs)
        LOG_INFO("%s: trans_one_event=%llu msec", kFn, static_cast<unsigned long long>(took));
    return keep;
}

bool AdObjectStep::decide(EventRecord& record) {
    const bool xml = !record.xml.empty();
    // Rules on the message read nothing in classic text that leaves it out.
    const bool messageRules = settings_.filters.hasMessageKeys() &&
                              (xml || !settings_.excludedFields.count(std::wstring_view(L"Message")));
    bool tested = false;
    if (skipsWholeChannel()) {
        if (messageRules && !objectFilterAdmits(record)) return false;
    } else {
        tested = record.eventCode != 0 && !inSkipList(record.eventCode);
        if (tested && knownBlacklisted(record)) return false;
    }
    // In XML the event's own values follow the System part, whose GUIDs (the
    // provider's, an activity's) name no directory object.
    const size_t system = xml ? findText(record.xml, L"</System>") : std::wstring::npos;
    const size_t from = system == std::wstring::npos ? 0 : system + 9;
    if (findText(xml ? record.xml : record.message, L"{", from) != std::wstring::npos) {
        if (!admittedAsRead(record)) return false;
        translate(record, from, tested && messageRules);
    }
    return !(tested && messageRules) || objectFilterAdmits(record);
}

bool AdObjectStep::skipsWholeChannel() const {
    for (const EventCodeRange& r : settings_.guidSkipCodes)
        if (r.first == 0 && r.second >= UINT16_MAX) return true;
    return false;
}

bool AdObjectStep::inSkipList(uint32_t eventCode) const {
    for (const EventCodeRange& r : settings_.guidSkipCodes)
        if (r.first <= eventCode && eventCode <= r.second) return true;
    return false;
}

// The memo holds objects whose names a Message rule rejects: they count only
// in the event's message (in XML, RenderingInfo/Message).
bool AdObjectStep::knownBlacklisted(const EventRecord& record) {
    if (memo_.size() == 0) return false;
    const std::wstring* message = &record.message;
    if (!record.xml.empty()) {
        narrowInto(record.xml, text_);
        std::string_view value;
        if (!lookupXmlValue(text_, "Message", value)) return false;
        widenInto(value, data_);
        message = &data_;
    }
    const std::wstring* object = memo_.blacklistedIn(*message);
    if (!object) return false;
    LOG_INFO("%s: Blacklisted ad object is adObj='%S' EventCode=%d", kFn, object->c_str(),
             static_cast<int>(record.eventCode));
    return true;
}

// The stanza's rules that name tokens ("%{bf967aba-...}") read the event as it
// came, before the names replace the tokens.
bool AdObjectStep::admittedAsRead(EventRecord& record) {
    const FilterSet& filters = settings_.filters;
    if (!filters.hasTokenRules()) return true;
    const bool xml = !record.xml.empty();
    if (xml) {
        narrowInto(record.xml, text_);
    } else {
        // The message joins the classic text last, as it is sent.
        classicText(record.fields, text_);
        if (!settings_.excludedFields.count(std::wstring_view(L"Message"))) {
            if (!text_.empty()) text_ += '\n';
            text_ += "Message=";
            appendNarrow(record.message, text_);
        }
    }
    const std::string* pattern = nullptr;
    if (filters.admitsAsRead(text_, xml, "WinEventMon::include_event", record.tokenRules, pattern)) return true;
    LOG_INFO("%s: Blacklisted ad object is adObj='%S' EventCode=%d", kFn, widen(*pattern).c_str(),
             static_cast<int>(record.eventCode));
    return false;
}

void AdObjectStep::translate(EventRecord& record, size_t from, bool blacklistCheck) {
    out_.clear();
    if (record.xml.empty()) {
        if (names_.insert(record.eventCode, record.message, out_, noXml_, blacklistCheck, 0))
            widenInto(out_, record.message);
        return;
    }
    // The names go into the XML itself; the scanned copy is left alone.
    data_.assign(record.xml, from);
    names_.insert(record.eventCode, data_, out_, record.xml, blacklistCheck, 0);
}

bool AdObjectStep::objectFilterAdmits(const EventRecord& record) {
    static const char* const fn = "WinEventLogChannel::includeEventWithEvtcodeMessage";
    const FilterSet& filters = settings_.filters;
    LOG_DEBUG("%s: Whitelist/Blacklist Processing for stanza: %s", fn, settings_.stanzaName.c_str());
    const bool xml = !record.xml.empty();
    narrowInto(xml ? record.xml : record.message, text_);
    for (std::string_view key : {std::string_view("Message"), kObjectTypeKey}) {
        std::string_view value;
        const bool found = xml ? lookupXmlValue(text_, key, value) : lookupMessageValue(text_, key, value);
        if (found && !filters.admitsValue(key, value, fn, record.tokenRules)) return false;
    }
    return true;
}

}  // namespace skorva
