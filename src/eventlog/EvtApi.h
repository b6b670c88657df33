#pragma once
// The process-wide table of event log, event collector, directory and classic
// event log entry points. Filled once by WinEventLogAPIInitializer (resolved by
// name from the system directory); every other piece of the program calls these
// functions only through this table, after asking the initializer whether its
// group is available. Unit tests fill it with fakes or with the simulated event
// log.

#include <windows.h>
#include <winevt.h>

// MinGW's evcoll.h uses this type without defining it.
#ifndef EC_OBJECT_ARRAY_PROPERTY_HANDLE
typedef HANDLE EC_OBJECT_ARRAY_PROPERTY_HANDLE;
#endif
#include <evcoll.h>

#include <dsgetdc.h>
#include <lmcons.h>
#include <lmapibuf.h>
#include <ntdsapi.h>

#include "platform/Handles.h"

namespace skorva {

struct EvtApi {
    decltype(&::EvtSubscribe) EvtSubscribe = nullptr;
    decltype(&::EvtQuery) EvtQuery = nullptr;
    decltype(&::EvtNext) EvtNext = nullptr;
    decltype(&::EvtRender) EvtRender = nullptr;
    decltype(&::EvtClose) EvtClose = nullptr;
    decltype(&::EvtCreateRenderContext) EvtCreateRenderContext = nullptr;
    decltype(&::EvtOpenPublisherMetadata) EvtOpenPublisherMetadata = nullptr;
    decltype(&::EvtFormatMessage) EvtFormatMessage = nullptr;
    decltype(&::EvtCreateBookmark) EvtCreateBookmark = nullptr;
    decltype(&::EvtUpdateBookmark) EvtUpdateBookmark = nullptr;
    decltype(&::EvtNextChannelPath) EvtNextChannelPath = nullptr;
    decltype(&::EvtOpenChannelEnum) EvtOpenChannelEnum = nullptr;
    decltype(&::EvtSeek) EvtSeek = nullptr;
};

struct EcApi {
    decltype(&::EcClose) EcClose = nullptr;
    decltype(&::EcOpenSubscriptionEnum) EcOpenSubscriptionEnum = nullptr;
    decltype(&::EcDeleteSubscription) EcDeleteSubscription = nullptr;
    decltype(&::EcEnumNextSubscription) EcEnumNextSubscription = nullptr;
    decltype(&::EcGetObjectArrayProperty) EcGetObjectArrayProperty = nullptr;
    decltype(&::EcGetObjectArraySize) EcGetObjectArraySize = nullptr;
    decltype(&::EcGetSubscriptionProperty) EcGetSubscriptionProperty = nullptr;
    decltype(&::EcSaveSubscription) EcSaveSubscription = nullptr;
    decltype(&::EcGetSubscriptionRunTimeStatus) EcGetSubscriptionRunTimeStatus = nullptr;
    decltype(&::EcOpenSubscription) EcOpenSubscription = nullptr;
    decltype(&::EcInsertObjectArrayElement) EcInsertObjectArrayElement = nullptr;
    decltype(&::EcSetObjectArrayProperty) EcSetObjectArrayProperty = nullptr;
    decltype(&::EcSetSubscriptionProperty) EcSetSubscriptionProperty = nullptr;
    decltype(&::EcRemoveObjectArrayElement) EcRemoveObjectArrayElement = nullptr;
    decltype(&::EcRetrySubscription) EcRetrySubscription = nullptr;
};

struct DsApi {
    decltype(&::DsGetDcNameW) DsGetDcNameW = nullptr;
    decltype(&::NetApiBufferFree) NetApiBufferFree = nullptr;
    decltype(&::DsBindW) DsBindW = nullptr;
    decltype(&::DsUnBindW) DsUnBindW = nullptr;
    decltype(&::DsMapSchemaGuidsW) DsMapSchemaGuidsW = nullptr;
    decltype(&::DsCrackNamesW) DsCrackNamesW = nullptr;
    decltype(&::DsFreeNameResultW) DsFreeNameResultW = nullptr;
    decltype(&::DsFreeSchemaGuidMapW) DsFreeSchemaGuidMapW = nullptr;
};

// The classic event log functions (advapi32): the legacy reader's.
struct LegacyApi {
    decltype(&::OpenEventLogW) OpenEventLogW = nullptr;
    decltype(&::ReadEventLogW) ReadEventLogW = nullptr;
    decltype(&::GetNumberOfEventLogRecords) GetNumberOfEventLogRecords = nullptr;
    decltype(&::GetOldestEventLogRecord) GetOldestEventLogRecord = nullptr;
    decltype(&::CloseEventLog) CloseEventLog = nullptr;
    decltype(&::NotifyChangeEventLog) NotifyChangeEventLog = nullptr;
};

struct ApiTable {
    EvtApi evt;
    EcApi ec;
    DsApi ds;
    LegacyApi legacy;
};

// The one table of the process.
ApiTable& apiTable();
inline const EvtApi& evtApi() { return apiTable().evt; }
inline const LegacyApi& legacyApi() { return apiTable().legacy; }

// Closes through the table: an EVT_HANDLE (query, subscription, event, bookmark,
// render context, publisher metadata, channel enumeration) belongs to the
// library that made it.
inline void closeEvtHandle(EVT_HANDLE h) noexcept {
    if (auto fn = apiTable().evt.EvtClose) fn(h);
}
using UniqueEvtHandle = UniqueAny<EVT_HANDLE, &closeEvtHandle>;

// Closes `handle` now, for a caller that reports a failed close; the error of
// a failed EvtClose, else 0.
inline DWORD closeEvtHandleNow(UniqueEvtHandle& handle) {
    const EVT_HANDLE raw = handle.release();
    const auto close = apiTable().evt.EvtClose;
    if (!raw || !close || close(raw)) return 0;
    return ::GetLastError();
}

// A classic event log handle (OpenEventLogW) is closed through the table too.
inline void closeEventLog(HANDLE h) noexcept {
    if (auto fn = apiTable().legacy.CloseEventLog) fn(h);
}
using UniqueEventLog = UniqueAny<HANDLE, &closeEventLog>;

// Closes through the table: an EC_HANDLE (subscription enumeration, subscription)
// belongs to the event collector library.
inline void closeEcHandle(EC_HANDLE h) noexcept {
    if (auto fn = apiTable().ec.EcClose) fn(h);
}
using UniqueEcHandle = UniqueAny<EC_HANDLE, &closeEcHandle>;

}  // namespace skorva
