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
    HANDLE shutdownEvent() const { return event_.get(); }
    // Runs the callback as a console interrupt would (once at most).
    void fire();

    static const char* shutdownLevelName() { return "ShutdownLevel_WinEventLogInput"; }

    // The console control handler it installs (public so tests can deliver the
    // events Wine cannot send, such as Ctrl-Break).
    static BOOL WINAPI consoleHandler(DWORD ctrlType);

private:
    static DWORD WINAPI parentWatch(void* self);
    void watchParent(DWORD pid);

    Callback callback_;
    uintptr_t argument_;
    ExitFunction exit_;
    UniqueHandle event_;
    UniqueHandle parent_;
    UniqueHandle stopWatch_;  // set by the destructor: the parent watch returns
    UniqueHandle thread_;
    CriticalSection lock_;
    bool consoleHandlerInstalled_ = false;
};

}  // namespace skorva
