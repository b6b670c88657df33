#include "platform/LoaderInfo.h"

#include <windows.h>

#include "platform/Paths.h"

namespace skorva {

bool getEnv(const wchar_t* name, std::wstring& value) {
    value.clear();
    DWORD n = ::GetEnvironmentVariableW(name, nullptr, 0);
    if (n == 0) return false;
    value.resize(n);
    DWORD got = ::GetEnvironmentVariableW(name, value.data(), n);
    if (got == 0 && ::GetLastError() == ERROR_ENVVAR_NOT_FOUND) {
        value.clear();
        return false;
    }
    value.resize(got < n ? got : n - 1);
    return true;
}

LoaderInfo* LoaderInfo::instance() {
    static LoaderInfo info;  // thread-safe lazy construction
    return &info;
}

void LoaderInfo::refresh() {
    std::wstring home, db, etc;
    getEnv(L"SKORVA_HOME", home);
    while (home.size() > 3 && (home.back() == L'\\' || home.back() == L'/')) home.pop_back();
    if (!getEnv(L"SKORVA_DB", db) || db.empty())
        db = home.empty() ? std::wstring() : joinPath(joinPath(joinPath(home, L"var"), L"lib"), L"skorva");
    if (!getEnv(L"SKORVA_ETC", etc) || etc.empty()) etc = home.empty() ? std::wstring() : joinPath(home, L"etc");
    std::lock_guard<std::mutex> lock(mutex_);
    home_ = std::move(home);
    db_ = std::move(db);
    etc_ = std::move(etc);
}

std::wstring LoaderInfo::home() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return home_;
}

std::wstring LoaderInfo::db() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return db_;
}

std::wstring LoaderInfo::etc() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return etc_;
}

}  // namespace skorva
