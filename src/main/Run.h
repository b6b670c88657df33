#pragma once

namespace skorva {

// The whole program: command line, then the chosen mode; returns the exit code.
int programMain(int argc, wchar_t** argv);

}  // namespace skorva
