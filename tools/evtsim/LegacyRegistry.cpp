// The registry as classic readers see it: one key per classic log under
// HKLM\SYSTEM\CurrentControlSet\Services\EventLog, and under it one key per event
// source naming its message files ("Event Sources", "Message Files" and "Event
// Categories" of Microsoft's event logging documentation).
#include <algorithm>

#include "Legacy.h"
#include "Store.h"
#include "Text.h"

namespace evtsim {

namespace {

LSTATUS setString(HKEY key, const wchar_t* name, const std::wstring& value) {
    if (value.empty()) return ERROR_SUCCESS;
    return RegSetValueExW(key, name, 0, REG_EXPAND_SZ, reinterpret_cast<const BYTE*>(value.c_str()),
                          static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
}

LSTATUS setNumber(HKEY key, const wchar_t* name, DWORD value) {
    return RegSetValueExW(key, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), sizeof value);
}

}  // namespace

std::vector<LegacySource> sampleLegacySources() {
    // The first file is missing, as an uninstalled component leaves it: readers go
    // on with the next one. An event's message may be in any file of the list.
    LegacySource classic;
    classic.log = L"Application";
    classic.name = L"Evtsim-Classic";
    classic.eventMessageFile = L"%SystemRoot%\\System32\\evtsim-missing.dll;%SystemRoot%\\System32\\evtsim-events.dll;"
                               L"%SystemRoot%\\System32\\evtsim-more.dll";
    classic.parameterMessageFile = L"%SystemRoot%\\System32\\evtsim-more.dll";
    classic.categoryMessageFile = L"%SystemRoot%\\System32\\evtsim-events.dll";
    classic.categoryCount = 3;
    return {classic};
}

LegacyRegistration::LegacyRegistration(const std::wstring& storeRoot, const std::vector<LegacySource>& sources) {
    // Opens `path` below kEventLogKey, making it when missing; remembers it for
    // removal when it made it or when `owned` (a source key is ours even when an
    // earlier run that ended abruptly left it behind).
    auto open = [this](const std::wstring& path, HKEY& key, bool owned) {
        const std::wstring full = std::wstring(kEventLogKey) + L"\\" + path;
        DWORD disposition = 0;
        LSTATUS s = RegCreateKeyExW(HKEY_LOCAL_MACHINE, full.c_str(), 0, nullptr, 0, KEY_READ | KEY_WRITE, nullptr, &key,
                                    &disposition);
        if (s == ERROR_SUCCESS && (owned || disposition == REG_CREATED_NEW_KEY)) created_.push_back(path);
        if (s != ERROR_SUCCESS && error_ == ERROR_SUCCESS) error_ = s;
        return s == ERROR_SUCCESS;
    };
    std::vector<std::wstring> logs;
    for (const std::string& channel : listChannels(storeRoot))
        if (channel.find('/') == std::string::npos) logs.push_back(toWide(channel));
    for (const LegacySource& s : sources) logs.push_back(s.log);
    for (const std::wstring& log : logs) {
        HKEY key = nullptr;
        if (open(log, key, false)) RegCloseKey(key);
    }
    for (const LegacySource& s : sources) {
        HKEY key = nullptr;
        if (!open(s.log + L"\\" + s.name, key, true)) continue;
        for (LSTATUS st : {setString(key, L"EventMessageFile", s.eventMessageFile),
                           setString(key, L"ParameterMessageFile", s.parameterMessageFile),
                           setString(key, L"CategoryMessageFile", s.categoryMessageFile),
                           s.categoryCount ? setNumber(key, L"CategoryCount", s.categoryCount) : ERROR_SUCCESS,
                           setNumber(key, L"TypesSupported", s.typesSupported)})
            if (st != ERROR_SUCCESS && error_ == ERROR_SUCCESS) error_ = st;
        RegCloseKey(key);
    }
}

LegacyRegistration::~LegacyRegistration() {
    // Children before parents; a log key made by someone else stays.
    for (auto it = created_.rbegin(); it != created_.rend(); ++it)
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, (std::wstring(kEventLogKey) + L"\\" + *it).c_str());
}

}  // namespace evtsim
