#include "directory/AdObjectTranslator.h"

#include <objbase.h>

#include "eventlog/EvtApi.h"
#include "eventlog/WinEventLogAPIInitializer.h"
#include "platform/Logger.h"
#include "platform/SkorvaException.h"
#include "platform/Strings.h"

namespace skorva {

namespace {

const char* const kFn = "WinEventLogChannelBase::transADObject";

// The directory's answers go back only through their own free functions.
void freeSchemaGuidMap(PDS_SCHEMA_GUID_MAPW map) noexcept {
    if (auto free = apiTable().ds.DsFreeSchemaGuidMapW) free(map);
}
void freeNameResult(PDS_NAME_RESULTW result) noexcept {
    if (auto free = apiTable().ds.DsFreeNameResultW) free(result);
}
using UniqueSchemaGuidMap = UniqueAny<PDS_SCHEMA_GUID_MAPW, &freeSchemaGuidMap>;
using UniqueNameResult = UniqueAny<PDS_NAME_RESULTW, &freeNameResult>;

bool isNullGuid(const GUID& g) {
    static const GUID kNull = {};
    return IsEqualGUID(g, kNull) != FALSE;
}

}  // namespace

std::string dsNameStatusText(DWORD status) {
    switch (status) {
    case DS_NAME_ERROR_RESOLVING:
        return "(DS_NAME_ERROR_RESOLVING) A generic processing error occurred.";
    case DS_NAME_ERROR_NOT_FOUND:
        return "(DS_NAME_ERROR_NOT_FOUND) The name cannot be found or the caller does not have permission to access "
               "the name.";
    case DS_NAME_ERROR_NOT_UNIQUE:
        return "(DS_NAME_ERROR_NOT_UNIQUE) The input name is mapped to more than one output name or the desired "
               "format did not have a single, unique value for the object found.";
    case DS_NAME_ERROR_NO_MAPPING:
        // Without its opening parenthesis: the operator's searches know it so.
        return "DS_NAME_ERROR_NO_MAPPING) The input name was found, but the associated output format cannot be "
               "found. This can occur if the object does not have all the required attributes.";
    case DS_NAME_ERROR_DOMAIN_ONLY:
        return "(DS_NAME_ERROR_DOMAIN_ONLY) Unable to resolve entire name, but was able to determine in which domain "
               "object resides.";
    case DS_NAME_ERROR_NO_SYNTACTICAL_MAPPING:
        return "(DS_NAME_ERROR_NO_SYNTACTICAL_MAPPING) A syntactical mapping cannot be performed on the client "
               "without transmitting over the network.";
    case DS_NAME_ERROR_TRUST_REFERRAL:
        return "(DS_NAME_ERROR_TRUST_REFERRAL) The name is from an external trusted forest.";
    default:
        return format("Unknown error: '%lu'", static_cast<unsigned long>(status));
    }
}

bool AdObjectTranslator::translate(const std::wstring& object, std::wstring& out, DWORD offered, DWORD wanted) {
    if (!WinEventLogAPIInitializer::isAdsApiAvailable() || !dc_.handleReady()) return false;
    if (offered == 1) return crackName(object, DS_SID_OR_SID_HISTORY_NAME, static_cast<DS_NAME_FORMAT>(wanted), out);
    if (offered != 0) return false;

    GUID guid;
    if (FAILED(::CLSIDFromString(object.c_str(), &guid))) {
        LOG_ERROR("%s: Failed to convert guid string to guid structure: %s", kFn, narrow(object).c_str());
        return false;
    }
    if (isNullGuid(guid)) {
        LOG_DEBUG("%s: Got null GUID, unable to process it", kFn);
        return false;
    }
    // Not a schema GUID: an object's own GUID, cracked to its name.
    return mapSchemaGuid(guid, object, out) ||
           crackName(object, DS_UNIQUE_ID_NAME, static_cast<DS_NAME_FORMAT>(wanted), out);
}

bool AdObjectTranslator::mapSchemaGuid(const GUID& guid, const std::wstring& object, std::wstring& out) {
    const auto map = apiTable().ds.DsMapSchemaGuidsW;
    GUID guids[1] = {guid};
    const auto call = [&](UniqueSchemaGuidMap& owner) {
        PDS_SCHEMA_GUID_MAPW answer = nullptr;
        const DWORD rc = map ? map(dc_.handle(), 1, guids, &answer) : ERROR_PROC_NOT_FOUND;
        if (rc == NO_ERROR) owner.reset(answer);
        return rc;
    };
    UniqueSchemaGuidMap result;
    DWORD rc = call(result);
    if (rc == ERROR_INVALID_HANDLE && dc_.connectToDC()) rc = call(result);
    if (rc != NO_ERROR) {
        LOG_DEBUG("%s: DsMapSchemaGuidsW failed: %s", kFn, systemErrorText(rc).c_str());
        return false;
    }
    if (!result || !result.get()->pName) return false;
    out.assign(result.get()->pName);
    LOG_DEBUG("%s (%d): '%s' translates to '%s'", kFn, 1482, narrow(object).c_str(), narrow(out).c_str());
    return true;
}

bool AdObjectTranslator::crackName(const std::wstring& object, DS_NAME_FORMAT offered, DS_NAME_FORMAT wanted,
                                   std::wstring& out) {
    const auto crack = apiTable().ds.DsCrackNamesW;
    if (!dc_.bound()) {  // a reconnect for the schema map failed: nothing to ask
        LOG_DEBUG("%s: DsCrackNamesW failed", kFn);
        return false;
    }
    const LPCWSTR names[1] = {object.c_str()};
    UniqueNameResult result;
    const auto call = [&](DS_NAME_FORMAT desired) {
        PDS_NAME_RESULTW answer = nullptr;
        const DWORD rc = crack ? crack(dc_.handle(), DS_NAME_FLAG_EVAL_AT_DC, offered, desired, 1, names, &answer)
                               : ERROR_PROC_NOT_FOUND;
        if (rc == NO_ERROR) result.reset(answer);
        return rc;
    };
    DWORD rc = call(wanted);
    if (rc == ERROR_INVALID_HANDLE) {
        // Asked again for the distinguished name, whatever was wanted first:
        // the product always did so after a reconnect.
        rc = dc_.connectToDC() ? call(DS_FQDN_1779_NAME) : rc;
    }
    if (rc != NO_ERROR || !result || result.get()->cItems < 1 || !result.get()->rItems) {
        LOG_DEBUG("%s: DsCrackNamesW failed", kFn);
        return false;
    }
    const DS_NAME_RESULT_ITEMW& item = result.get()->rItems[0];
    if (item.status != DS_NAME_NO_ERROR) {
        LOG_DEBUG("%s: DsCrackNamesW failed, adObj='%S': '%s'", kFn, object.c_str(),
                  dsNameStatusText(item.status).c_str());
        return false;
    }
    if (!item.pName) return false;
    out.assign(item.pName);
    return true;
}

}  // namespace skorva
