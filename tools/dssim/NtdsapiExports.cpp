// ntdsapi.dll's entry points the product resolves, with the system library's names
// and signatures (checked by the compiler against <ntdsapi.h>).
#define _NTDSAPI_  // defined here, not imported
#include <windows.h>
#include <ntdsapi.h>

#include "Dssim.h"

extern "C" {

DWORD WINAPI DsBindW(LPCWSTR DomainControllerName, LPCWSTR DnsDomainName, HANDLE* phDS) {
    return dssim::DsBindW(DomainControllerName, DnsDomainName, phDS);
}
DWORD WINAPI DsUnBindW(HANDLE* phDS) { return dssim::DsUnBindW(phDS); }
DWORD WINAPI DsMapSchemaGuidsW(HANDLE hDs, DWORD cGuids, GUID* rGuids, DS_SCHEMA_GUID_MAPW** ppGuidMap) {
    return dssim::DsMapSchemaGuidsW(hDs, cGuids, rGuids, ppGuidMap);
}
DWORD WINAPI DsCrackNamesW(HANDLE hDS, DS_NAME_FLAGS flags, DS_NAME_FORMAT formatOffered, DS_NAME_FORMAT formatDesired,
                           DWORD cNames, const LPCWSTR* rpNames, PDS_NAME_RESULTW* ppResult) {
    return dssim::DsCrackNamesW(hDS, flags, formatOffered, formatDesired, cNames, rpNames, ppResult);
}
void WINAPI DsFreeNameResultW(DS_NAME_RESULTW* pResult) { dssim::DsFreeNameResultW(pResult); }
void WINAPI DsFreeSchemaGuidMapW(PDS_SCHEMA_GUID_MAPW pGuidMap) { dssim::DsFreeSchemaGuidMapW(pGuidMap); }

}  // extern "C"
