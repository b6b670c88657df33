#pragma once
// One owner type per kind of Windows handle, one line each: the handle is
// released exactly once, by the destructor or by reset(), so no error path
// repeats cleanup by hand.

#include <windows.h>

#include <type_traits>
#include <utility>

namespace skorva {

// Keeps the thread's last error across a scope: closing a handle or writing a
// log line on an error path must not change what the caller reads afterwards.
class KeepLastError {
public:
    KeepLastError() noexcept : error_(::GetLastError()) {}
    ~KeepLastError() { ::SetLastError(error_); }
    KeepLastError(const KeepLastError&) = delete;
    KeepLastError& operator=(const KeepLastError&) = delete;

private:
    DWORD error_;
};

// Owner of one handle of type T, released by `Close`. Null (and, for kernel
// handles, INVALID_HANDLE_VALUE) holds nothing. Releasing keeps the thread's
// last error, so `owner.reset(CreateX(...))` leaves CreateX's error readable.
template <class T, auto Close>
class UniqueAny {
public:
    using handle_type = T;

    UniqueAny() noexcept = default;
    explicit UniqueAny(T h) noexcept : h_(h) {}
    UniqueAny(const UniqueAny&) = delete;
    UniqueAny& operator=(const UniqueAny&) = delete;
    UniqueAny(UniqueAny&& other) noexcept : h_(other.release()) {}
    UniqueAny& operator=(UniqueAny&& other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }
    ~UniqueAny() { reset(); }

    T get() const noexcept { return h_; }
    bool valid() const noexcept { return isValid(h_); }
    explicit operator bool() const noexcept { return valid(); }

    T release() noexcept { return std::exchange(h_, T{}); }
    void reset(T h = T{}) noexcept {
        T old = std::exchange(h_, h);
        if (!isValid(old)) return;
        KeepLastError keep;
        Close(old);
    }
    // For APIs that return the handle through an out parameter.
    T* put() noexcept {
        reset();
        return &h_;
    }

private:
    static bool isValid(T h) noexcept {
        if constexpr (std::is_same_v<T, HANDLE>) return h != nullptr && h != INVALID_HANDLE_VALUE;
        return h != T{};
    }
    T h_{};
};

// Releasing a registered wait waits for a callback in progress, so the context
// the callback uses outlives it.
inline void unregisterWaitNow(HANDLE wait) noexcept { ::UnregisterWaitEx(wait, INVALID_HANDLE_VALUE); }

using UniqueHandle = UniqueAny<HANDLE, &::CloseHandle>;
using UniqueHKey = UniqueAny<HKEY, &::RegCloseKey>;
using UniqueLocalMem = UniqueAny<HLOCAL, &::LocalFree>;
using UniqueLibrary = UniqueAny<HMODULE, &::FreeLibrary>;
using UniqueRegisteredWait = UniqueAny<HANDLE, &unregisterWaitNow>;

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
