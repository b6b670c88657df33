// netapi32.dll's entry points the product resolves, with the system library's names
// and signatures (checked by the compiler against <dsgetdc.h> and <lmapibuf.h>).
#define _DSGETDCAPI_  // defined here, not imported
#include <windows.h>
#include <dsgetdc.h>
#include <lmcons.h>
#include <lmapibuf.h>

#include "Dssim.h"

extern "C" {

DWORD WINAPI DsGetDcNameW(LPCWSTR ComputerName, LPCWSTR DomainName, GUID* DomainGuid, LPCWSTR SiteName, ULONG Flags,
                          PDOMAIN_CONTROLLER_INFOW* DomainControllerInfo) {
    return dssim::DsGetDcNameW(ComputerName, DomainName, DomainGuid, SiteName, Flags, DomainControllerInfo);
}
NET_API_STATUS WINAPI NetApiBufferFree(LPVOID Buffer) { return dssim::NetApiBufferFree(Buffer); }

}  // extern "C"
