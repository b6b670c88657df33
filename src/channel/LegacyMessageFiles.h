#pragma once
// Messages of classic events as the classic event viewer shows them: the event
// source's EventMessageFile, ParameterMessageFile and CategoryMessageFile under
// SYSTEM\CurrentControlSet\Services\EventLog\<log>\<source> (several files
// separated by ";", environment variables expanded), loaded as data files and
// read with FormatMessageW. The modules are kept per source while they are
// used, with the publisher cache's idle expiry. Used by one pass at a time: no
// lock.

#include <windows.h>

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Handles.h"

namespace skorva {

class LegacyMessageFiles {
public:
    explicit LegacyMessageFiles(const std::string& channelName);
    LegacyMessageFiles(const LegacyMessageFiles&) = delete;
    LegacyMessageFiles& operator=(const LegacyMessageFiles&) = delete;

    // The registry key (below HKEY_LOCAL_MACHINE) of the log whose sources are looked up.
    void setLogKey(const std::wstring& keyPath);

    // The description of event `eventId` of `source` with the record's strings
    // (each NUL-terminated where it lies) into `out`: the first message file
    // that has it formats the strings, then each %%n becomes parameter n.
    // Without one, the text the event viewer shows for a missing description,
    // with the strings; then false.
    bool formatEventMessage(const std::wstring& source, uint32_t eventId,
                            const std::vector<std::u16string_view>& strings, std::wstring& out);
    // The name of `category` from the source's category files; false when none has it.
    bool categoryName(const std::wstring& source, uint16_t category, std::wstring& out);
    // Lets go of the modules of sources unused for a while (all with `force`),
    // at most every 2 s.
    void sweep(bool force);

private:
    struct Source {
        std::vector<UniqueLibrary> events, parameters, categories;
        uint64_t lastUse = 0;
    };

    Source& sourceFor(const std::wstring& name);
    void loadFiles(HKEY key, const wchar_t* value, const std::wstring& source, std::vector<UniqueLibrary>& out);
    // The message `id` of the first module that has it, into `out`; the error
    // of the last attempt when none has it.
    DWORD format(const std::vector<UniqueLibrary>& modules, DWORD id, const DWORD_PTR* args, std::wstring& out);
    void insertParameters(const Source& source, std::wstring& text);
    void placeholder(const std::wstring& source, uint32_t eventId, const std::vector<std::u16string_view>& strings,
                     bool filesPresent, std::wstring& out) const;

    const std::string& channelName_;
    std::wstring logKey_;
    std::map<std::wstring, Source> sources_;  // by lower-cased source name
    uint64_t lastSweep_ = 0;
    std::vector<wchar_t> buffer_;             // FormatMessageW's output, reused
    std::vector<DWORD_PTR> args_;             // the argument array, reused
    std::wstring parameter_;                  // one parameter's text, reused
    std::wstring key_;                        // the look-up key, reused
};

}  // namespace skorva
