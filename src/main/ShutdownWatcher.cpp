#include "main/ShutdownWatcher.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <mutex>
#include <new>

#include "platform/Logger.h"

namespace skorva {

namespace {

// The console handler is process-wide; it reaches the live watcher through here.
std::atomic<ShutdownWatcher*> activeWatcher{nullptr};

const ShutdownWatcher::Allocators kLibrary{&std::malloc, &std::calloc};
std::atomic<const ShutdownWatcher::Allocators*> allocators{&kLibrary};

constexpr DWORD kMaxPidChars = 50;

void exitNow(unsigned code) {
    Logger::instance().flush();
    fflush(stdout);
    fflush(stderr);
    ::ExitProcess(code);
}

}  // namespace

void ShutdownWatcher::setAllocators(const Allocators* a) { allocators = a ? a : &kLibrary; }

ShutdownWatcher::ShutdownWatcher(Callback callback, uintptr_t argument, unsigned mode, DWORD parentPid,
                                 ExitFunction exitFunction) {
    const ExitFunction exit = exitFunction ? exitFunction : &exitNow;
    void* block = allocators.load()->allocate(sizeof(State));
    if (!block) {
        fprintf(stderr, "Memory error: malloc: %u\n", static_cast<unsigned>(sizeof(State)));
        exit(1);
        return;
    }
    state_ = new (block) State(callback, argument, exit);
    state_->event.reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    if (!state_->event) {
        fprintf(stderr, "Error creating unnamed event: CreateEvent: %u\n", static_cast<unsigned>(::GetLastError()));
        exit(1);
        return;
    }
    if (mode & WatchParent) {
        DWORD pid = parentPid;
        if (pid == 0 && !parentFromEnvironment(pid)) return;
        if (pid != 0) watchParent(pid);
    }
    if (mode & WatchConsole) {
        activeWatcher.store(this);
        if (!::SetConsoleCtrlHandler(&ShutdownWatcher::consoleHandler, TRUE))
            fprintf(stderr, "Error setting up signal handler: SetConsoleCtrlHandler: %u\n",
                    static_cast<unsigned>(::GetLastError()));
        else
            state_->consoleHandlerInstalled = true;
    }
}

ShutdownWatcher::~ShutdownWatcher() {
    if (!state_) return;
    if (state_->consoleHandlerInstalled) ::SetConsoleCtrlHandler(&ShutdownWatcher::consoleHandler, FALSE);
    ShutdownWatcher* self = this;
    activeWatcher.compare_exchange_strong(self, nullptr);
    // The parent watch must not outlive us: woken, it returns, and is joined.
    if (state_->thread) {
        ::SetEvent(state_->stopWatch.get());
        ::WaitForSingleObject(state_->thread.get(), INFINITE);
    }
    state_->~State();
    std::free(state_);
}

bool ShutdownWatcher::parentFromEnvironment(DWORD& pid) {
    auto* value = static_cast<wchar_t*>(allocators.load()->allocateZeroed(kMaxPidChars + 1, sizeof(wchar_t)));
    if (!value) {
        fprintf(stderr, "Memory error: calloc: %u\n", static_cast<unsigned>((kMaxPidChars + 1) * sizeof(wchar_t)));
        state_->exit(1);
        return false;
    }
    const DWORD n = ::GetEnvironmentVariableW(L"SKORVAD_PROCESSID", value, kMaxPidChars + 1);
    // Longer than any process id: not ours to watch.
    pid = n > 0 && n <= kMaxPidChars ? wcstoul(value, nullptr, 10) : 0;
    std::free(value);
    if (n > 0 && n <= kMaxPidChars && pid == 0) {
        // Present but not a number: it names no process we can open.
        state_->exit(98);
        return false;
    }
    return true;
}

void ShutdownWatcher::watchParent(DWORD pid) {
    state_->parent.reset(::OpenProcess(SYNCHRONIZE | PROCESS_QUERY_INFORMATION, FALSE, pid));
    if (!state_->parent) {
        state_->exit(98);
        return;
    }
    DWORD code = 0;
    if (::GetExitCodeProcess(state_->parent.get(), &code) && code != STILL_ACTIVE) {
        state_->exit(97);
        return;
    }
    state_->stopWatch.reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    if (state_->stopWatch)
        state_->thread.reset(::CreateThread(nullptr, 0, &ShutdownWatcher::parentWatch, state_, 0, nullptr));
    if (!state_->thread) state_->exit(96);
}

DWORD WINAPI ShutdownWatcher::parentWatch(void* param) {
    auto* state = static_cast<State*>(param);
    const HANDLE waits[] = {state->parent.get(), state->stopWatch.get()};
    if (::WaitForMultipleObjects(2, waits, FALSE, INFINITE) == WAIT_OBJECT_0) state->exit(99);
    return 0;
}

void ShutdownWatcher::fire() {
    std::lock_guard<CriticalSection> guard(state_->lock);
    ::SetEvent(state_->event.get());
    Callback cb = state_->callback;
    state_->callback = nullptr;  // never twice
    if (cb) cb(state_->argument);
}

BOOL WINAPI ShutdownWatcher::consoleHandler(DWORD ctrlType) {
    if (ctrlType != CTRL_C_EVENT && ctrlType != CTRL_BREAK_EVENT) return FALSE;
    if (ShutdownWatcher* w = activeWatcher.load()) w->fire();
    return TRUE;
}

}  // namespace skorva
