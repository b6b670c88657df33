#include "directory/AdObjectNames.h"

#include "platform/Clock.h"
#include "platform/Logger.h"
#include "platform/Strings.h"

namespace skorva {

namespace {

const char* const kFn = "WinEventLogChannel::insertAdObjectNames";
constexpr size_t kRescanLength = 40;  // translations this long may hold tokens themselves

// A name put into the event's XML must keep it well formed ("CN=R&D,...").
void escapeXml(const std::wstring& text, std::wstring& out) {
    out.clear();
    for (wchar_t c : text) {
        switch (c) {
        case L'&': out += L"&amp;"; break;
        case L'<': out += L"&lt;"; break;
        case L'>': out += L"&gt;"; break;
        case L'\'': out += L"&apos;"; break;
        case L'"': out += L"&quot;"; break;
        default: out += c;
        }
    }
}

}  // namespace

bool AdObjectNames::skipsGuids(uint32_t eventCode) const {
    for (const EventCodeRange& r : settings_.guidSkipCodes)
        if (r.first <= eventCode && eventCode <= r.second) return true;
    return false;
}

uint8_t AdObjectNames::insert(uint32_t eventCode, std::wstring_view message, std::string& out, std::wstring& xml,
                              bool blacklistCheck, int depth) {
    if (message.empty()) return 0;
    const bool skip = skipsGuids(eventCode);
    const bool inXml = !xml.empty();  // the names go into the XML, not into `out`
    std::wstring& object = object_[depth];
    std::wstring& translation = translation_[depth];
    uint8_t result = 0;
    size_t last = 0;  // end of the last translated token
    AdToken token;
    for (size_t pos = 0; pos < message.size() && nextAdToken(message, pos, skip, token);) {
        pos = token.resume;
        if (token.kind == AdToken::kSkippedGuid) {
            object.assign(token.skippedGuid(message));
            LOG_INFO("Skipping GUID translation %S for event code %u", object.c_str(), eventCode);
            continue;
        }
        if (token.kind == AdToken::kNotTranslated) continue;
        if (!inXml) appendNarrow(message.substr(last, token.start - last), out);
        last = token.resume;
        object.assign(token.collected());
        const uint64_t started = tickNow();
        const bool ok = cache_.lookupAdObj(object, token.offeredFormat(), token.wantedFormat(), translation);
        LOG_INFO("%s: transADObject '%S', =%llu msec, retVal=%d blob length=%d", kFn, object.c_str(),
                 static_cast<unsigned long long>(tickNow() - started), ok ? 1 : 0,
                 ok ? static_cast<int>(translation.size()) : 0);
        if (!ok) {
            if (!inXml) appendNarrow(object, out);
            continue;
        }
        result = 1;
        if (!xml.empty()) replaceInXml(token, translation, xml);
        if (translation.size() < kRescanLength || depth >= kMaxDepth) {
            if (!inXml) appendNarrow(translation, out);
        } else {
            LOG_INFO("%s: Calling recursively insertAdObjectNames, count='%d', adObj='%S'", kFn, depth + 1,
                     translation.c_str());
            // The blacklist is asked after this token, about the whole text so far.
            insert(eventCode, translation, out, xml, false, depth + 1);
        }
        if (blacklistCheck && blacklistEnds(token, translation, out, xml)) return 1;
    }
    if (!inXml && last < message.size() && message[last] != L'.') appendNarrow(message.substr(last), out);
    return result;
}

void AdObjectNames::bracedToken(const AdToken& token, std::wstring& out) const {
    out.clear();
    if (token.kind == AdToken::kSid) out += L'{';
    out.append(token.collected());
    if (token.kind == AdToken::kSid) out += L'}';
}

void AdObjectNames::replaceInXml(const AdToken& token, const std::wstring& translation, std::wstring& xml) {
    bracedToken(token, pattern_);
    if (token.percent) pattern_.insert(0, 1, L'%');
    escapeXml(translation, replacement_);
    LOG_DEBUG("%s: XML replacing %s with %s", kFn, narrow(pattern_).c_str(), narrow(replacement_).c_str());
    replaceAll(xml, pattern_, replacement_);
}

// The blacklist asked about the text translated so far. An object is
// remembered as blacklisted only when its name alone is what a blacklist rule
// rejects: text elsewhere in this event (an account name) says nothing about
// other events that name the same object.
bool AdObjectNames::blacklistEnds(const AdToken& token, const std::wstring& translation, const std::string& out,
                                  const std::wstring& xml) {
    const FilterSet& filters = settings_.filters;
    const char* const fn = "WinEventLogChannel::includeEventWithEvtcodeMessage";
    if (!xml.empty()) narrowInto(xml, narrow_);
    if (!filters.blacklistsMessage(xml.empty() ? std::string_view(out) : std::string_view(narrow_), !xml.empty(), fn))
        return false;
    narrowInto(translation, narrow_);
    if (filters.blacklistsMessageValue(narrow_, fn)) {
        bracedToken(token, pattern_);
        memo_.remember(pattern_, true);
    }
    return true;
}

}  // namespace skorva
