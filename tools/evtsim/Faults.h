#pragma once
// Injected failures. A rule names an entry point, optionally a channel or provider,
// an error code and when it applies:
//   EvtNext:Security=15007,once      EvtRender=6,from=3      EvtFormatMessage=1717,times=2
//   ReadEventLogW:Application=87,once   (the legacy face's functions take rules too)
// Rules come from EVTSIM_FAULTS (';' or newlines between rules) together with
// <store>\faults.txt (re-read when it changes), unless a process sets them itself.

#include <windows.h>

#include <string>
#include <string_view>

namespace evtsim {

// The error a call of `function` on `target` must fail with, or 0.
DWORD injectedFault(const char* function, std::string_view target);
// Rules for this process, replacing the environment and the file; false on bad syntax.
bool setFaults(std::string_view rules, std::string* error = nullptr);
// Back to the environment and the store's file.
void clearFaults();
// Parses rules without applying them.
bool checkFaultRules(std::string_view rules, std::string* error);

}  // namespace evtsim
