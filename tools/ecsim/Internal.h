#pragma once
// Handle objects, the call bookkeeping and the variant layout shared by the entry points.

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Ecsim.h"
#include "EcFaults.h"
#include "SubscriptionStore.h"

namespace ecsim {

enum class Kind { Enum, Subscription, SourceArray };

struct Object {
    explicit Object(Kind k) : kind(k) {}
    virtual ~Object() = default;
    const Kind kind;
};

// The names as they were when the enumeration was opened.
struct EnumObj : Object {
    EnumObj() : Object(Kind::Enum) {}
    std::vector<std::wstring> names;
    size_t next = 0;
};

// A subscription as one open handle holds it: changes stay here until
// EcSaveSubscription. Its event-source array handles share it.
struct Working {
    Subscription sub;
};

struct SubscriptionObj : Object {
    SubscriptionObj() : Object(Kind::Subscription) {}
    DWORD access = 0;
    std::shared_ptr<Working> working;
};

struct SourceArrayObj : Object {
    SourceArrayObj() : Object(Kind::SourceArray) {}
    DWORD access = 0;
    std::shared_ptr<Working> working;
};

// Handle values are never used twice, so a handle closed twice can never reach
// another object.
EC_HANDLE registerObject(std::shared_ptr<Object> obj);
std::shared_ptr<Object> lookupObject(EC_HANDLE h);
template <class T>
std::shared_ptr<T> lookupAs(EC_HANDLE h, Kind kind) {
    std::shared_ptr<Object> o = lookupObject(h);
    return o && o->kind == kind ? std::static_pointer_cast<T>(o) : nullptr;
}
bool closeObject(EC_HANDLE h);

// Held by every entry point while it reads or changes an object's state.
std::mutex& apiMutex();

// Counts the call; every entry point begins with it.
void countCall(const char* function);

// Sets the thread's last error and returns `value`: the library's failure convention.
template <class T>
T failWith(DWORD code, T value) {
    SetLastError(code);
    return value;
}

// A value to hand out as an EC_VARIANT: the variant first, then what it points to
// (an array of string pointers, then the strings), all inside the caller's buffer.
struct Payload {
    DWORD type = EcVarTypeNull;  // EcVarType*, with EC_VARIANT_TYPE_ARRAY for lists
    uint64_t scalar = 0;         // Boolean, UInt32, or an object array handle
    std::vector<std::wstring> strings;

    static Payload of(const Value* v);
};
DWORD payloadBytes(const Payload& p);
// The ERROR_INSUFFICIENT_BUFFER protocol of the property getters: the size in
// bytes a call needs is reported in `used` whether or not the buffer holds it.
// `makeHandle` runs only once the value is sure to be handed out.
BOOL answerVariant(Payload p, DWORD bufferSize, PEC_VARIANT buffer, PDWORD used,
                   const std::function<EC_HANDLE()>& makeHandle = {});

}  // namespace ecsim
