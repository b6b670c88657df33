#pragma once

#include "main/CommandLine.h"

namespace skorva {

// The whole program: command line, then the chosen mode; returns the exit code.
int programMain(int argc, wchar_t** argv);

// Everything after the command line: paths, logger, then removal or the run.
int runWinEventMon(const CommandLine& commandLine);

}  // namespace skorva
