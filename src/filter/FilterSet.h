#pragma once
// The whitelist and blacklist of one channel, and the three checks made with
// them: the event-code ranges before an event is rendered, the key/regex rules
// on its text, and one key's value alone; and the checks on directory objects
// (README.md, "Directory objects"). No Windows header: plain text logic.

#include <cstdint>
#include <string>
#include <string_view>

#include "filter/FilterRules.h"

namespace skorva {

struct FilterSet {
    FilterList whitelist;
    FilterList blacklist;
    // Some rule has a message-bearing key: the rules are decided once the
    // formatted message is part of the event's text, still rule by rule.
    bool onMessage = false;

    // `fn` names the caller in the log lines.
    // The event-code ranges of `channel`: a code outside the whitelist ranges
    // or inside a blacklist range is excluded.
    bool admitsCode(uint32_t code, const char* fn, const std::string& channel) const;
    // The key/regex rules on the whole event text (classic or XML): the first
    // whitelist rule that passes admits, then the first blacklist rule that
    // passes drops.
    // With `decided`, the rules naming tokens were decided on the event as it
    // was read (admitsAsRead) and are passed over.
    bool admitsText(std::string_view text, bool xml, const char* fn,
                    TokenRules decided = TokenRules::Undecided) const;
    // One value alone (a message before the rest of the event is known): it
    // excludes only when it settles the rules by itself, that is when every
    // whitelist rule names the key and none matches, or a blacklist rule of
    // that key alone matches.
    bool admitsValue(std::string_view key, std::string_view value, const char* fn,
                     TokenRules decided = TokenRules::Undecided) const;

    // ---- Directory objects
    bool hasTokenRules() const;
    // Some rule names "Message" or "Object Type".
    bool hasMessageKeys() const;
    // The rules naming tokens, on the event text before translation: false when
    // one of the blacklist drops the event (`pattern` is then its first pattern
    // holding "{"); `verdict` says whether one of the whitelist passed.
    bool admitsAsRead(std::string_view text, bool xml, const char* fn, TokenRules& verdict,
                      const std::string*& pattern) const;
    // A blacklist rule of "Message" or "Object Type" alone matches that key's
    // value in `text` (classic: the message itself; XML: the event's XML).
    bool blacklistsMessage(std::string_view text, bool xml, const char* fn) const;
    // A blacklist rule of "Message" alone matches `value`.
    bool blacklistsMessageValue(std::string_view value, const char* fn) const;
};

}  // namespace skorva
