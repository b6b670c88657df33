#pragma once
// One channel's binding to a domain controller: the closest (or the primary)
// controller the locator finds, or the one the stanza names, bound with
// DsBindW. A lost binding is bound again at the next use. Used only from the
// channel's worker thread.

#include <windows.h>

#include <string>

#include "config/ChannelSettings.h"
#include "platform/Handles.h"

namespace skorva {

// DsUnBindW through the entry-point table.
void unbindDirectory(HANDLE handle) noexcept;
using UniqueDsHandle = UniqueAny<HANDLE, &unbindDirectory>;

class EvtDC {
public:
    // Controller type: any controller, or the primary domain controller.
    enum Type : DWORD { kAutoDc = 1, kPrimaryDc = 2 };

    // Finds the controller (unless `dcName` names one) and binds to it.
    bool bind(const std::wstring& dcName, const std::wstring& dnsName, DcKind kind);
    // Binds to the controller found or named before (the old binding let go).
    bool connectToDC();
    // The bound state; a lost binding with a known controller is bound again first.
    bool handleReady();
    // Lets the binding go (DsUnBindW).
    void unbind();

    HANDLE handle() const { return handle_.get(); }
    bool bound() const { return bound_; }
    const std::wstring& dcName() const { return dcName_; }

private:
    UniqueDsHandle handle_;
    bool apiReady_ = false;
    bool bound_ = false;
    std::wstring dcName_;
    std::wstring dnsName_;
    DWORD type_ = kAutoDc;
};

}  // namespace skorva
