#pragma once
// The simulated event collector, in process: the fifteen entry points with the
// signatures of the system's event collector library (Wecapi.dll), plus the knobs
// tests need.

#include <windows.h>

// MinGW's <evcoll.h> uses this type without defining it (the SDK's is a HANDLE).
#ifndef EC_OBJECT_ARRAY_PROPERTY_HANDLE
typedef HANDLE EC_OBJECT_ARRAY_PROPERTY_HANDLE;
#endif
#include <evcoll.h>

#include <cstdint>
#include <string>
#include <string_view>

// "Windows Event Collector Constants" (learn.microsoft.com, wec); MinGW's header
// lacks them.
#ifndef EC_READ_ACCESS
#define EC_VARIANT_TYPE_MASK 0x7f
#define EC_VARIANT_TYPE_ARRAY 128
#define EC_READ_ACCESS 1
#define EC_WRITE_ACCESS 2
#define EC_OPEN_ALWAYS 0
#define EC_CREATE_NEW 1
#define EC_OPEN_EXISTING 2
#endif

namespace ecsim {

BOOL WINAPI EcClose(EC_HANDLE Object);
EC_HANDLE WINAPI EcOpenSubscriptionEnum(DWORD Flags);
BOOL WINAPI EcEnumNextSubscription(EC_HANDLE SubscriptionEnum, DWORD SubscriptionNameBufferSize,
                                   LPWSTR SubscriptionNameBuffer, PDWORD SubscriptionNameBufferUsed);
EC_HANDLE WINAPI EcOpenSubscription(LPCWSTR SubscriptionName, DWORD AccessMask, DWORD Flags);
BOOL WINAPI EcGetSubscriptionProperty(EC_HANDLE Subscription, EC_SUBSCRIPTION_PROPERTY_ID PropertyId, DWORD Flags,
                                      DWORD PropertyValueBufferSize, PEC_VARIANT PropertyValueBuffer,
                                      PDWORD PropertyValueBufferUsed);
BOOL WINAPI EcSetSubscriptionProperty(EC_HANDLE Subscription, EC_SUBSCRIPTION_PROPERTY_ID PropertyId, DWORD Flags,
                                      PEC_VARIANT PropertyValue);
BOOL WINAPI EcSaveSubscription(EC_HANDLE Subscription, DWORD Flags);
BOOL WINAPI EcDeleteSubscription(LPCWSTR SubscriptionName, DWORD Flags);
BOOL WINAPI EcGetObjectArraySize(EC_OBJECT_ARRAY_PROPERTY_HANDLE ObjectArray, PDWORD ObjectArraySize);
BOOL WINAPI EcGetObjectArrayProperty(EC_OBJECT_ARRAY_PROPERTY_HANDLE ObjectArray,
                                     EC_SUBSCRIPTION_PROPERTY_ID PropertyId, DWORD ArrayIndex, DWORD Flags,
                                     DWORD PropertyValueBufferSize, PEC_VARIANT PropertyValueBuffer,
                                     PDWORD PropertyValueBufferUsed);
BOOL WINAPI EcSetObjectArrayProperty(EC_OBJECT_ARRAY_PROPERTY_HANDLE ObjectArray,
                                     EC_SUBSCRIPTION_PROPERTY_ID PropertyId, DWORD ArrayIndex, DWORD Flags,
                                     PEC_VARIANT PropertyValue);
BOOL WINAPI EcInsertObjectArrayElement(EC_OBJECT_ARRAY_PROPERTY_HANDLE ObjectArray, DWORD ArrayIndex);
BOOL WINAPI EcRemoveObjectArrayElement(EC_OBJECT_ARRAY_PROPERTY_HANDLE ObjectArray, DWORD ArrayIndex);
BOOL WINAPI EcGetSubscriptionRunTimeStatus(LPCWSTR SubscriptionName,
                                           EC_SUBSCRIPTION_RUNTIME_STATUS_INFO_ID StatusInfoId,
                                           LPCWSTR EventSourceName, DWORD Flags, DWORD StatusValueBufferSize,
                                           PEC_VARIANT StatusValueBuffer, PDWORD StatusValueBufferUsed);
BOOL WINAPI EcRetrySubscription(LPCWSTR SubscriptionName, LPCWSTR EventSourceName, DWORD Flags);

// The store this process reads; an empty root means ECSIM_STORE.
void setStoreRoot(const std::wstring& root);
std::wstring storeRoot();

// Fault rules for this process, replacing ECSIM_FAULTS and the store's faults.txt
// (see README.md); false, with the reason in `error`, on bad syntax.
bool setFaults(std::string_view rules, std::string* error = nullptr);
// Back to ECSIM_FAULTS and the store's file.
void clearFaults();

// Handles handed out and not yet closed (leak checks).
size_t openHandleCount();
// Calls of one entry point since the process started or the last reset.
uint64_t callCount(std::string_view function);
void resetCallCounts();

}  // namespace ecsim
