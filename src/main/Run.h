#pragma once

#include <windows.h>

#include "main/CommandLine.h"

namespace skorva {

// The whole program: command line, then the chosen mode; returns the exit code.
int programMain(int argc, wchar_t** argv);

// Everything after the command line: paths, logger, then removal or the run.
int runWinEventMon(const CommandLine& commandLine);

class WinEventMon;

// Stops the running monitor (only raises its stop flag); never waits.
void shutdownHandler();
// Ctrl-C and Ctrl-Break stop the monitor; other events go to the next handler.
BOOL WINAPI consoleCtrlHandler(DWORD ctrlType);
// The monitor the handlers stop (set by the run for its length; tests set it too).
void setCurrentMonitor(WinEventMon* monitor);

}  // namespace skorva
