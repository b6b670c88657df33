// Finding and binding a domain controller: DsGetDcNameW, NetApiBufferFree, DsBindW,
// DsUnBindW.
#include <lmerr.h>

#include <algorithm>
#include <vector>

#include "Internal.h"
#include "Text.h"

namespace dssim {

using evtsim::iequals;

namespace {

// DSGETDC_VALID_FLAGS as the netlogon service itself logs it ("NetpDcInitializeContext:
// DSGETDC_VALID_FLAGS is c0fffff1", plooploops/windows-containers-AD #7); MinGW's
// header lacks the newer bits.
constexpr ULONG kValidFlags = 0xC0FFFFF1;
constexpr ULONG kTryNextClosestSite = 0x00040000;

// What a writable global catalog of Windows Server 2016 answers besides the closest
// and PDC bits ([MS-ADTS] 6.3.1.2 DS_FLAG): LDAP, DS, KDC, time service, writable,
// full secret, web service, DS 8 and DS 9 (0xe000f1fc observed for a closest GC,
// plooploops/windows-containers-AD #7).
constexpr ULONG kServerFlags = DS_LDAP_FLAG | DS_DS_FLAG | DS_KDC_FLAG | DS_TIMESERV_FLAG | DS_WRITABLE_FLAG | 0x1000 |
                               0x2000 | 0x4000 | 0x8000;

std::wstring_view arg(LPCWSTR s) { return s ? std::wstring_view(s) : std::wstring_view(); }

// A DNS name may be given with or without its trailing period (DsGetDcNameW, DomainName).
bool sameDomain(std::wstring_view dns, std::wstring_view flat, std::wstring_view asked) {
    if (!asked.empty() && asked.back() == L'.') asked.remove_suffix(1);
    return iequals(dns, asked) || iequals(flat, asked);
}

// The documented conflicts: DS_GC_SERVER_REQUIRED, DS_PDC_REQUIRED and DS_KDC_REQUIRED
// exclude each other; DS_IS_DNS_NAME excludes DS_IS_FLAT_NAME, DS_RETURN_DNS_NAME
// excludes DS_RETURN_FLAT_NAME; DS_TRY_NEXTCLOSEST_SITE with a site name gives
// ERROR_INVALID_FLAGS (DsGetDcNameW, Flags).
bool flagsValid(ULONG flags, LPCWSTR site) {
    auto both = [&](ULONG a, ULONG b) { return (flags & a) && (flags & b); };
    return !(flags & ~kValidFlags) && !both(DS_GC_SERVER_REQUIRED, DS_PDC_REQUIRED) &&
           !both(DS_GC_SERVER_REQUIRED, DS_KDC_REQUIRED) && !both(DS_PDC_REQUIRED, DS_KDC_REQUIRED) &&
           !both(DS_IS_DNS_NAME, DS_IS_FLAT_NAME) && !both(DS_RETURN_DNS_NAME, DS_RETURN_FLAT_NAME) &&
           !((flags & kTryNextClosestSite) && site && *site);
}

// The controllers of `domain` (the computer's own domain, the first controller's,
// when empty) that meet the request, the closest first.
std::vector<const DomainController*> locate(const Directory& dir, std::wstring_view domain, const GUID* domainGuid,
                                            std::wstring_view site, ULONG flags) {
    const bool gc = flags & DS_GC_SERVER_REQUIRED;
    if (domain.empty() && !dir.dcs.empty()) domain = gc ? dir.dcs.front().forest : dir.dcs.front().domain;
    auto inDomain = [&](const DomainController& dc) {
        // A global catalog is asked for by the forest's name (DsGetDcNameW, DomainName).
        return gc ? sameDomain(dc.forest, L"", domain) : sameDomain(dc.domain, dc.flatDomain, domain);
    };
    bool known = false;
    for (const DomainController& dc : dir.dcs) known |= inDomain(dc);
    std::vector<const DomainController*> out;
    for (const DomainController& dc : dir.dcs) {
        const bool byGuid = !known && domainGuid && IsEqualGUID(dc.domainGuid, *domainGuid);
        if (!(known ? inDomain(dc) : byGuid)) continue;
        if (!site.empty() && !iequals(dc.site, site)) continue;
        if ((flags & DS_PDC_REQUIRED) && !dc.pdc) continue;
        if (gc && !dc.gc) continue;
        if ((flags & (DS_IP_REQUIRED | DS_RETURN_DNS_NAME)) && dc.address.empty()) continue;
        // The locator does not check that a controller answers; only a rediscovery
        // skips one that does not (DsGetDcNameW remarks).
        if ((flags & DS_FORCE_REDISCOVERY) && !dc.available) continue;
        out.push_back(&dc);
    }
    std::stable_partition(out.begin(), out.end(), [](const DomainController* dc) { return dc->closest; });
    return out;
}

DOMAIN_CONTROLLER_INFOW* controllerInfo(const DomainController& dc, ULONG flags) {
    const bool flat = flags & DS_RETURN_FLAT_NAME;
    const std::wstring name = L"\\\\" + (flat ? dc.flatName : dc.name);
    const std::wstring address = L"\\\\" + (dc.address.empty() ? dc.flatName : dc.address);
    const std::wstring& domain = flat ? dc.flatDomain : dc.domain;
    size_t bytes = sizeof(DOMAIN_CONTROLLER_INFOW) + StringArena::bytes(name) + StringArena::bytes(address) +
                   StringArena::bytes(domain) + StringArena::bytes(dc.forest) + StringArena::bytes(dc.site) +
                   StringArena::bytes(dc.clientSite);
    auto* info = static_cast<DOMAIN_CONTROLLER_INFOW*>(allocateBuffer(bytes, BufferKind::NetApi));
    if (!info) return nullptr;
    StringArena strings(info + 1);
    info->DomainControllerName = strings.put(name);
    info->DomainControllerAddress = strings.put(address);
    info->DomainControllerAddressType = dc.address.empty() ? DS_NETBIOS_ADDRESS : DS_INET_ADDRESS;
    info->DomainGuid = dc.domainGuid;
    info->DomainName = strings.put(domain);
    info->DnsForestName = strings.put(dc.forest);
    info->Flags = kServerFlags | DS_DNS_FOREST_FLAG | (flat ? 0 : DS_DNS_CONTROLLER_FLAG | DS_DNS_DOMAIN_FLAG) |
                  (dc.gc ? DS_GC_FLAG : 0) | (dc.closest ? DS_CLOSEST_FLAG : 0) | (dc.pdc ? DS_PDC_FLAG : 0);
    info->DcSiteName = dc.site.empty() ? nullptr : strings.put(dc.site);
    info->ClientSiteName = dc.clientSite.empty() ? nullptr : strings.put(dc.clientSite);
    return info;
}

}  // namespace

DWORD WINAPI DsGetDcNameW(LPCWSTR ComputerName, LPCWSTR DomainName, GUID* DomainGuid, LPCWSTR SiteName, ULONG Flags,
                          PDOMAIN_CONTROLLER_INFOW* DomainControllerInfo) {
    CallScope call(kDsGetDcNameW);
    if (!DomainControllerInfo) return ERROR_INVALID_PARAMETER;
    if (!flagsValid(Flags, SiteName)) return ERROR_INVALID_FLAGS;
    if (DWORD code = injectedFault("DsGetDcNameW", arg(DomainName))) return code;
    DWORD error = 0;
    auto dir = currentDirectory(error);
    if (!dir) return error;
    // Processed on the named server: one that cannot be reached fails at the RPC layer
    // ("DsGetDcName (hostname) call failed, error 1722", VikasSukhija/Downloads #1).
    if (!arg(ComputerName).empty() && !dir->controllerNamed(ComputerName)) return RPC_S_SERVER_UNAVAILABLE;
    auto found = locate(*dir, arg(DomainName), DomainGuid, arg(SiteName), Flags);
    // No controller: ERROR_NO_SUCH_DOMAIN (DsGetDcNameW return values; "Getting DC name
    // failed: Status = 1355 0x54b ERROR_NO_SUCH_DOMAIN", Orange-Cyberdefense/GOAD #365).
    if (found.empty()) return ERROR_NO_SUCH_DOMAIN;
    DOMAIN_CONTROLLER_INFOW* info = controllerInfo(*found.front(), Flags);
    if (!info) return ERROR_NOT_ENOUGH_MEMORY;
    *DomainControllerInfo = info;
    return ERROR_SUCCESS;
}

NET_API_STATUS WINAPI NetApiBufferFree(LPVOID Buffer) {
    CallScope call(kNetApiBufferFree);
    if (DWORD code = injectedFault("NetApiBufferFree", L"")) return code;
    return freeBuffer(Buffer, BufferKind::NetApi) ? NERR_Success : ERROR_INVALID_PARAMETER;
}

DWORD WINAPI DsBindW(LPCWSTR DomainControllerName, LPCWSTR DnsDomainName, HANDLE* phDS) {
    CallScope call(kDsBindW);
    if (!phDS) return ERROR_INVALID_PARAMETER;
    DWORD error = 0;
    auto dir = currentDirectory(error);
    if (!dir) return error;
    // A named controller takes precedence; otherwise any controller of the named
    // domain; with neither, a global catalog of the computer's forest (DsBindW remarks).
    const DomainController* dc = nullptr;
    if (!arg(DomainControllerName).empty()) {
        dc = dir->controllerNamed(DomainControllerName);
        if (!dc || !dc->available) return RPC_S_SERVER_UNAVAILABLE;
    } else {
        const ULONG flags = DS_FORCE_REDISCOVERY | (arg(DnsDomainName).empty() ? DS_GC_SERVER_REQUIRED : 0);
        auto found = locate(*dir, arg(DnsDomainName), nullptr, L"", flags);
        if (found.empty()) return ERROR_NO_SUCH_DOMAIN;
        dc = found.front();
    }
    if (DWORD code = injectedFault("DsBindW", dc->name)) return code;
    *phDS = addBinding(Binding{dc->name, dc->domain});
    return ERROR_SUCCESS;
}

DWORD WINAPI DsUnBindW(HANDLE* phDS) {
    CallScope call(kDsUnBindW);
    // Always NO_ERROR (DsUnBind return value); unbinding what is not bound would free
    // memory twice on Windows, so it is counted.
    if (!phDS || !removeBinding(*phDS)) countMisuse();
    return NO_ERROR;
}

}  // namespace dssim
