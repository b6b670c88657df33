#include "directory/EvtDC.h"

#include "eventlog/EvtApi.h"
#include "eventlog/WinEventLogAPIInitializer.h"
#include "platform/Logger.h"

namespace skorva {

namespace {

// The locator's answer, freed only through NetApiBufferFree.
void freeNetApiBuffer(PDOMAIN_CONTROLLER_INFOW info) noexcept {
    if (auto free = apiTable().ds.NetApiBufferFree) free(info);
}
using UniqueDcInfo = UniqueAny<PDOMAIN_CONTROLLER_INFOW, &freeNetApiBuffer>;

const wchar_t* orEmpty(const wchar_t* s) { return s ? s : L""; }
const wchar_t* orNull(const std::wstring& s) { return s.empty() ? nullptr : s.c_str(); }

}  // namespace

void unbindDirectory(HANDLE handle) noexcept {
    if (auto unbind = apiTable().ds.DsUnBindW) unbind(&handle);
}

bool EvtDC::bind(const std::wstring& dcName, const std::wstring& dnsName, DcKind kind) {
    static const char* const fn = "EvtDC::bind";
    apiReady_ = WinEventLogAPIInitializer::isAdsApiAvailable();
    if (!apiReady_) {
        LOG_WARN("%s: DS api has not been initialized for usage", fn);
        return false;
    }
    type_ = kind == DcKind::Primary ? kPrimaryDc : kAutoDc;
    const ULONG flags = type_ == kPrimaryDc ? DS_PDC_REQUIRED : 0;
    LOG_INFO("%s: PDC flag set to %lu (%s)", fn, flags,
             flags ? "only the primary domain controller will do" : "any domain controller will do");

    UniqueDcInfo info;
    if (!dcName.empty()) {
        LOG_INFO("%s: Found DC='%S'", fn, dcName.c_str());
        dcName_ = dcName;
    } else {
        const auto locate = apiTable().ds.DsGetDcNameW;
        // Nothing is promised in the answer on failure: it is adopted only on success.
        PDOMAIN_CONTROLLER_INFOW answer = nullptr;
        const DWORD rc = locate ? locate(nullptr, nullptr, nullptr, nullptr, flags | DS_DIRECTORY_SERVICE_PREFERRED,
                                         &answer)
                                : ERROR_PROC_NOT_FOUND;
        if (rc != NO_ERROR) {
            // The controller name stays as it was; the bind is tried all the same.
            LOG_ERROR("%s: Failed to get domain controller name with DsGetDcName: (%lu)", fn, rc);
        } else {
            info.reset(answer);
            LOG_INFO("%s: Found DC='%S', DCsite='%S', ClientSite = '%S', Domain='%S'", fn,
                     orEmpty(answer->DomainControllerName), orEmpty(answer->DcSiteName),
                     orEmpty(answer->ClientSiteName), orEmpty(answer->DomainName));
            if (!(answer->Flags & DS_CLOSEST_FLAG))
                LOG_ERROR("Did not bind to the closest Domain Controller, a further domain controller has been bound.");
            dcName_ = orEmpty(answer->DomainControllerName);
        }
    }
    dnsName_ = dnsName;
    // The locator's answer is let go on both paths (not only after a bind).
    const bool ok = connectToDC();
    const auto free = apiTable().ds.NetApiBufferFree;
    if (PDOMAIN_CONTROLLER_INFOW answer = info.release(); answer && free) {
        if (const DWORD rc = free(answer); rc != NO_ERROR)
            LOG_ERROR("%s: Failed to free NeApi buffer: (%lu)", fn, rc);
    }
    return ok;
}

bool EvtDC::connectToDC() {
    handle_.reset();
    bound_ = false;
    const auto bindFn = apiTable().ds.DsBindW;
    HANDLE bound = nullptr;
    const DWORD rc = bindFn ? bindFn(orNull(dcName_), orNull(dnsName_), &bound) : ERROR_PROC_NOT_FOUND;
    if (rc != NO_ERROR) {
        LOG_ERROR("%s: DsBind failed: (%lu)", "EvtDC::connectToDC", rc);
        return false;
    }
    handle_.reset(bound);
    bound_ = true;
    return true;
}

bool EvtDC::handleReady() {
    if (!bound_ && apiReady_ && !dcName_.empty()) connectToDC();
    return bound_;
}

void EvtDC::unbind() {
    handle_.reset();
    bound_ = false;
}

}  // namespace skorva
