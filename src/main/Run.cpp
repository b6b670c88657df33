#include "main/Run.h"

#include <windows.h>

#include <fcntl.h>
#include <io.h>

#include <atomic>
#include <cstdio>
#include <exception>
#include <map>
#include <optional>
#include <string>

#include "main/RmCheckpoint.h"
#include "main/ShutdownWatcher.h"
#include "monitor/WinEventMon.h"
#include "platform/LoaderInfo.h"
#include "platform/Logger.h"
#include "platform/Paths.h"
#include "platform/SkorvaException.h"
#include "platform/Strings.h"
#include "platform/ThreadRegistry.h"

namespace skorva {

namespace {

const char kRun[] = "runWinEventMon";

void configureLogging(const std::wstring& home) {
    const std::wstring configPath = joinPath(joinPath(home, L"etc"), L"log-cmdline.cfg");
    const std::wstring logDir = joinPath(joinPath(joinPath(home, L"var"), L"log"), L"skorva");
    std::map<std::string, std::string> substitutions{{"${SKORVA_HOME}", narrow(home)}};
    Logger::instance().configure(configPath, substitutions, joinPath(logDir, L"skorva-winevtlog.log"));
    LOG_INFO("%s: Using logging configuration at %s", kRun, narrow(configPath).c_str());
}

std::atomic<WinEventMon*> currentMonitor{nullptr};

void watcherCallback(uintptr_t) { shutdownHandler(); }

// Publishes the monitor to the shutdown handlers for the length of its run.
class CurrentMonitor {
public:
    explicit CurrentMonitor(WinEventMon& monitor) { currentMonitor.store(&monitor); }
    ~CurrentMonitor() { currentMonitor.store(nullptr); }
    CurrentMonitor(const CurrentMonitor&) = delete;
    CurrentMonitor& operator=(const CurrentMonitor&) = delete;
};

class ConsoleHandler {
public:
    ConsoleHandler() : installed_(::SetConsoleCtrlHandler(&consoleCtrlHandler, TRUE) != FALSE) {}
    ~ConsoleHandler() {
        if (installed_) ::SetConsoleCtrlHandler(&consoleCtrlHandler, FALSE);
    }
    ConsoleHandler(const ConsoleHandler&) = delete;
    ConsoleHandler& operator=(const ConsoleHandler&) = delete;

private:
    bool installed_;
};

// The modular input run: monitor, shutdown wiring, then the run until stopped.
int runInput() {
    // Declared before the monitor so that they outlive it: while it writes its
    // final checkpoints, a Ctrl-C is absorbed (there is no monitor to stop any
    // more) instead of ending the process, and the end of the daemon still
    // ends it with 99.
    std::optional<ShutdownWatcher> watcher;
    std::optional<ConsoleHandler> consoleHandler;
    WinEventMon monitor;
    if (!monitor.init()) {
        LOG_INFO("%s:  Cannot initialize Windows event log Monitor", kRun);
        return 1;
    }
    MainThread mainThread;
    // Installed after the configuration is read: an interrupt before that takes
    // the system's default action.
    watcher.emplace(&watcherCallback, 0, ShutdownWatcher::WatchBoth, 0);
    consoleHandler.emplace();
    CurrentMonitor published(monitor);
    return monitor.start() ? 0 : -1;
}

}  // namespace

int runWinEventMon(const CommandLine& commandLine) {
    LoaderInfo* info = LoaderInfo::instance();
    if (!info) {
        LOG_ERROR("%s: Failed to run Skorva Windows Event Log Monitor: error getting LoaderInfo instance.", kRun);
        return 1;
    }
    info->refresh();
    const std::wstring home = info->home();
    if (home.empty()) {
        fprintf(stderr, "%s: SKORVA_HOME must be set.  Stopping.\n", kRun);
        fflush(stderr);
        LOG_ERROR("%s: SKORVA_HOME must be set.  Stopping", kRun);
        return 1;
    }
    configureLogging(home);

    if (commandLine.removeCheckpoint) {
        rm_checkpoint(commandLine.checkpointChannel ? commandLine.checkpointChannel->c_str() : nullptr);
        return 0;
    }

    try {
        return runInput();
    } catch (const SkorvaException& e) {
        LOG_ERROR("%s:  Failed to run Skorva Windows event log Monitor: '%s'", kRun, e.what());
    } catch (const std::exception& e) {
        LOG_ERROR("%s:  Failed to run Skorva Windows event log Monitor: '%s'", kRun, e.what());
    }
    return -1;
}

void shutdownHandler() {
    LOG_DEBUG("Shutdown requested");
    WinEventMon* monitor = currentMonitor.load();
    if (!monitor) return;
    LOG_DEBUG("Stop host monitor");
    monitor->stop();
}

BOOL WINAPI consoleCtrlHandler(DWORD ctrlType) {
    if (ctrlType != CTRL_C_EVENT && ctrlType != CTRL_BREAK_EVENT) return FALSE;
    shutdownHandler();
    return TRUE;
}

void setCurrentMonitor(WinEventMon* monitor) { currentMonitor.store(monitor); }

int programMain(int argc, wchar_t** argv) {
    // Libraries come from System32 only, for every load of the process, before
    // anything is loaded: none can be planted beside the executable.
    ::SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32);
    // Standard error carries exact texts (usage, start-up failures): no CR insertion.
    _setmode(_fileno(stderr), _O_BINARY);
    CommandLine commandLine = parseCommandLine(argc, argv);
    if (commandLine.showUsage) {
        printUsage();
        return 1;
    }
    return runWinEventMon(commandLine);
}

}  // namespace skorva
