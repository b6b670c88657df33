// Translating names through a bound controller: DsMapSchemaGuidsW, DsCrackNamesW and
// their free functions.
#include <algorithm>
#include <cwchar>
#include <vector>

#include "Internal.h"
#include "Text.h"

namespace dssim {

using evtsim::iequals;

namespace {

// Why a call through `h` fails, or 0 with its binding: a handle that is not bound
// (ERROR_INVALID_HANDLE, as IDL_DRSCrackNames throws it, [MS-DRSR] 4.1.4), one that
// went bad (StaleHandle: it stays bad until unbound), a controller that no longer
// answers (RPC_S_SERVER_UNAVAILABLE), or a fault of this call.
DWORD boundController(std::string_view function, HANDLE h, const Directory& dir, Binding& binding) {
    if (DWORD code = useBinding(h, binding)) return code;
    const DomainController* dc = dir.controllerNamed(binding.dc);
    if (!dc || !dc->available) return RPC_S_SERVER_UNAVAILABLE;
    if (DWORD code = injectedFault("StaleHandle", function)) {
        markStale(h, code);
        return code;
    }
    return injectedFault(function, binding.dc);
}

std::wstring guidText(const GUID& g) {
    wchar_t buf[40];
    std::swprintf(buf, 40, L"{%08lx-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x}", g.Data1, g.Data2, g.Data3, g.Data4[0],
                  g.Data4[1], g.Data4[2], g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
    return buf;
}

std::vector<const DirectoryObject*> objectsNamed(const Directory& dir, DS_NAME_FORMAT format, std::wstring_view name) {
    std::vector<const DirectoryObject*> out;
    auto collect = [&](auto&& matches) {
        for (const DirectoryObject& o : dir.objects)
            if (matches(o)) out.push_back(&o);
    };
    switch (format) {
    case DS_UNIQUE_ID_NAME: {
        // The braced form IIDFromString takes (DS_NAME_FORMAT).
        GUID guid;
        if (name.size() == 38 && name.front() == L'{' && evtsim::parseGuid(utf8(name), guid))
            collect([&](const DirectoryObject& o) { return o.hasGuid && IsEqualGUID(o.guid, guid); });
        break;
    }
    case DS_SID_OR_SID_HISTORY_NAME: {
        // The object's SID or one of its SID history (DS_NAME_FORMAT).
        std::string sid;
        if (evtsim::parseSid(utf8(name), sid))
            collect([&](const DirectoryObject& o) { return std::find(o.sids.begin(), o.sids.end(), sid) != o.sids.end(); });
        break;
    }
    case DS_FQDN_1779_NAME: collect([&](const DirectoryObject& o) { return iequals(o.dn, name); }); break;
    case DS_NT4_ACCOUNT_NAME:
        collect([&](const DirectoryObject& o) { return !o.account.empty() && iequals(o.account, name); });
        break;
    case DS_CANONICAL_NAME:
    case DS_CANONICAL_NAME_EX:
        collect([&](const DirectoryObject& o) {
            std::wstring canonical;
            return canonicalName(o.dn, format == DS_CANONICAL_NAME_EX, canonical) && iequals(canonical, name);
        });
        break;
    case DS_UNKNOWN_NAME:
        for (DS_NAME_FORMAT f : {DS_UNIQUE_ID_NAME, DS_SID_OR_SID_HISTORY_NAME, DS_FQDN_1779_NAME, DS_NT4_ACCOUNT_NAME})
            if (out = objectsNamed(dir, f, name); !out.empty()) break;
        break;
    default: break;  // names in other formats are not kept: never found
    }
    return out;
}

// The object's name in `format`; empty when it has none (DS_NAME_ERROR_NO_MAPPING).
std::wstring nameIn(const DirectoryObject& o, DS_NAME_FORMAT format) {
    std::wstring out;
    switch (format) {
    case DS_FQDN_1779_NAME: return o.dn;
    case DS_NT4_ACCOUNT_NAME: return o.account;
    case DS_UNIQUE_ID_NAME: return o.hasGuid ? guidText(o.guid) : L"";
    case DS_CANONICAL_NAME:
    case DS_CANONICAL_NAME_EX: canonicalName(o.dn, format == DS_CANONICAL_NAME_EX, out); return out;
    default: return L"";
    }
}

struct Item {
    DWORD status = DS_NAME_NO_ERROR;
    std::wstring domain, name;  // empty: a null pointer
};

Item crack(const Directory& dir, const Binding& binding, DS_NAME_FORMAT offered, DS_NAME_FORMAT desired,
           std::wstring_view name) {
    auto found = objectsNamed(dir, offered, name);
    Item item;
    if (DWORD status = injectedFault("NameStatus", name)) {
        item.status = status;
        // pDomain is valid with DS_NAME_ERROR_DOMAIN_ONLY (DS_NAME_RESULT_ITEM).
        if (status == DS_NAME_ERROR_DOMAIN_ONLY) item.domain = found.size() == 1 ? found[0]->domain : binding.domain;
    } else if (found.empty()) {
        item.status = DS_NAME_ERROR_NOT_FOUND;
    } else if (found.size() > 1) {
        item.status = DS_NAME_ERROR_NOT_UNIQUE;
    } else if (item.name = nameIn(*found[0], desired); item.name.empty()) {
        item.status = DS_NAME_ERROR_NO_MAPPING;
    } else {
        item.domain = found[0]->domain;
    }
    return item;
}

// The only syntactical mapping is from DS_FQDN_1779_NAME to DS_CANONICAL_NAME or
// DS_CANONICAL_NAME_EX (DS_NAME_FLAGS, DS_NAME_FLAG_SYNTACTICAL_ONLY).
Item crackSyntactically(DS_NAME_FORMAT offered, DS_NAME_FORMAT desired, std::wstring_view name) {
    Item item;
    if (offered != DS_FQDN_1779_NAME || (desired != DS_CANONICAL_NAME && desired != DS_CANONICAL_NAME_EX) ||
        !canonicalName(name, desired == DS_CANONICAL_NAME_EX, item.name))
        item.status = DS_NAME_ERROR_NO_SYNTACTICAL_MAPPING;
    else item.domain = domainOfDn(name);
    return item;
}

}  // namespace

DWORD WINAPI DsMapSchemaGuidsW(HANDLE hDs, DWORD cGuids, GUID* rGuids, DS_SCHEMA_GUID_MAPW** ppGuidMap) {
    CallScope call(kDsMapSchemaGuidsW);
    if (!ppGuidMap || !rGuids || cGuids == 0) return ERROR_INVALID_PARAMETER;
    DWORD error = 0;
    auto dir = currentDirectory(error);
    if (!dir) return error;
    Binding binding;
    if (DWORD code = boundController("DsMapSchemaGuidsW", hDs, *dir, binding)) return code;
    // A GUID the schema does not know is no failure: DS_SCHEMA_GUID_NOT_FOUND with a
    // null name (DS_SCHEMA_GUID_MAP).
    std::vector<const SchemaEntry*> entries(cGuids);
    size_t bytes = sizeof(DS_SCHEMA_GUID_MAPW) * cGuids;
    for (DWORD i = 0; i < cGuids; ++i)
        if ((entries[i] = dir->schemaEntry(rGuids[i]))) bytes += StringArena::bytes(entries[i]->name);
    auto* map = static_cast<DS_SCHEMA_GUID_MAPW*>(allocateBuffer(bytes, BufferKind::SchemaGuidMap));
    if (!map) return ERROR_NOT_ENOUGH_MEMORY;
    StringArena strings(map + cGuids);
    for (DWORD i = 0; i < cGuids; ++i) {
        map[i].guid = rGuids[i];
        map[i].guidType = entries[i] ? entries[i]->type : DS_SCHEMA_GUID_NOT_FOUND;
        map[i].pName = entries[i] ? strings.put(entries[i]->name) : nullptr;
    }
    *ppGuidMap = map;
    return ERROR_SUCCESS;
}

DWORD WINAPI DsCrackNamesW(HANDLE hDS, DS_NAME_FLAGS flags, DS_NAME_FORMAT formatOffered, DS_NAME_FORMAT formatDesired,
                           DWORD cNames, const LPCWSTR* rpNames, PDS_NAME_RESULTW* ppResult) {
    CallScope call(kDsCrackNamesW);
    if (!ppResult || !rpNames || cNames == 0) return ERROR_INVALID_PARAMETER;
    for (DWORD i = 0; i < cNames; ++i)
        if (!rpNames[i]) return ERROR_INVALID_PARAMETER;
    // "The DS_SID_OR_SID_HISTORY_NAME value is not supported" as the desired format
    // (DsCrackNamesW, formatDesired).
    if (formatDesired == DS_SID_OR_SID_HISTORY_NAME) return ERROR_INVALID_PARAMETER;
    std::vector<Item> items;
    if (flags & DS_NAME_FLAG_SYNTACTICAL_ONLY) {
        // No controller is asked, so no handle is needed (DsCrackNamesW, hDS).
        for (DWORD i = 0; i < cNames; ++i) items.push_back(crackSyntactically(formatOffered, formatDesired, rpNames[i]));
    } else {
        if (!hDS) return ERROR_INVALID_PARAMETER;
        DWORD error = 0;
        auto dir = currentDirectory(error);
        if (!dir) return error;
        Binding binding;
        if (DWORD code = boundController("DsCrackNamesW", hDS, *dir, binding)) return code;
        // Each name's trouble is its item's status; the call itself succeeds
        // (DsCrackNamesW remarks).
        for (DWORD i = 0; i < cNames; ++i) items.push_back(crack(*dir, binding, formatOffered, formatDesired, rpNames[i]));
    }
    size_t bytes = sizeof(DS_NAME_RESULTW) + sizeof(DS_NAME_RESULT_ITEMW) * cNames;
    for (const Item& item : items) {
        if (!item.domain.empty()) bytes += StringArena::bytes(item.domain);
        if (!item.name.empty()) bytes += StringArena::bytes(item.name);
    }
    auto* result = static_cast<DS_NAME_RESULTW*>(allocateBuffer(bytes, BufferKind::NameResult));
    if (!result) return ERROR_NOT_ENOUGH_MEMORY;
    result->cItems = cNames;
    result->rItems = reinterpret_cast<DS_NAME_RESULT_ITEMW*>(result + 1);
    StringArena strings(result->rItems + cNames);
    for (DWORD i = 0; i < cNames; ++i) {
        result->rItems[i].status = items[i].status;
        result->rItems[i].pDomain = items[i].domain.empty() ? nullptr : strings.put(items[i].domain);
        result->rItems[i].pName = items[i].name.empty() ? nullptr : strings.put(items[i].name);
    }
    *ppResult = result;
    return ERROR_SUCCESS;
}

void WINAPI DsFreeNameResultW(DS_NAME_RESULTW* pResult) {
    CallScope call(kDsFreeNameResultW);
    freeBuffer(pResult, BufferKind::NameResult);
}

void WINAPI DsFreeSchemaGuidMapW(PDS_SCHEMA_GUID_MAPW pGuidMap) {
    CallScope call(kDsFreeSchemaGuidMapW);
    freeBuffer(pGuidMap, BufferKind::SchemaGuidMap);
}

}  // namespace dssim
