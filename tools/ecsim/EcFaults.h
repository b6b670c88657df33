#pragma once
// Injected failures. A rule names an entry point, optionally a target, an error code
// and when it applies:
//   EcOpenSubscriptionEnum=1722      EcOpenSubscription:Forwarded=5,once
//   EcGetSubscriptionProperty:*/LogFile=1726,times=2
// A target is a subscription name, for EcGetSubscriptionProperty the subscription
// and the property ("Name/LogFile"), "*" matching any one part; no target matches
// every call. Rules come from ECSIM_FAULTS (';' or newlines between rules) together
// with <store>\collector\faults.txt (re-read when it changes, at most every 200 ms),
// unless a process sets them itself (ecsim::setFaults); evtsim/FaultRules.h reads them.

#include <windows.h>

#include <string_view>

namespace ecsim {

// The error a call of `function` on `target` must fail with, or 0.
DWORD injectedFault(const char* function, std::wstring_view target = {});

}  // namespace ecsim
