// The DLL's entry points: the system library's names and signatures (checked by
// the compiler against <evcoll.h>), each handing over to the simulation. Which of
// them a build exports is the .def file's choice (see CMakeLists.txt).
#include "Ecsim.h"

extern "C" {

BOOL WINAPI EcClose(EC_HANDLE Object) { return ecsim::EcClose(Object); }
EC_HANDLE WINAPI EcOpenSubscriptionEnum(DWORD Flags) { return ecsim::EcOpenSubscriptionEnum(Flags); }
BOOL WINAPI EcEnumNextSubscription(EC_HANDLE SubscriptionEnum, DWORD SubscriptionNameBufferSize,
                                   LPWSTR SubscriptionNameBuffer, PDWORD SubscriptionNameBufferUsed) {
    return ecsim::EcEnumNextSubscription(SubscriptionEnum, SubscriptionNameBufferSize, SubscriptionNameBuffer,
                                         SubscriptionNameBufferUsed);
}
EC_HANDLE WINAPI EcOpenSubscription(LPCWSTR SubscriptionName, DWORD AccessMask, DWORD Flags) {
    return ecsim::EcOpenSubscription(SubscriptionName, AccessMask, Flags);
}
BOOL WINAPI EcGetSubscriptionProperty(EC_HANDLE Subscription, EC_SUBSCRIPTION_PROPERTY_ID PropertyId, DWORD Flags,
                                      DWORD PropertyValueBufferSize, PEC_VARIANT PropertyValueBuffer,
                                      PDWORD PropertyValueBufferUsed) {
    return ecsim::EcGetSubscriptionProperty(Subscription, PropertyId, Flags, PropertyValueBufferSize,
                                            PropertyValueBuffer, PropertyValueBufferUsed);
}
BOOL WINAPI EcSetSubscriptionProperty(EC_HANDLE Subscription, EC_SUBSCRIPTION_PROPERTY_ID PropertyId, DWORD Flags,
                                      PEC_VARIANT PropertyValue) {
    return ecsim::EcSetSubscriptionProperty(Subscription, PropertyId, Flags, PropertyValue);
}
BOOL WINAPI EcSaveSubscription(EC_HANDLE Subscription, DWORD Flags) {
    return ecsim::EcSaveSubscription(Subscription, Flags);
}
BOOL WINAPI EcDeleteSubscription(LPCWSTR SubscriptionName, DWORD Flags) {
    return ecsim::EcDeleteSubscription(SubscriptionName, Flags);
}
BOOL WINAPI EcGetObjectArraySize(EC_OBJECT_ARRAY_PROPERTY_HANDLE ObjectArray, PDWORD ObjectArraySize) {
    return ecsim::EcGetObjectArraySize(ObjectArray, ObjectArraySize);
}
BOOL WINAPI EcGetObjectArrayProperty(EC_OBJECT_ARRAY_PROPERTY_HANDLE ObjectArray,
                                     EC_SUBSCRIPTION_PROPERTY_ID PropertyId, DWORD ArrayIndex, DWORD Flags,
                                     DWORD PropertyValueBufferSize, PEC_VARIANT PropertyValueBuffer,
                                     PDWORD PropertyValueBufferUsed) {
    return ecsim::EcGetObjectArrayProperty(ObjectArray, PropertyId, ArrayIndex, Flags, PropertyValueBufferSize,
                                           PropertyValueBuffer, PropertyValueBufferUsed);
}
BOOL WINAPI EcSetObjectArrayProperty(EC_OBJECT_ARRAY_PROPERTY_HANDLE ObjectArray,
                                     EC_SUBSCRIPTION_PROPERTY_ID PropertyId, DWORD ArrayIndex, DWORD Flags,
                                     PEC_VARIANT PropertyValue) {
    return ecsim::EcSetObjectArrayProperty(ObjectArray, PropertyId, ArrayIndex, Flags, PropertyValue);
}
BOOL WINAPI EcInsertObjectArrayElement(EC_OBJECT_ARRAY_PROPERTY_HANDLE ObjectArray, DWORD ArrayIndex) {
    return ecsim::EcInsertObjectArrayElement(ObjectArray, ArrayIndex);
}
BOOL WINAPI EcRemoveObjectArrayElement(EC_OBJECT_ARRAY_PROPERTY_HANDLE ObjectArray, DWORD ArrayIndex) {
    return ecsim::EcRemoveObjectArrayElement(ObjectArray, ArrayIndex);
}
BOOL WINAPI EcGetSubscriptionRunTimeStatus(LPCWSTR SubscriptionName,
                                           EC_SUBSCRIPTION_RUNTIME_STATUS_INFO_ID StatusInfoId,
                                           LPCWSTR EventSourceName, DWORD Flags, DWORD StatusValueBufferSize,
                                           PEC_VARIANT StatusValueBuffer, PDWORD StatusValueBufferUsed) {
    return ecsim::EcGetSubscriptionRunTimeStatus(SubscriptionName, StatusInfoId, EventSourceName, Flags,
                                                 StatusValueBufferSize, StatusValueBuffer, StatusValueBufferUsed);
}
BOOL WINAPI EcRetrySubscription(LPCWSTR SubscriptionName, LPCWSTR EventSourceName, DWORD Flags) {
    return ecsim::EcRetrySubscription(SubscriptionName, EventSourceName, Flags);
}

}  // extern "C"
