#include "channel/LegacyMessageFiles.h"

#include <algorithm>
#include <cwctype>

#include "channel/MessageFormatter.h"
#include "eventlog/BufferGrowth.h"
#include "platform/Clock.h"
#include "platform/Logger.h"
#include "platform/Strings.h"

namespace skorva {

namespace {

const char* const kFn = "WinEventLogChannel::getEventMsg";
// FormatMessageW writes at most 64 KiB; inserts go up to %99.
constexpr DWORD kFirstChars = 4096;
constexpr DWORD kMaxChars = 32768;
constexpr size_t kMaxInserts = 99;

// What an insert the record has no string for shows: itself, as the modern
// API leaves an unresolved insert.
const std::vector<std::wstring>& missingInserts() {
    static const std::vector<std::wstring> inserts = [] {
        std::vector<std::wstring> v;
        for (size_t i = 1; i <= kMaxInserts; ++i) v.push_back(L"%" + std::to_wstring(i));
        return v;
    }();
    return inserts;
}

// A string value of the key, environment variables expanded; empty when absent.
std::wstring expandedValue(HKEY key, const wchar_t* name) {
    DWORD type = 0;
    DWORD bytes = 0;
    if (::RegQueryValueExW(key, name, nullptr, &type, nullptr, &bytes) != ERROR_SUCCESS ||
        (type != REG_SZ && type != REG_EXPAND_SZ) || bytes < sizeof(wchar_t))
        return std::wstring();
    std::vector<wchar_t> raw(bytes / sizeof(wchar_t) + 1, L'\0');
    if (::RegQueryValueExW(key, name, nullptr, &type, reinterpret_cast<BYTE*>(raw.data()), &bytes) != ERROR_SUCCESS)
        return std::wstring();
    std::wstring expanded(::ExpandEnvironmentStringsW(raw.data(), nullptr, 0), L'\0');
    const DWORD n = ::ExpandEnvironmentStringsW(raw.data(), expanded.data(), static_cast<DWORD>(expanded.size()));
    if (n == 0 || n > expanded.size()) return std::wstring(raw.data());
    expanded.resize(n - 1);
    return expanded;
}

std::wstring_view trimmed(std::wstring_view s) {
    while (!s.empty() && std::iswspace(s.front())) s.remove_prefix(1);
    while (!s.empty() && std::iswspace(s.back())) s.remove_suffix(1);
    return s;
}

// A message's trailing line break, which a parameter or a name does not keep.
void dropLineEnd(std::wstring& s) {
    while (!s.empty() && (s.back() == L'\n' || s.back() == L'\r' || s.back() == L' ')) s.pop_back();
}

}  // namespace

LegacyMessageFiles::LegacyMessageFiles(const std::string& channelName)
    : channelName_(channelName), buffer_(kFirstChars) {}

void LegacyMessageFiles::setLogKey(const std::wstring& keyPath) {
    if (keyPath == logKey_) return;
    logKey_ = keyPath;
    sources_.clear();
}

LegacyMessageFiles::Source& LegacyMessageFiles::sourceFor(const std::wstring& name) {
    key_.assign(name);
    for (wchar_t& c : key_)
        if (c >= L'A' && c <= L'Z') c = static_cast<wchar_t>(c - L'A' + L'a');
    auto it = sources_.find(key_);
    if (it == sources_.end()) {
        it = sources_.try_emplace(key_).first;
        UniqueHKey key;
        if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, (logKey_ + L"\\" + name).c_str(), 0, KEY_READ, key.put()) ==
            ERROR_SUCCESS) {
            loadFiles(key.get(), L"EventMessageFile", name, it->second.events);
            loadFiles(key.get(), L"ParameterMessageFile", name, it->second.parameters);
            loadFiles(key.get(), L"CategoryMessageFile", name, it->second.categories);
        } else {
            // Remembered too: a source that is not registered is not looked up with every event.
            LOG_DEBUG("%s: Event source '%S' of channel='%s' is not registered", kFn, name.c_str(), channelName_.c_str());
        }
    }
    it->second.lastUse = tickNow();
    return it->second;
}

void LegacyMessageFiles::loadFiles(HKEY key, const wchar_t* value, const std::wstring& source,
                                   std::vector<UniqueLibrary>& out) {
    const std::wstring list = expandedValue(key, value);
    for (size_t at = 0; at < list.size();) {
        const size_t semi = std::min(list.find(L';', at), list.size());
        const std::wstring file(trimmed(std::wstring_view(list).substr(at, semi - at)));
        at = semi + 1;
        if (file.empty()) continue;
        // As data: nothing of the file runs.
        UniqueLibrary module(::LoadLibraryExW(file.c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE));
        if (module)
            out.push_back(std::move(module));
        else
            LOG_DEBUG("%s: Unable to load %S '%S' of event source '%S' (error %lu)", kFn, value, file.c_str(),
                      source.c_str(), ::GetLastError());
    }
}

DWORD LegacyMessageFiles::format(const std::vector<UniqueLibrary>& modules, DWORD id, const DWORD_PTR* args,
                                 std::wstring& out) {
    const DWORD flags =
        FORMAT_MESSAGE_FROM_HMODULE | (args ? FORMAT_MESSAGE_ARGUMENT_ARRAY : FORMAT_MESSAGE_IGNORE_INSERTS);
    DWORD error = ERROR_MR_MID_NOT_FOUND;
    for (const UniqueLibrary& module : modules) {
        for (;;) {
            const DWORD n = ::FormatMessageW(flags, module.get(), id, 0, buffer_.data(),
                                             static_cast<DWORD>(buffer_.size()),
                                             reinterpret_cast<va_list*>(const_cast<DWORD_PTR*>(args)));
            if (n) {
                out.assign(buffer_.data(), n);
                return 0;
            }
            error = ::GetLastError();
            if (error != ERROR_INSUFFICIENT_BUFFER || buffer_.size() >= kMaxChars ||
                !growBuffer(buffer_, buffer_.size() * 2))
                break;
        }
    }
    return error;
}

bool LegacyMessageFiles::formatEventMessage(const std::wstring& source, uint32_t eventId,
                                            const std::vector<std::u16string_view>& strings, std::wstring& out) {
    const Source& s = sourceFor(source);
    // Never fewer arguments than the message may read: a source often logs
    // fewer strings than its message inserts.
    const std::vector<std::wstring>& missing = missingInserts();
    args_.assign(std::max(strings.size(), kMaxInserts), 0);
    for (size_t i = 0; i < args_.size(); ++i)
        args_[i] = reinterpret_cast<DWORD_PTR>(i < strings.size() ? static_cast<const void*>(strings[i].data())
                                                                  : missing[i].c_str());
    if (!s.events.empty() && format(s.events, eventId, args_.data(), out) == 0) {
        insertParameters(s, out);
        return true;
    }
    placeholder(source, eventId, strings, !s.events.empty(), out);
    return false;
}

// Each %%n the strings brought in is parameter n of the source's parameter files,
// without its line break; the text put in is not scanned again.
void LegacyMessageFiles::insertParameters(const Source& source, std::wstring& text) {
    if (source.parameters.empty()) return;
    for (size_t at = text.find(L"%%"); at != std::wstring::npos; at = text.find(L"%%", at)) {
        size_t end = at + 2;
        uint64_t id = 0;
        while (end < text.size() && end - at < 12 && text[end] >= L'0' && text[end] <= L'9')
            id = id * 10 + static_cast<uint64_t>(text[end++] - L'0');
        if (end == at + 2 || id > UINT32_MAX || format(source.parameters, static_cast<DWORD>(id), nullptr, parameter_)) {
            at = end;
            continue;
        }
        dropLineEnd(parameter_);
        text.replace(at, end - at, parameter_);
        at += parameter_.size();
    }
}

bool LegacyMessageFiles::categoryName(const std::wstring& source, uint16_t category, std::wstring& out) {
    const Source& s = sourceFor(source);
    if (s.categories.empty() || format(s.categories, category, nullptr, out) != 0) return false;
    dropLineEnd(out);
    return true;
}

// The event viewer's text for an event no message file describes.
void LegacyMessageFiles::placeholder(const std::wstring& source, uint32_t eventId,
                                     const std::vector<std::u16string_view>& strings, bool filesPresent,
                                     std::wstring& out) const {
    out.assign(L"The description for Event ID ");
    appendDecimal(eventId & 0xFFFF, out);
    out += L" from source ";
    out += source;
    out += L" cannot be found. Either the component that raises this event is not installed on your local computer "
           L"or the installation is corrupted. You can install or repair the component on the local computer.\r\n\r\n"
           L"If the event originated on another computer, the display information had to be saved with the event."
           L"\r\n\r\nThe following information was included with the event: \r\n\r\n";
    for (std::u16string_view s : strings) {
        out.append(reinterpret_cast<const wchar_t*>(s.data()), s.size());
        out += L"\r\n";
    }
    if (filesPresent) out += L"\r\nThe message resource is present but the message was not found in the message table\r\n";
}

void LegacyMessageFiles::sweep(bool force) {
    const uint64_t now = tickNow();
    if (!force && now < lastSweep_ + MessageFormatter::kSweepIntervalMs) return;
    lastSweep_ = now;
    for (auto it = sources_.begin(); it != sources_.end();) {
        if (force || it->second.lastUse + MessageFormatter::kIdleMs < now)
            it = sources_.erase(it);
        else
            ++it;
    }
}

}  // namespace skorva
