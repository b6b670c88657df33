#pragma once
// Watches for the two ways a run ends from outside: a console interrupt
// (Ctrl-C, Ctrl-Break), which runs the shutdown callback once, and the end of
// the parent daemon named by SKORVAD_PROCESSID, which ends the process at once:
// 97 when the daemon has already gone, 98 when it cannot be opened, 99 when it
// ends later (96 when the watching thread cannot be started).

#include <windows.h>

#include <cstdint>

#include "platform/Handles.h"

namespace skorva {

class ShutdownWatcher {
public:
    using Callback = void (*)(uintptr_t argument);
    // How the process is ended; replaceable so tests can observe the codes.
    using ExitFunction = void (*)(unsigned code);

    enum Mode : unsigned { WatchConsole = 1, WatchParent = 2, WatchBoth = 3 };

    // `parentPid` 0 means: read it from SKORVAD_PROCESSID.
    ShutdownWatcher(Callback callback, uintptr_t argument, unsigned mode, DWORD parentPid,
                    ExitFunction exitFunction = nullptr);
    ~ShutdownWatcher();
    ShutdownWatcher(const ShutdownWatcher&) = delete;
    ShutdownWatcher& operator=(const ShutdownWatcher&) = delete;

    // Set once the callback has run.
    HANDLE shutdownEvent() const { return state_ ? state_->event.get() : nullptr; }
    // Runs the callback as a console interrupt would (once at most).
    void fire();

    static const char* shutdownLevelName() { return "ShutdownLevel_WinEventLogInput"; }

    // The console control handler it installs (public so tests can deliver the
    // events Wine cannot send, such as Ctrl-Break).
    static BOOL WINAPI consoleHandler(DWORD ctrlType);

    // Where the watcher takes its memory from (the C library; tests make it fail).
    struct Allocators {
        void* (*allocate)(size_t);
        void* (*allocateZeroed)(size_t, size_t);
    };
    static void setAllocators(const Allocators* allocators);

private:
    // What the console handler and the parent watch share with the watcher.
    struct State {
        State(Callback c, uintptr_t a, ExitFunction e) : callback(c), argument(a), exit(e) {}
        Callback callback;
        uintptr_t argument;
        ExitFunction exit;
        UniqueHandle event;
        UniqueHandle parent;
        UniqueHandle stopWatch;  // set by the destructor: the parent watch returns
        UniqueHandle thread;
        CriticalSection lock;
        bool consoleHandlerInstalled = false;
    };
    static DWORD WINAPI parentWatch(void* state);
    void watchParent(DWORD pid);
    // The daemon's process id from SKORVAD_PROCESSID, 0 when it names none.
    bool parentFromEnvironment(DWORD& pid);

    State* state_ = nullptr;
};

}  // namespace skorva
