#pragma once
// Shared helpers for the directory service stand-in's fidelity tests.

#include <gtest/gtest.h>

#include <string>

#include "DssimInProcess.h"
#include "platform/Handles.h"

namespace dssim_test {

using ControllerInfo = skorva::UniqueAny<DOMAIN_CONTROLLER_INFOW*, &dssim::NetApiBufferFree>;
using NameResult = skorva::UniqueAny<DS_NAME_RESULTW*, &dssim::DsFreeNameResultW>;
using GuidMap = skorva::UniqueAny<DS_SCHEMA_GUID_MAPW*, &dssim::DsFreeSchemaGuidMapW>;

// A bound handle, unbound at the end of its scope.
class Binding {
public:
    explicit Binding(LPCWSTR dc = nullptr, LPCWSTR domain = nullptr) { status_ = dssim::DsBindW(dc, domain, &h_); }
    ~Binding() {
        if (h_) dssim::DsUnBindW(&h_);
    }
    Binding(const Binding&) = delete;
    Binding& operator=(const Binding&) = delete;
    DWORD status() const { return status_; }
    HANDLE get() const { return h_; }

private:
    HANDLE h_ = nullptr;
    DWORD status_ = 0;
};

inline std::wstring text(const wchar_t* s) { return s ? s : L"(null)"; }

// One name through DsCrackNamesW with the product's flag.
inline DWORD crack(HANDLE h, DS_NAME_FORMAT offered, DS_NAME_FORMAT desired, const wchar_t* name, NameResult& out) {
    DS_NAME_RESULTW* result = nullptr;
    DWORD rc = dssim::DsCrackNamesW(h, DS_NAME_FLAG_EVAL_AT_DC, offered, desired, 1, &name, &result);
    out.reset(result);
    return rc;
}

constexpr const wchar_t* kAlice = L"{20983438-8bbc-45b7-9563-9a5fc0cc48ec}";

}  // namespace dssim_test
