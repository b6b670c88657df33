#pragma once
// One channel's memo of which directory objects its blacklist rejects, by the
// token the events carry ("{bf967aba-...}", "{S-1-5-...}"): an event naming one
// is dropped before anything is asked of the directory. Bounded: it stops
// taking answers once it holds more than 200.

#include <map>
#include <string>
#include <string_view>

namespace skorva {

class AdObjBlacklistMemo {
public:
    // Stores the answer while the memo holds 200 entries or fewer (so it can
    // reach 201).
    void remember(const std::wstring& name, bool blacklisted);
    // The first blacklisted object that `text` names, or null.
    const std::wstring* blacklistedIn(std::wstring_view text) const;
    size_t size() const { return answers_.size(); }

private:
    std::map<std::wstring, bool> answers_;
};

}  // namespace skorva
