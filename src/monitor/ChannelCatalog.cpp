#include "monitor/ChannelCatalog.h"

#include <vector>

#include "eventlog/BufferGrowth.h"
#include "eventlog/EvtApi.h"
#include "eventlog/WinEventLogAPIInitializer.h"
#include "platform/Handles.h"
#include "platform/Logger.h"
#include "platform/Strings.h"

namespace skorva {

namespace {
const char* const kFn = "WinEventMon::enumEvtLogChannels";
}

bool ChannelCatalog::enumerate() {
    LOG_DEBUG("%s: enumerate existing channels", kFn);
    if (!WinEventLogAPIInitializer::isEvtApiAvailable()) return enumerateRegistry();
    return enumerateApi();
}

void ChannelCatalog::add(const std::string& name) { known_[asciiLower(name)] = name; }

// Systems without the modern API list their classic logs under the EventLog service key.
bool ChannelCatalog::enumerateRegistry() {
    LOG_INFO("%s: enumerate existing channels on XP/2003 systems", kFn);
    UniqueHKey key;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\", 0, KEY_READ,
                        key.put()) != ERROR_SUCCESS) {
        LOG_ERROR("%s: Failed to open registry key to enumerate available event logs channels", kFn);
        return false;
    }
    std::vector<std::wstring> names;
    wchar_t name[256];  // the longest key name the registry allows, and its NUL
    for (DWORD i = 0;; ++i) {
        DWORD length = static_cast<DWORD>(sizeof name / sizeof name[0]);
        LONG rc = ::RegEnumKeyExW(key.get(), i, name, &length, nullptr, nullptr, nullptr, nullptr);
        if (rc != ERROR_SUCCESS) break;
        // The service's own Parameters key (its ServiceDll) is no log: the
        // classic API would open the Application log for that name.
        UniqueHKey sub;
        if (::RegOpenKeyExW(key.get(), name, 0, KEY_QUERY_VALUE, sub.put()) == ERROR_SUCCESS &&
            ::RegQueryValueExW(sub.get(), L"ServiceDll", nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS)
            continue;
        names.emplace_back(name, length);
    }
    key.reset();
    for (const std::wstring& n : names) {
        LOG_INFO("%s: Find channel %S", kFn, n.c_str());
        add(narrow(n));
    }
    return true;
}

bool ChannelCatalog::enumerateApi() {
    LOG_INFO("%s: enumerate event log channels in Vista/2008 systems and above", kFn);
    const EvtApi& api = evtApi();
    UniqueEvtHandle channels(api.EvtOpenChannelEnum(nullptr, 0));
    if (!channels) {
        LOG_ERROR("%s: Failed to enumerate event log channels: '(%ld)'.", kFn, static_cast<long>(::GetLastError()));
        return false;
    }
    // Starts absent: the first call reports the size needed, and the buffer
    // grows only to what the system reports.
    std::vector<wchar_t> buffer;
    DWORD size = 0;
    for (;;) {
        const SizedCall call = callSized(buffer, size, BufferGrowth{}, [&](wchar_t* data, DWORD chars, DWORD& used) {
            return api.EvtNextChannelPath(channels.get(), chars, data, &used);
        });
        if (call.ok) {
            const std::string path = narrow(buffer.empty() ? std::wstring_view() : std::wstring_view(buffer.data()));
            LOG_INFO("%s: Find channel %s", kFn, path.c_str());
            add(path);
            continue;
        }
        const DWORD error = call.outOfMemory ? static_cast<DWORD>(ERROR_NOT_ENOUGH_MEMORY) : call.error;
        if (error != ERROR_NO_MORE_ITEMS)
            LOG_ERROR("%s: Failed to get next enumerated channel (error %d)\n.", kFn, static_cast<int>(error));
        return true;
    }
}

}  // namespace skorva
