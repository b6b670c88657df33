#pragma once
// A thread kept for jobs handed to it one at a time. A thread made for every
// job costs its creation, the page faults of a fresh stack and, when it ends,
// the flushes of the address space on every other core running the process.

#include <windows.h>

#include "platform/Handles.h"

namespace skorva {

class JobThread {
public:
    // A job reports its own failures: nothing may be thrown out of it.
    using Job = void (*)(void* param) noexcept;

    JobThread() = default;
    ~JobThread();
    JobThread(const JobThread&) = delete;
    JobThread& operator=(const JobThread&) = delete;

    // Runs job(param) on the thread, made at the first call. False, with the
    // error in GetLastError, when the thread cannot be made: nothing runs.
    bool start(Job job, void* param);
    // Returns once the job started last is done; at once when none runs.
    void wait();
    bool running() const { return running_; }

private:
    static DWORD WINAPI loop(void* self);

    UniqueHandle thread_;
    UniqueHandle go_;
    UniqueHandle done_;
    Job job_ = nullptr;  // none: the thread ends
    void* param_ = nullptr;
    bool running_ = false;
};

}  // namespace skorva
