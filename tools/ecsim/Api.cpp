// Handles, call counts, the variant layout, and the entry points a reader of the
// collector's subscriptions uses: enumerate, open, read properties, close.
#include <cstring>
#include <map>
#include <unordered_map>

#include "Internal.h"

namespace ecsim {

namespace {

struct Registry {
    std::mutex mutex;
    std::unordered_map<uintptr_t, std::shared_ptr<Object>> live;
    uintptr_t next = 0x20000;
};

Registry& registry() {
    static Registry* r = new Registry;  // outlives static destruction: handles may close late
    return *r;
}

struct Calls {
    std::mutex mutex;
    std::map<std::string, uint64_t, std::less<>> counts;
};

Calls& calls() {
    static Calls* c = new Calls;
    return *c;
}

}  // namespace

EC_HANDLE registerObject(std::shared_ptr<Object> obj) {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.next += 4;
    r.live.emplace(r.next, std::move(obj));
    return reinterpret_cast<EC_HANDLE>(r.next);
}

std::shared_ptr<Object> lookupObject(EC_HANDLE h) {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    auto it = r.live.find(reinterpret_cast<uintptr_t>(h));
    return it == r.live.end() ? nullptr : it->second;
}

bool closeObject(EC_HANDLE h) {
    std::shared_ptr<Object> doomed;  // destroyed outside the lock
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    auto it = r.live.find(reinterpret_cast<uintptr_t>(h));
    if (it == r.live.end()) return false;
    doomed = std::move(it->second);
    r.live.erase(it);
    return true;
}

size_t openHandleCount() {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    return r.live.size();
}

std::mutex& apiMutex() {
    static std::mutex* m = new std::mutex;
    return *m;
}

void countCall(const char* function) {
    Calls& c = calls();
    std::lock_guard<std::mutex> lock(c.mutex);
    ++c.counts[function];
}

uint64_t callCount(std::string_view function) {
    Calls& c = calls();
    std::lock_guard<std::mutex> lock(c.mutex);
    auto it = c.counts.find(function);
    return it == c.counts.end() ? 0 : it->second;
}

void resetCallCounts() {
    Calls& c = calls();
    std::lock_guard<std::mutex> lock(c.mutex);
    c.counts.clear();
}

Payload Payload::of(const Value* v) {
    Payload p;
    if (!v) return p;  // a property never set reads as EcVarTypeNull
    switch (v->type) {
    case ValueType::Boolean: p.type = EcVarTypeBoolean, p.scalar = v->number; break;
    case ValueType::UInt32: p.type = EcVarTypeUInt32, p.scalar = v->number; break;
    case ValueType::String: p.type = EcVarTypeString, p.strings = {v->text}; break;
    }
    return p;
}

DWORD payloadBytes(const Payload& p) {
    size_t bytes = sizeof(EC_VARIANT);
    if (p.type & EC_VARIANT_TYPE_ARRAY) bytes += p.strings.size() * sizeof(LPWSTR);
    for (const std::wstring& s : p.strings) bytes += (s.size() + 1) * sizeof(wchar_t);
    return static_cast<DWORD>(bytes);
}

// EcGetSubscriptionProperty: PropertyValueBufferUsed is "the size of the
// user-supplied buffer that is used by the function on successful return, or the
// size that is necessary to store the property value when the function fails with
// ERROR_INSUFFICIENT_BUFFER"; the size is in bytes, as Microsoft's own samples
// ("Displaying the Properties of an Event Collector Subscription") grow a BYTE
// vector to it. Strings follow the variant in the same buffer.
BOOL answerVariant(Payload p, DWORD bufferSize, PEC_VARIANT buffer, PDWORD used,
                   const std::function<EC_HANDLE()>& makeHandle) {
    const DWORD need = payloadBytes(p);
    *used = need;
    if (bufferSize < need) return failWith(ERROR_INSUFFICIENT_BUFFER, FALSE);
    if (!buffer) return failWith(ERROR_INVALID_PARAMETER, FALSE);
    if (makeHandle) p.scalar = reinterpret_cast<uintptr_t>(makeHandle());
    std::memset(buffer, 0, sizeof *buffer);
    buffer->Type = p.type;
    auto* cursor = reinterpret_cast<BYTE*>(buffer + 1);
    auto putString = [&cursor](const std::wstring& s) {
        auto* at = reinterpret_cast<LPWSTR>(cursor);
        std::memcpy(at, s.c_str(), (s.size() + 1) * sizeof(wchar_t));
        cursor += (s.size() + 1) * sizeof(wchar_t);
        return at;
    };
    if (p.type == (EcVarTypeString | EC_VARIANT_TYPE_ARRAY)) {
        auto** list = reinterpret_cast<LPWSTR*>(cursor);
        cursor += p.strings.size() * sizeof(LPWSTR);
        for (size_t i = 0; i < p.strings.size(); ++i) list[i] = putString(p.strings[i]);
        buffer->StringArr = list;
        buffer->Count = static_cast<DWORD>(p.strings.size());
    } else if (p.type == EcVarTypeString) {
        buffer->StringVal = putString(p.strings.front());
    } else if (p.type == EcVarTypeBoolean) {
        buffer->BooleanVal = p.scalar != 0;
    } else if (p.type == EcVarTypeUInt32) {
        buffer->UInt32Val = static_cast<UINT32>(p.scalar);
    } else if (p.type == EcVarObjectArrayPropertyHandle) {
        // The SDK's union has PropertyHandleVal at its start; MinGW's lacks the member.
        const auto h = static_cast<uintptr_t>(p.scalar);
        std::memcpy(buffer, &h, sizeof h);
    }
    return TRUE;
}

BOOL WINAPI EcClose(EC_HANDLE Object) {
    countCall("EcClose");
    if (DWORD f = injectedFault("EcClose")) return failWith(f, FALSE);
    return closeObject(Object) ? TRUE : failWith(ERROR_INVALID_HANDLE, FALSE);
}

// EcOpenSubscriptionEnum: "Flags: Reserved. Must be 0." The names are taken when the
// enumeration opens; later changes do not reach it.
EC_HANDLE WINAPI EcOpenSubscriptionEnum(DWORD Flags) {
    countCall("EcOpenSubscriptionEnum");
    if (Flags != 0) return failWith(ERROR_INVALID_PARAMETER, nullptr);
    if (DWORD f = injectedFault("EcOpenSubscriptionEnum")) return failWith(f, nullptr);
    std::vector<Subscription> subs;
    if (DWORD e = loadSubscriptions(subs)) return failWith(e, nullptr);
    auto obj = std::make_shared<EnumObj>();
    for (Subscription& s : subs) obj->names.push_back(std::move(s.name));
    return registerObject(std::move(obj));
}

// EcEnumNextSubscription: "SubscriptionNameBufferSize: The size of the user-supplied
// buffer (in chars)"; SubscriptionNameBufferUsed is the size used on success "or the
// size that is necessary to store the subscription name when the function fails
// with ERROR_INSUFFICIENT_BUFFER" -- characters, the terminating NUL counted (the
// "Listing Event Collector Subscriptions" sample resizes a WCHAR vector to it). The
// enumeration does not move on a failed call; at its end: ERROR_NO_MORE_ITEMS.
BOOL WINAPI EcEnumNextSubscription(EC_HANDLE SubscriptionEnum, DWORD SubscriptionNameBufferSize,
                                   LPWSTR SubscriptionNameBuffer, PDWORD SubscriptionNameBufferUsed) {
    countCall("EcEnumNextSubscription");
    auto e = lookupAs<EnumObj>(SubscriptionEnum, Kind::Enum);
    if (!e) return failWith(ERROR_INVALID_HANDLE, FALSE);
    if (!SubscriptionNameBufferUsed || (!SubscriptionNameBuffer && SubscriptionNameBufferSize > 0))
        return failWith(ERROR_INVALID_PARAMETER, FALSE);
    std::lock_guard<std::mutex> lock(apiMutex());
    if (e->next >= e->names.size()) return failWith(ERROR_NO_MORE_ITEMS, FALSE);
    const std::wstring& name = e->names[e->next];
    if (DWORD f = injectedFault("EcEnumNextSubscription", name)) return failWith(f, FALSE);
    const auto need = static_cast<DWORD>(name.size() + 1);
    *SubscriptionNameBufferUsed = need;
    if (SubscriptionNameBufferSize < need) return failWith(ERROR_INSUFFICIENT_BUFFER, FALSE);
    std::memcpy(SubscriptionNameBuffer, name.c_str(), need * sizeof(wchar_t));
    ++e->next;
    return TRUE;
}

// EcOpenSubscription: AccessMask EC_READ_ACCESS (1) and/or EC_WRITE_ACCESS (2);
// Flags EC_OPEN_ALWAYS (0), EC_CREATE_NEW (1) or EC_OPEN_EXISTING (2) ("Windows Event
// Collector Constants"). A subscription made here exists once EcSaveSubscription
// stores it. Microsoft documents no code for a missing subscription; subscriptions
// live in the registry, so the stand-in answers ERROR_FILE_NOT_FOUND as a missing
// key does.
EC_HANDLE WINAPI EcOpenSubscription(LPCWSTR SubscriptionName, DWORD AccessMask, DWORD Flags) {
    countCall("EcOpenSubscription");
    if (!SubscriptionName || !*SubscriptionName || AccessMask == 0 ||
        (AccessMask & ~static_cast<DWORD>(EC_READ_ACCESS | EC_WRITE_ACCESS)) || Flags > EC_OPEN_EXISTING)
        return failWith(ERROR_INVALID_PARAMETER, nullptr);
    if (DWORD f = injectedFault("EcOpenSubscription", SubscriptionName)) return failWith(f, nullptr);
    std::vector<Subscription> subs;
    if (DWORD e = loadSubscriptions(subs)) return failWith(e, nullptr);
    auto obj = std::make_shared<SubscriptionObj>();
    obj->access = AccessMask;
    obj->working = std::make_shared<Working>();
    if (Subscription* found = findSubscription(subs, SubscriptionName)) {
        if (Flags == EC_CREATE_NEW) return failWith(ERROR_ALREADY_EXISTS, nullptr);
        obj->working->sub = std::move(*found);
    } else {
        if (Flags == EC_OPEN_EXISTING) return failWith(ERROR_FILE_NOT_FOUND, nullptr);
        if (!(AccessMask & EC_WRITE_ACCESS)) return failWith(ERROR_ACCESS_DENIED, nullptr);
        obj->working->sub.name = SubscriptionName;
    }
    return registerObject(std::move(obj));
}

// EcGetSubscriptionProperty: "Flags: Reserved. Must be NULL." Asking for
// EcSubscriptionEventSources hands out a handle to the event-source array (an
// EcVarObjectArrayPropertyHandle value) that the caller closes with EcClose; the
// sources' own four properties are read through EcGetObjectArrayProperty.
BOOL WINAPI EcGetSubscriptionProperty(EC_HANDLE Subscription, EC_SUBSCRIPTION_PROPERTY_ID PropertyId, DWORD Flags,
                                      DWORD PropertyValueBufferSize, PEC_VARIANT PropertyValueBuffer,
                                      PDWORD PropertyValueBufferUsed) {
    countCall("EcGetSubscriptionProperty");
    auto s = lookupAs<SubscriptionObj>(Subscription, Kind::Subscription);
    if (!s) return failWith(ERROR_INVALID_HANDLE, FALSE);
    const auto id = static_cast<unsigned>(PropertyId);
    if (Flags != 0 || !PropertyValueBufferUsed || id > EcSubscriptionAllowedSourceDomainComputers ||
        (id >= EcSubscriptionEventSourceAddress && id <= EcSubscriptionEventSourcePassword))
        return failWith(ERROR_INVALID_PARAMETER, FALSE);
    if (!(s->access & EC_READ_ACCESS)) return failWith(ERROR_ACCESS_DENIED, FALSE);
    std::lock_guard<std::mutex> lock(apiMutex());
    const ecsim::Subscription& sub = s->working->sub;
    if (DWORD f = injectedFault("EcGetSubscriptionProperty", sub.name + L"/" + toWide(propertyKey(PropertyId))))
        return failWith(f, FALSE);
    if (PropertyId == EcSubscriptionEventSources) {
        Payload p;
        p.type = EcVarObjectArrayPropertyHandle;
        return answerVariant(p, PropertyValueBufferSize, PropertyValueBuffer, PropertyValueBufferUsed, [&s] {
            auto array = std::make_shared<SourceArrayObj>();
            array->access = s->access;
            array->working = s->working;
            return registerObject(std::move(array));
        });
    }
    const Value* v = findProperty(PropertyId) ? sub.get(PropertyId) : nullptr;
    return answerVariant(Payload::of(v), PropertyValueBufferSize, PropertyValueBuffer, PropertyValueBufferUsed);
}

}  // namespace ecsim
