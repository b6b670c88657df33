#pragma once
// The simulation's shared state: the directory in use, bound handles, buffers
// handed out, counters and injected faults.

#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "Directory.h"
#include "Dssim.h"

namespace dssim {

// Brackets one entry point call: counts it, applies an injected delay, and after
// the call writes the process's counters file (README "Counters").
class CallScope {
public:
    explicit CallScope(Entry entry);
    ~CallScope();
    CallScope(const CallScope&) = delete;
    CallScope& operator=(const CallScope&) = delete;
};

// The code an injected fault gives `function` (an entry point or Delay, NameStatus,
// StaleHandle) on `target`, or 0.
DWORD injectedFault(std::string_view function, std::string_view target);
DWORD injectedFault(std::string_view function, std::wstring_view target);

// The directory as the folder holds it now: an empty one when there is no file;
// null with ERROR_FILE_CORRUPT when the file cannot be parsed.
std::shared_ptr<const Directory> currentDirectory(DWORD& error);

// Buffers go back only through the free function of their kind.
enum class BufferKind { NetApi, NameResult, SchemaGuidMap };
// Zeroed; null when memory is short (the call then answers ERROR_NOT_ENOUGH_MEMORY).
void* allocateBuffer(size_t bytes, BufferKind kind);
// False when `p` is not a live buffer of that kind (counted as misuse; the buffer,
// if it is one of another kind, stays allocated). Null is nothing to free.
bool freeBuffer(void* p, BufferKind kind);

struct Binding {
    std::wstring dc;      // DNS name of the controller
    std::wstring domain;  // its domain
    DWORD staleCode = 0;  // non-zero once the handle went bad
};
HANDLE addBinding(Binding binding);
// 0 with a copy of the binding; ERROR_INVALID_HANDLE for a handle that is not bound
// (counted as misuse unless null); the stale code for a handle that went bad.
DWORD useBinding(HANDLE h, Binding& out);
void markStale(HANDLE h, DWORD code);
bool removeBinding(HANDLE h);

// Kept by the registries as buffers and bindings come and go.
void countMisuse();
void countLiveBuffers(int delta);
void countLiveBindings(int delta);

// Lays out strings after the fixed part of a buffer: one free releases them all.
class StringArena {
public:
    explicit StringArena(void* start) : next_(static_cast<wchar_t*>(start)) {}
    static size_t bytes(std::wstring_view s) { return (s.size() + 1) * sizeof(wchar_t); }
    wchar_t* put(std::wstring_view s) {
        wchar_t* at = next_;
        std::memcpy(at, s.data(), s.size() * sizeof(wchar_t));
        at[s.size()] = L'\0';
        next_ += s.size() + 1;
        return at;
    }

private:
    wchar_t* next_;
};

std::string utf8(std::wstring_view s);

}  // namespace dssim
