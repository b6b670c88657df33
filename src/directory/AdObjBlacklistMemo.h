#pragma once
// One channel's memo of which directory object names its blacklist rejects.
// Bounded: it stops taking answers once it holds more than 200.

#include <map>
#include <string>

namespace skorva {

class AdObjBlacklistMemo {
public:
    // The remembered answer for `name`, or null.
    const bool* find(const std::wstring& name) const;
    // Stores the answer while the memo holds 200 entries or fewer (so it can
    // reach 201).
    void remember(const std::wstring& name, bool blacklisted);
    size_t size() const { return answers_.size(); }

private:
    std::map<std::wstring, bool> answers_;
};

}  // namespace skorva
