#pragma once
// The simulated directory service, in process: the eight entry points the product
// resolves from Netapi32.dll and Ntdsapi.dll, with the system libraries' signatures,
// plus the knobs and measurements tests need (see README.md).

#include <windows.h>
#include <dsgetdc.h>
#include <lmcons.h>
#include <lmapibuf.h>
#include <ntdsapi.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace dssim {

DWORD WINAPI DsGetDcNameW(LPCWSTR ComputerName, LPCWSTR DomainName, GUID* DomainGuid, LPCWSTR SiteName, ULONG Flags,
                          PDOMAIN_CONTROLLER_INFOW* DomainControllerInfo);
NET_API_STATUS WINAPI NetApiBufferFree(LPVOID Buffer);
DWORD WINAPI DsBindW(LPCWSTR DomainControllerName, LPCWSTR DnsDomainName, HANDLE* phDS);
DWORD WINAPI DsUnBindW(HANDLE* phDS);
DWORD WINAPI DsMapSchemaGuidsW(HANDLE hDs, DWORD cGuids, GUID* rGuids, DS_SCHEMA_GUID_MAPW** ppGuidMap);
DWORD WINAPI DsCrackNamesW(HANDLE hDS, DS_NAME_FLAGS flags, DS_NAME_FORMAT formatOffered, DS_NAME_FORMAT formatDesired,
                           DWORD cNames, const LPCWSTR* rpNames, PDS_NAME_RESULTW* ppResult);
void WINAPI DsFreeNameResultW(DS_NAME_RESULTW* pResult);
void WINAPI DsFreeSchemaGuidMapW(PDS_SCHEMA_GUID_MAPW pGuidMap);

// The directory folder this process reads; an empty root means DSSIM_DIRECTORY.
void setDirectoryRoot(const std::wstring& root);
std::wstring directoryRoot();
// Why the folder's directory.txt cannot be used; empty when it can or is absent.
std::string directoryError();

enum Entry : int {
    kDsGetDcNameW,
    kNetApiBufferFree,
    kDsBindW,
    kDsUnBindW,
    kDsMapSchemaGuidsW,
    kDsCrackNamesW,
    kDsFreeNameResultW,
    kDsFreeSchemaGuidMapW,
    kEntryCount
};
const char* entryName(Entry e);

struct Counters {
    uint64_t calls[kEntryCount] = {};
    // A buffer freed through the wrong function or twice, a handle used after it
    // was unbound or never bound: each would corrupt or crash a Windows process.
    uint64_t misuse = 0;
    uint64_t liveBuffers = 0;   // handed out and not yet freed
    uint64_t liveBindings = 0;  // bound and not yet unbound
};
// This process's counts (calls and misuse since the last reset).
Counters counters();
void resetCounters();

// Fault rules for this process (README "Faults"), replacing DSSIM_FAULTS and the
// folder's faults.txt; false on bad syntax. clearFaults() goes back to those.
bool setFaults(std::string_view rules, std::string* error = nullptr);
void clearFaults();

}  // namespace dssim
