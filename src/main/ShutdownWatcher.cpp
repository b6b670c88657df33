#include "main/ShutdownWatcher.h"

#include <atomic>
#include <cstdio>
#include <cwchar>
#include <mutex>

namespace skorva {

namespace {

// The console handler is process-wide; it reaches the live watcher through here.
std::atomic<ShutdownWatcher*> activeWatcher{nullptr};

void exitNow(unsigned code) {
    fflush(stdout);
    fflush(stderr);
    ::ExitProcess(code);
}

}  // namespace

ShutdownWatcher::ShutdownWatcher(Callback callback, uintptr_t argument, unsigned mode, DWORD parentPid,
                                 ExitFunction exitFunction)
    : callback_(callback), argument_(argument), exit_(exitFunction ? exitFunction : &exitNow) {
    event_.reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    if (!event_) {
        fprintf(stderr, "Error creating unnamed event: CreateEvent: %u\n", static_cast<unsigned>(::GetLastError()));
        exit_(1);
        return;
    }
    if (mode & WatchParent) {
        DWORD pid = parentPid;
        if (pid == 0) {
            wchar_t value[51] = {};
            DWORD n = ::GetEnvironmentVariableW(L"SKORVAD_PROCESSID", value, 51);
            if (n > 0 && n <= 50) pid = wcstoul(value, nullptr, 10);
            else if (n > 50) pid = 0;  // longer than any process id: not ours to watch
            if (n > 0 && n <= 50 && pid == 0) {
                // Present but not a number: it names no process we can open.
                exit_(98);
                return;
            }
        }
        if (pid != 0) watchParent(pid);
    }
    if (mode & WatchConsole) {
        activeWatcher.store(this);
        if (!::SetConsoleCtrlHandler(&ShutdownWatcher::consoleHandler, TRUE))
            fprintf(stderr, "Error setting up signal handler: SetConsoleCtrlHandler: %u\n",
                    static_cast<unsigned>(::GetLastError()));
        else
            consoleHandlerInstalled_ = true;
    }
}

ShutdownWatcher::~ShutdownWatcher() {
    if (consoleHandlerInstalled_) ::SetConsoleCtrlHandler(&ShutdownWatcher::consoleHandler, FALSE);
    ShutdownWatcher* self = this;
    activeWatcher.compare_exchange_strong(self, nullptr);
    // The parent watch must not outlive us: woken, it returns, and is joined.
    if (thread_) {
        ::SetEvent(stopWatch_.get());
        ::WaitForSingleObject(thread_.get(), INFINITE);
    }
}

void ShutdownWatcher::watchParent(DWORD pid) {
    parent_.reset(::OpenProcess(SYNCHRONIZE | PROCESS_QUERY_INFORMATION, FALSE, pid));
    if (!parent_) {
        exit_(98);
        return;
    }
    DWORD code = 0;
    if (::GetExitCodeProcess(parent_.get(), &code) && code != STILL_ACTIVE) {
        exit_(97);
        return;
    }
    stopWatch_.reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    if (stopWatch_) thread_.reset(::CreateThread(nullptr, 0, &ShutdownWatcher::parentWatch, this, 0, nullptr));
    if (!thread_) exit_(96);
}

DWORD WINAPI ShutdownWatcher::parentWatch(void* self) {
    auto* w = static_cast<ShutdownWatcher*>(self);
    const HANDLE waits[] = {w->parent_.get(), w->stopWatch_.get()};
    if (::WaitForMultipleObjects(2, waits, FALSE, INFINITE) == WAIT_OBJECT_0) w->exit_(99);
    return 0;
}

void ShutdownWatcher::fire() {
    std::lock_guard<CriticalSection> guard(lock_);
    ::SetEvent(event_.get());
    Callback cb = callback_;
    callback_ = nullptr;  // never twice
    if (cb) cb(argument_);
}

BOOL WINAPI ShutdownWatcher::consoleHandler(DWORD ctrlType) {
    if (ctrlType != CTRL_C_EVENT && ctrlType != CTRL_BREAK_EVENT) return FALSE;
    if (ShutdownWatcher* w = activeWatcher.load()) w->fire();
    return TRUE;
}

}  // namespace skorva
