#pragma once
// One translation of a directory-object token through the channel's domain
// controller: a schema GUID to its name (DsMapSchemaGuidsW), any other GUID to
// a distinguished name and a SID to an account name (DsCrackNamesW). A handle
// the controller no longer knows is bound again once per call.

#include <windows.h>
#include <ntdsapi.h>

#include <string>

#include "directory/EvtDC.h"

namespace skorva {

// The text the operator reads for a DS_NAME_RESULT_ITEM status.
std::string dsNameStatusText(DWORD status);

class AdObjectTranslator {
public:
    explicit AdObjectTranslator(EvtDC& dc) : dc_(dc) {}

    // `offered`: 0 for a GUID in braces, 1 for a SID; `wanted`: a DS_NAME_FORMAT.
    bool translate(const std::wstring& object, std::wstring& out, DWORD offered, DWORD wanted);

private:
    // Schema GUID to name; false (and the way open to DsCrackNamesW) when the
    // schema does not name it.
    bool mapSchemaGuid(const GUID& guid, const std::wstring& object, std::wstring& out);
    bool crackName(const std::wstring& object, DS_NAME_FORMAT offered, DS_NAME_FORMAT wanted, std::wstring& out);

    EvtDC& dc_;
};

}  // namespace skorva
