#pragma once
// Resolves the event log (wevtapi.dll), event collector (Wecapi.dll) and
// directory (Netapi32.dll, Ntdsapi.dll) entry points into the process-wide
// table (eventlog/EvtApi.h). Libraries are taken from the system directory only,
// by full path, so a DLL of the same name beside the executable is never used.
//
// The event log and directory groups are tried once per process (the first
// caller decides for everyone); the collector group is retried on every query
// until it succeeds. The classic event log group comes from advapi32, which the
// program imports and which is therefore always loaded. One process-wide lock
// covers every attempt.

#include <windows.h>

namespace skorva {

// The library calls the loader makes; replaceable so that tests can play
// modules that lack an entry point or vanish between two calls.
class LibraryOps {
public:
    virtual ~LibraryOps() = default;
    virtual HMODULE getModuleHandle(const wchar_t* name) = 0;
    virtual HMODULE loadLibrary(const wchar_t* fullPath) = 0;
    virtual FARPROC getProcAddress(HMODULE module, const char* name) = 0;
    virtual void freeLibrary(HMODULE module) = 0;
    // As GetEnvironmentVariableW: characters copied, or the size needed, or 0.
    virtual DWORD getEnvironmentVariable(const wchar_t* name, wchar_t* buffer, DWORD size) = 0;
    // Where the SystemRoot complaint is printed (standard error).
    virtual void printError(const char* text) = 0;
};

// The operating system's own calls.
LibraryOps& systemLibraryOps();

class WinEventLogAPIInitializer {
public:
    static bool initWinEvtApi();
    static bool initWinEcApi();
    static bool initADSApi();

    static bool isEvtApiAvailable();
    static bool isEcApiAvailable();
    static bool isAdsApiAvailable();
    // The classic event log group (the legacy reader's), tried once.
    static bool isLegacyApiAvailable();

    // Process-wide switch: when set the event log group counts as absent.
    static bool forceLegacyApi();
    static void setForceLegacyApi(bool force);
    static bool evtApiAvailable();

    // ---- Test seams
    // Installs `ops` (null: the system's) for later attempts.
    static void setLibraryOps(LibraryOps* ops);
    // Forgets every attempt and clears the whole entry-point table.
    static void resetForTesting();
    // Declares the event log group resolved by a caller that filled the table
    // itself (fakes or the in-process simulated event log).
    static void useFilledEvtTableForTesting(bool available);
    // The same for the classic event log group.
    static void useFilledLegacyTableForTesting();
    // The same for the collector group (the in-process simulated collector).
    static void useFilledEcTableForTesting();
};

}  // namespace skorva
