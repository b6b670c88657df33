#pragma once
// The legacy face of the simulated event log, in process: the classic event log
// functions of advapi32 with their Windows signatures, over the same store as the
// modern face, and the registry entries that classic readers look up.

#include <windows.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace evtsim {

HANDLE WINAPI OpenEventLogW(LPCWSTR lpUNCServerName, LPCWSTR lpSourceName);
BOOL WINAPI ReadEventLogW(HANDLE hEventLog, DWORD dwReadFlags, DWORD dwRecordOffset, LPVOID lpBuffer,
                          DWORD nNumberOfBytesToRead, DWORD* pnBytesRead, DWORD* pnMinNumberOfBytesNeeded);
BOOL WINAPI GetNumberOfEventLogRecords(HANDLE hEventLog, PDWORD NumberOfRecords);
BOOL WINAPI GetOldestEventLogRecord(HANDLE hEventLog, PDWORD OldestRecord);
BOOL WINAPI CloseEventLog(HANDLE hEventLog);

// The largest buffer ReadEventLogW takes ("The maximum size of this buffer is
// 0x7ffff bytes"; [MS-EVEN] MAX_BATCH_BUFF).
constexpr DWORD kMaxReadBytes = 0x7FFFF;

// Legacy handles open and not yet closed (for leak checks in tests).
size_t openLegacyHandleCount();

// One event as ReadEventLogW lays it out: an EVENTLOGRECORD built from the stored
// event XML. `out` is replaced; its storage is reused.
void layoutEventLogRecord(std::string_view eventXml, uint64_t recordId, std::vector<BYTE>& out);

// The key classic readers find a log's sources under.
constexpr const wchar_t* kEventLogKey = L"SYSTEM\\CurrentControlSet\\Services\\EventLog";

// A classic event source as the registry describes it under <kEventLogKey>\<log>\<name>.
// File lists are REG_EXPAND_SZ, several files separated by ';'; an empty one is
// not written.
struct LegacySource {
    std::wstring log, name;
    std::wstring eventMessageFile, parameterMessageFile, categoryMessageFile;
    DWORD categoryCount = 0;
    DWORD typesSupported = EVENTLOG_ERROR_TYPE | EVENTLOG_WARNING_TYPE | EVENTLOG_INFORMATION_TYPE;
};

// The sources of the message files the test build installs in System32
// (evtsim-events.dll, evtsim-more.dll): the generator's classic source.
std::vector<LegacySource> sampleLegacySources();

// Registry keys for the store's classic logs and the given sources, for the life
// of the object: it removes the source keys and the log keys it made, no others.
// Channels whose names hold a '/' are not classic logs and get no key, as on Windows.
class LegacyRegistration {
public:
    LegacyRegistration(const std::wstring& storeRoot, const std::vector<LegacySource>& sources);
    ~LegacyRegistration();
    LegacyRegistration(const LegacyRegistration&) = delete;
    LegacyRegistration& operator=(const LegacyRegistration&) = delete;

    // 0, or the first registry error met while registering.
    LSTATUS error() const { return error_; }

private:
    std::vector<std::wstring> created_;  // key paths below kEventLogKey to remove, parents first
    LSTATUS error_ = ERROR_SUCCESS;
};

}  // namespace evtsim
