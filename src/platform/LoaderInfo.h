#pragma once
// Where the installation lives, from the environment: SKORVA_HOME (root),
// SKORVA_DB (data, default home\var\lib\skorva), SKORVA_ETC (default home\etc).

#include <mutex>
#include <string>

namespace skorva {

class LoaderInfo {
public:
    // The process-wide instance, created on first use. Never null in this build;
    // callers still test it, as the instance may be unavailable elsewhere.
    static LoaderInfo* instance();

    // Re-reads the environment.
    void refresh();

    std::wstring home() const;
    std::wstring db() const;
    std::wstring etc() const;

private:
    LoaderInfo() { refresh(); }
    mutable std::mutex mutex_;
    std::wstring home_, db_, etc_;
};

// An environment variable as a wide string; false when absent.
bool getEnv(const wchar_t* name, std::wstring& value);

}  // namespace skorva
