#pragma once
// The sizing protocol of the event log API (EvtRender, EvtFormatMessage,
// EvtNextChannelPath): the call is made with the buffer at hand; when that is
// too small it fails with ERROR_INSUFFICIENT_BUFFER (122) and reports the size
// it needs, the buffer grows to that size and the call is made again.
// Header-only and bound to no entry-point table, so a reader outside the
// product follows the same protocol.

#include <windows.h>

#include <cstdint>
#include <new>
#include <stdexcept>
#include <vector>

namespace skorva {

// How one kind of call grows its buffer. Sizes are in the call's own units
// (bytes for EvtRender, characters for the others).
struct BufferGrowth {
    // Units allocated per unit needed: more than needed keeps later calls, whose
    // buffer is the caller's and kept, from growing again.
    size_t over = 1;
    // Units the reported size leaves out (the keyword list's last terminator).
    DWORD extra = 0;
    // A service that keeps asking for more, or for more than this, is not followed.
    unsigned maxGrowths = 1;
    uint64_t maxUnits = UINT32_MAX;
    // A call that can answer with its output cut and the full size reported
    // (EvtFormatMessage succeeds so); null: only 122 asks for a larger buffer.
    bool (*cutAnswer)(bool ok, DWORD error) = nullptr;
};

// What the last call answered.
struct SizedCall {
    bool ok = false;
    DWORD error = 0;           // GetLastError() of the last call, 0 when it succeeded
    DWORD used = 0;            // the size it reported
    uint64_t refused = 0;      // units asked for and not given (0: none)
    bool outOfMemory = false;  // refused because the memory could not be had
    unsigned growths = 0;      // how often the buffer grew
};

// Grows `buffer` to `units`, replacing its content; on failure it is left as it was.
template <class T>
bool growBuffer(std::vector<T>& buffer, size_t units) {
    try {
        std::vector<T> grown(units);
        buffer.swap(grown);
        return true;
    } catch (const std::bad_alloc&) {
    } catch (const std::length_error&) {
    }
    return false;
}

// Makes `call(T* data, DWORD capacity, DWORD& used) -> BOOL` with `capacity`
// units of `buffer` (null when 0), and again after each growth it asks for.
// `capacity` becomes the size the service asked for.
template <class T, class Call>
SizedCall callSized(std::vector<T>& buffer, DWORD& capacity, const BufferGrowth& growth, Call&& call) {
    SizedCall r;
    for (;; ++r.growths) {
        r.used = 0;
        r.ok = call(capacity ? buffer.data() : nullptr, capacity, r.used) != FALSE;
        r.error = r.ok ? 0 : ::GetLastError();
        const bool asks =
            (!r.ok && r.error == ERROR_INSUFFICIENT_BUFFER) || (growth.cutAnswer && growth.cutAnswer(r.ok, r.error));
        const uint64_t needed = static_cast<uint64_t>(r.used) + growth.extra;
        if (!asks || needed <= capacity) return r;
        if (needed > growth.maxUnits || needed > UINT32_MAX || r.growths >= growth.maxGrowths) {
            r.refused = needed;
            return r;
        }
        if (!growBuffer(buffer, static_cast<size_t>(needed) * growth.over)) {
            r.refused = needed;
            r.outOfMemory = true;
            return r;
        }
        capacity = static_cast<DWORD>(needed);
    }
}

}  // namespace skorva
