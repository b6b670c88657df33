#include "platform/JobThread.h"

namespace skorva {

JobThread::~JobThread() {
    wait();
    if (!thread_) return;
    job_ = nullptr;
    ::SetEvent(go_.get());
    ::WaitForSingleObject(thread_.get(), INFINITE);
}

bool JobThread::start(Job job, void* param) {
    wait();
    if (!thread_) {
        go_.reset(::CreateEventW(nullptr, FALSE, FALSE, nullptr));
        done_.reset(::CreateEventW(nullptr, FALSE, FALSE, nullptr));
        if (!go_ || !done_) return false;
        thread_.reset(::CreateThread(nullptr, 0, &JobThread::loop, this, 0, nullptr));
        if (!thread_) return false;
    }
    job_ = job;
    param_ = param;
    running_ = true;
    ::SetEvent(go_.get());  // a full barrier: the thread sees job_ and param_
    return true;
}

void JobThread::wait() {
    if (!running_) return;
    ::WaitForSingleObject(done_.get(), INFINITE);
    running_ = false;
}

DWORD WINAPI JobThread::loop(void* self) {
    JobThread& t = *static_cast<JobThread*>(self);
    for (;;) {
        ::WaitForSingleObject(t.go_.get(), INFINITE);
        if (!t.job_) return 0;
        t.job_(t.param_);
        ::SetEvent(t.done_.get());
    }
}

}  // namespace skorva
