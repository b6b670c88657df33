#pragma once
// Puts the names the directory gives in place of the tokens of an event's text
// (insertAdObjectNames), through the channel's cache of translations. Used
// only from the channel's worker thread.
//
// Long-standing behaviour kept as it is: a translation of 40 characters or
// more is scanned again for tokens, at most twice deep; a token that does not
// translate is written as it was collected (a SID without its "%{" and "}");
// what follows the last translated token is dropped when it starts with ".".

#include <cstdint>
#include <string>
#include <string_view>

#include "config/ChannelSettings.h"
#include "directory/AdObjBlacklistMemo.h"
#include "directory/AdTokenScanner.h"
#include "directory/WinLookupAdObjCache.h"

namespace skorva {

class AdObjectNames {
public:
    AdObjectNames(const ChannelSettings& settings, WinLookupAdObjCache& cache, AdObjBlacklistMemo& memo)
        : settings_(settings), cache_(cache), memo_(memo) {}
    AdObjectNames(const AdObjectNames&) = delete;
    AdObjectNames& operator=(const AdObjectNames&) = delete;

    // Appends `message` to `out` (UTF-8) with names in place of its tokens; with
    // a non-empty `xml`, each translated token is replaced there instead and
    // `out` is left as it was (nothing reads it then). With
    // `blacklistCheck`, the scan ends as soon as the blacklist rejects the text
    // translated so far. 1 when a token was translated or the blacklist ended
    // the scan, else 0 (`out` then holds nothing the caller needs).
    uint8_t insert(uint32_t eventCode, std::wstring_view message, std::string& out, std::wstring& xml,
                   bool blacklistCheck, int depth);

private:
    static constexpr int kMaxDepth = 2;

    bool skipsGuids(uint32_t eventCode) const;
    // The token as it stands in the text, braces included, "%" not.
    void bracedToken(const AdToken& token, std::wstring& out) const;
    void replaceInXml(const AdToken& token, const std::wstring& translation, std::wstring& xml);
    bool blacklistEnds(const AdToken& token, const std::wstring& translation, const std::string& out,
                       const std::wstring& xml);

    const ChannelSettings& settings_;
    WinLookupAdObjCache& cache_;
    AdObjBlacklistMemo& memo_;
    // Reused from token to token, one of each per depth of rescanning.
    std::wstring object_[kMaxDepth + 1];
    std::wstring translation_[kMaxDepth + 1];
    std::wstring pattern_;
    std::wstring replacement_;
    std::string narrow_;
};

}  // namespace skorva
