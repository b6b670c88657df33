#include "directory/AdObjBlacklistMemo.h"

#include "platform/Logger.h"

namespace skorva {

namespace {
constexpr size_t kMemoLimit = 200;
}

void AdObjBlacklistMemo::remember(const std::wstring& name, bool blacklisted) {
    if (answers_.size() > kMemoLimit) {
        LOG_INFO("adObjBlackListCache  count=200, adObj='%S' not blacklisted", name.c_str());
        return;
    }
    answers_[name] = blacklisted;
}

const std::wstring* AdObjBlacklistMemo::blacklistedIn(std::wstring_view text) const {
    for (const auto& [name, blacklisted] : answers_)
        if (blacklisted && text.find(name) != std::wstring_view::npos) return &name;
    return nullptr;
}

}  // namespace skorva
