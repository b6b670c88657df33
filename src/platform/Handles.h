#pragma once
// One owner type per kind of Windows handle: the handle is released exactly once,
// by the destructor or by reset(), so no error path repeats cleanup by hand.

#include <windows.h>

#include <utility>

namespace skorva {

template <class Traits>
class UniqueResource {
public:
    using handle_type = typename Traits::handle_type;

    UniqueResource() noexcept : h_(Traits::invalid()) {}
    explicit UniqueResource(handle_type h) noexcept : h_(h) {}
    UniqueResource(const UniqueResource&) = delete;
    UniqueResource& operator=(const UniqueResource&) = delete;
    UniqueResource(UniqueResource&& other) noexcept : h_(other.release()) {}
    UniqueResource& operator=(UniqueResource&& other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }
    ~UniqueResource() { reset(); }

    handle_type get() const noexcept { return h_; }
    bool valid() const noexcept { return Traits::isValid(h_); }
    explicit operator bool() const noexcept { return valid(); }

    handle_type release() noexcept { return std::exchange(h_, Traits::invalid()); }
    void reset(handle_type h = Traits::invalid()) noexcept {
        handle_type old = std::exchange(h_, h);
        if (Traits::isValid(old)) Traits::close(old);
    }
    // For APIs that return the handle through an out parameter.
    handle_type* put() noexcept {
        reset();
        return &h_;
    }

private:
    handle_type h_;
};

struct KernelHandleTraits {
    using handle_type = HANDLE;
    static HANDLE invalid() noexcept { return nullptr; }
    static bool isValid(HANDLE h) noexcept { return h != nullptr && h != INVALID_HANDLE_VALUE; }
    static void close(HANDLE h) noexcept { ::CloseHandle(h); }
};
using UniqueHandle = UniqueResource<KernelHandleTraits>;

struct RegKeyTraits {
    using handle_type = HKEY;
    static HKEY invalid() noexcept { return nullptr; }
    static bool isValid(HKEY h) noexcept { return h != nullptr; }
    static void close(HKEY h) noexcept { ::RegCloseKey(h); }
};
using UniqueHKey = UniqueResource<RegKeyTraits>;

struct LocalMemTraits {
    using handle_type = void*;
    static void* invalid() noexcept { return nullptr; }
    static bool isValid(void* p) noexcept { return p != nullptr; }
    static void close(void* p) noexcept { ::LocalFree(p); }
};
using UniqueLocalMem = UniqueResource<LocalMemTraits>;

struct LibraryTraits {
    using handle_type = HMODULE;
    static HMODULE invalid() noexcept { return nullptr; }
    static bool isValid(HMODULE h) noexcept { return h != nullptr; }
    static void close(HMODULE h) noexcept { ::FreeLibrary(h); }
};
using UniqueLibrary = UniqueResource<LibraryTraits>;

// A wait registered with RegisterWaitForSingleObject. Releasing it waits for a
// callback in progress, so the context the callback uses outlives it.
struct RegisteredWaitTraits {
    using handle_type = HANDLE;
    static HANDLE invalid() noexcept { return nullptr; }
    static bool isValid(HANDLE h) noexcept { return h != nullptr; }
    static void close(HANDLE h) noexcept { ::UnregisterWaitEx(h, INVALID_HANDLE_VALUE); }
};
using UniqueRegisteredWait = UniqueResource<RegisteredWaitTraits>;

// A critical section with its lifetime and a scoped lock.
class CriticalSection {
public:
    CriticalSection() noexcept { ::InitializeCriticalSection(&cs_); }
    ~CriticalSection() { ::DeleteCriticalSection(&cs_); }
    CriticalSection(const CriticalSection&) = delete;
    CriticalSection& operator=(const CriticalSection&) = delete;
    void lock() noexcept { ::EnterCriticalSection(&cs_); }
    void unlock() noexcept { ::LeaveCriticalSection(&cs_); }

private:
    CRITICAL_SECTION cs_;
};

}  // namespace skorva
