// The entry points that manage subscriptions: change and save them, their event
// sources, their run-time status. A reader never needs them; they keep to what their
// pages document, validate every argument, and change the store only on save/delete.
#include <algorithm>

#include "Internal.h"

namespace ecsim {

namespace {

DWORD variantTypeOf(ValueType t) {
    switch (t) {
    case ValueType::Boolean: return EcVarTypeBoolean;
    case ValueType::UInt32: return EcVarTypeUInt32;
    case ValueType::String: return EcVarTypeString;
    }
    return EcVarTypeNull;
}

// A caller's variant as a kept value; false when its type is not the property's.
bool valueFromVariant(ValueType type, const EC_VARIANT& v, Value& out) {
    if (v.Type != variantTypeOf(type)) return false;
    out.type = type;
    switch (type) {
    case ValueType::Boolean: out.number = v.BooleanVal ? 1 : 0; return true;
    case ValueType::UInt32: out.number = v.UInt32Val; return true;
    case ValueType::String:
        if (!v.StringVal) return false;
        out.text = v.StringVal;
        return true;
    }
    return false;
}

bool isSourceProperty(EC_SUBSCRIPTION_PROPERTY_ID id) {
    return id >= EcSubscriptionEventSourceAddress && id <= EcSubscriptionEventSourcePassword;
}

bool validName(LPCWSTR name) { return name && *name; }

}  // namespace

// EcSetSubscriptionProperty: "Flags: Reserved. Must be NULL." The value's type must
// be the property's (EC_SUBSCRIPTION_PROPERTY_ID remarks); EcVarTypeNull unsets it.
// Properties the stand-in does not keep give ERROR_NOT_SUPPORTED.
BOOL WINAPI EcSetSubscriptionProperty(EC_HANDLE Subscription, EC_SUBSCRIPTION_PROPERTY_ID PropertyId, DWORD Flags,
                                      PEC_VARIANT PropertyValue) {
    countCall("EcSetSubscriptionProperty");
    auto s = lookupAs<SubscriptionObj>(Subscription, Kind::Subscription);
    if (!s) return failWith(ERROR_INVALID_HANDLE, FALSE);
    if (Flags != 0 || !PropertyValue || static_cast<unsigned>(PropertyId) > EcSubscriptionAllowedSourceDomainComputers ||
        PropertyId == EcSubscriptionEventSources || isSourceProperty(PropertyId))
        return failWith(ERROR_INVALID_PARAMETER, FALSE);
    if (!(s->access & EC_WRITE_ACCESS)) return failWith(ERROR_ACCESS_DENIED, FALSE);
    const PropertyDef* def = findProperty(PropertyId);
    if (!def) return failWith(ERROR_NOT_SUPPORTED, FALSE);
    std::lock_guard<std::mutex> lock(apiMutex());
    if (DWORD f = injectedFault("EcSetSubscriptionProperty", s->working->sub.name)) return failWith(f, FALSE);
    if (PropertyValue->Type == EcVarTypeNull) {
        s->working->sub.clear(PropertyId);
        return TRUE;
    }
    Value v;
    if (!valueFromVariant(def->type, *PropertyValue, v)) return failWith(ERROR_INVALID_PARAMETER, FALSE);
    s->working->sub.set(PropertyId, v);
    return TRUE;
}

// EcSaveSubscription: stores what the handle changed ("This function should be
// called whenever new values are added or updated to the subscription"); it needs
// the collector service.
BOOL WINAPI EcSaveSubscription(EC_HANDLE Subscription, DWORD Flags) {
    countCall("EcSaveSubscription");
    auto s = lookupAs<SubscriptionObj>(Subscription, Kind::Subscription);
    if (!s) return failWith(ERROR_INVALID_HANDLE, FALSE);
    if (Flags != 0) return failWith(ERROR_INVALID_PARAMETER, FALSE);
    if (!(s->access & EC_WRITE_ACCESS)) return failWith(ERROR_ACCESS_DENIED, FALSE);
    std::lock_guard<std::mutex> lock(apiMutex());
    if (DWORD f = injectedFault("EcSaveSubscription", s->working->sub.name)) return failWith(f, FALSE);
    std::vector<ecsim::Subscription> subs;
    if (DWORD e = loadSubscriptions(subs)) return failWith(e, FALSE);
    if (ecsim::Subscription* old = findSubscription(subs, s->working->sub.name)) *old = s->working->sub;
    else subs.push_back(s->working->sub);
    DWORD e = saveSubscriptions(subs);
    return e ? failWith(e, FALSE) : TRUE;
}

BOOL WINAPI EcDeleteSubscription(LPCWSTR SubscriptionName, DWORD Flags) {
    countCall("EcDeleteSubscription");
    if (!validName(SubscriptionName) || Flags != 0) return failWith(ERROR_INVALID_PARAMETER, FALSE);
    if (DWORD f = injectedFault("EcDeleteSubscription", SubscriptionName)) return failWith(f, FALSE);
    std::lock_guard<std::mutex> lock(apiMutex());
    std::vector<Subscription> subs;
    if (DWORD e = loadSubscriptions(subs)) return failWith(e, FALSE);
    const auto removed = std::erase_if(subs, [&](const Subscription& s) { return sameName(s.name, SubscriptionName); });
    if (removed == 0) return failWith(ERROR_FILE_NOT_FOUND, FALSE);
    DWORD e = saveSubscriptions(subs);
    return e ? failWith(e, FALSE) : TRUE;
}

BOOL WINAPI EcGetObjectArraySize(EC_OBJECT_ARRAY_PROPERTY_HANDLE ObjectArray, PDWORD ObjectArraySize) {
    countCall("EcGetObjectArraySize");
    auto a = lookupAs<SourceArrayObj>(ObjectArray, Kind::SourceArray);
    if (!a) return failWith(ERROR_INVALID_HANDLE, FALSE);
    if (!ObjectArraySize) return failWith(ERROR_INVALID_PARAMETER, FALSE);
    std::lock_guard<std::mutex> lock(apiMutex());
    *ObjectArraySize = static_cast<DWORD>(a->working->sub.sources.size());
    return TRUE;
}

// EcGetObjectArrayProperty: the Address, Enabled, UserName and Password of one event
// source ("Arrays are zero-based"); "Flags: Reserved. Must be 0." User names and
// passwords are not kept: they read as EcVarTypeNull.
BOOL WINAPI EcGetObjectArrayProperty(EC_OBJECT_ARRAY_PROPERTY_HANDLE ObjectArray,
                                     EC_SUBSCRIPTION_PROPERTY_ID PropertyId, DWORD ArrayIndex, DWORD Flags,
                                     DWORD PropertyValueBufferSize, PEC_VARIANT PropertyValueBuffer,
                                     PDWORD PropertyValueBufferUsed) {
    countCall("EcGetObjectArrayProperty");
    auto a = lookupAs<SourceArrayObj>(ObjectArray, Kind::SourceArray);
    if (!a) return failWith(ERROR_INVALID_HANDLE, FALSE);
    if (Flags != 0 || !PropertyValueBufferUsed || !isSourceProperty(PropertyId))
        return failWith(ERROR_INVALID_PARAMETER, FALSE);
    if (!(a->access & EC_READ_ACCESS)) return failWith(ERROR_ACCESS_DENIED, FALSE);
    std::lock_guard<std::mutex> lock(apiMutex());
    const auto& sources = a->working->sub.sources;
    if (ArrayIndex >= sources.size()) return failWith(ERROR_INVALID_PARAMETER, FALSE);
    Payload p;
    if (PropertyId == EcSubscriptionEventSourceAddress) p.type = EcVarTypeString, p.strings = {sources[ArrayIndex].address};
    if (PropertyId == EcSubscriptionEventSourceEnabled) p.type = EcVarTypeBoolean, p.scalar = sources[ArrayIndex].enabled;
    return answerVariant(p, PropertyValueBufferSize, PropertyValueBuffer, PropertyValueBufferUsed);
}

BOOL WINAPI EcSetObjectArrayProperty(EC_OBJECT_ARRAY_PROPERTY_HANDLE ObjectArray,
                                     EC_SUBSCRIPTION_PROPERTY_ID PropertyId, DWORD ArrayIndex, DWORD Flags,
                                     PEC_VARIANT PropertyValue) {
    countCall("EcSetObjectArrayProperty");
    auto a = lookupAs<SourceArrayObj>(ObjectArray, Kind::SourceArray);
    if (!a) return failWith(ERROR_INVALID_HANDLE, FALSE);
    if (Flags != 0 || !PropertyValue || !isSourceProperty(PropertyId)) return failWith(ERROR_INVALID_PARAMETER, FALSE);
    if (!(a->access & EC_WRITE_ACCESS)) return failWith(ERROR_ACCESS_DENIED, FALSE);
    if (PropertyId == EcSubscriptionEventSourceUserName || PropertyId == EcSubscriptionEventSourcePassword)
        return failWith(ERROR_NOT_SUPPORTED, FALSE);
    std::lock_guard<std::mutex> lock(apiMutex());
    auto& sources = a->working->sub.sources;
    if (ArrayIndex >= sources.size()) return failWith(ERROR_INVALID_PARAMETER, FALSE);
    Value v;
    const bool address = PropertyId == EcSubscriptionEventSourceAddress;
    if (!valueFromVariant(address ? ValueType::String : ValueType::Boolean, *PropertyValue, v))
        return failWith(ERROR_INVALID_PARAMETER, FALSE);
    if (address) sources[ArrayIndex].address = v.text;
    else sources[ArrayIndex].enabled = v.number != 0;
    return TRUE;
}

// EcInsertObjectArrayElement: "Inserts an empty object into an array"; the index may
// be the array's size (appending).
BOOL WINAPI EcInsertObjectArrayElement(EC_OBJECT_ARRAY_PROPERTY_HANDLE ObjectArray, DWORD ArrayIndex) {
    countCall("EcInsertObjectArrayElement");
    auto a = lookupAs<SourceArrayObj>(ObjectArray, Kind::SourceArray);
    if (!a) return failWith(ERROR_INVALID_HANDLE, FALSE);
    if (!(a->access & EC_WRITE_ACCESS)) return failWith(ERROR_ACCESS_DENIED, FALSE);
    std::lock_guard<std::mutex> lock(apiMutex());
    auto& sources = a->working->sub.sources;
    if (ArrayIndex > sources.size()) return failWith(ERROR_INVALID_PARAMETER, FALSE);
    sources.insert(sources.begin() + ArrayIndex, EventSource{});
    return TRUE;
}

BOOL WINAPI EcRemoveObjectArrayElement(EC_OBJECT_ARRAY_PROPERTY_HANDLE ObjectArray, DWORD ArrayIndex) {
    countCall("EcRemoveObjectArrayElement");
    auto a = lookupAs<SourceArrayObj>(ObjectArray, Kind::SourceArray);
    if (!a) return failWith(ERROR_INVALID_HANDLE, FALSE);
    if (!(a->access & EC_WRITE_ACCESS)) return failWith(ERROR_ACCESS_DENIED, FALSE);
    std::lock_guard<std::mutex> lock(apiMutex());
    auto& sources = a->working->sub.sources;
    if (ArrayIndex >= sources.size()) return failWith(ERROR_INVALID_PARAMETER, FALSE);
    sources.erase(sources.begin() + ArrayIndex);
    return TRUE;
}

// EcGetSubscriptionRunTimeStatus: "If the event source is NULL, then the status for
// the overall subscription is retrieved"; EcSubscriptionRunTimeStatusEventSources
// lists the sources (a string array). Nothing ever fails here, so the active status
// follows Enabled, the last error is 0 and the times are unset (EcVarTypeNull).
BOOL WINAPI EcGetSubscriptionRunTimeStatus(LPCWSTR SubscriptionName,
                                           EC_SUBSCRIPTION_RUNTIME_STATUS_INFO_ID StatusInfoId,
                                           LPCWSTR EventSourceName, DWORD Flags, DWORD StatusValueBufferSize,
                                           PEC_VARIANT StatusValueBuffer, PDWORD StatusValueBufferUsed) {
    countCall("EcGetSubscriptionRunTimeStatus");
    if (!validName(SubscriptionName) || Flags != 0 || !StatusValueBufferUsed ||
        static_cast<unsigned>(StatusInfoId) > EcSubscriptionRunTimeStatusLastHeartbeatTime ||
        (EventSourceName && StatusInfoId == EcSubscriptionRunTimeStatusEventSources))
        return failWith(ERROR_INVALID_PARAMETER, FALSE);
    if (DWORD f = injectedFault("EcGetSubscriptionRunTimeStatus", SubscriptionName)) return failWith(f, FALSE);
    std::vector<Subscription> subs;
    if (DWORD e = loadSubscriptions(subs)) return failWith(e, FALSE);
    const Subscription* sub = findSubscription(subs, SubscriptionName);
    if (!sub) return failWith(ERROR_FILE_NOT_FOUND, FALSE);
    bool active = sub->enabled();
    if (EventSourceName) {
        auto it = std::find_if(sub->sources.begin(), sub->sources.end(),
                               [&](const EventSource& s) { return sameName(s.address, EventSourceName); });
        if (it == sub->sources.end()) return failWith(ERROR_NOT_FOUND, FALSE);
        active = active && it->enabled;
    }
    Payload p;
    switch (StatusInfoId) {
    case EcSubscriptionRunTimeStatusActive:
        p.type = EcVarTypeUInt32;
        p.scalar = active ? EcRuntimeStatusActiveStatusActive : EcRuntimeStatusActiveStatusDisabled;
        break;
    case EcSubscriptionRunTimeStatusLastError: p.type = EcVarTypeUInt32; break;
    case EcSubscriptionRunTimeStatusEventSources:
        p.type = EcVarTypeString | EC_VARIANT_TYPE_ARRAY;
        for (const EventSource& s : sub->sources) p.strings.push_back(s.address);
        break;
    default: break;
    }
    return answerVariant(p, StatusValueBufferSize, StatusValueBuffer, StatusValueBufferUsed);
}

// EcRetrySubscription: nothing is ever out of touch here, so a retry of an existing
// subscription (or one of its sources) simply succeeds.
BOOL WINAPI EcRetrySubscription(LPCWSTR SubscriptionName, LPCWSTR EventSourceName, DWORD Flags) {
    countCall("EcRetrySubscription");
    if (!validName(SubscriptionName) || Flags != 0) return failWith(ERROR_INVALID_PARAMETER, FALSE);
    if (DWORD f = injectedFault("EcRetrySubscription", SubscriptionName)) return failWith(f, FALSE);
    std::vector<Subscription> subs;
    if (DWORD e = loadSubscriptions(subs)) return failWith(e, FALSE);
    const Subscription* sub = findSubscription(subs, SubscriptionName);
    if (!sub) return failWith(ERROR_FILE_NOT_FOUND, FALSE);
    if (EventSourceName && std::none_of(sub->sources.begin(), sub->sources.end(),
                                        [&](const EventSource& s) { return sameName(s.address, EventSourceName); }))
        return failWith(ERROR_NOT_FOUND, FALSE);
    return TRUE;
}

}  // namespace ecsim
