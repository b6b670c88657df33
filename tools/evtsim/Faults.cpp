#include "Faults.h"

#include <initializer_list>

#include "Evtsim.h"
#include "FaultRules.h"

namespace evtsim {

namespace {

// The modern face's functions, and the classic ones of the legacy face (Legacy.h).
const char* entryPointOnly(std::string_view function, const DWORD*) {
    if (function.rfind("Evt", 0) == 0) return nullptr;
    for (const char* f : {"OpenEventLogW", "ReadEventLogW", "GetNumberOfEventLogRecords", "GetOldestEventLogRecord"})
        if (function == f) return nullptr;
    return "unknown entry point";
}

FaultRules& rules() {
    static FaultRules r("EVTSIM_FAULTS", storeRoot, entryPointOnly);
    return r;
}

}  // namespace

bool checkFaultRules(std::string_view text, std::string* error) { return rules().check(text, error); }

DWORD injectedFault(const char* function, std::string_view target) { return rules().match(function, target); }

bool setFaults(std::string_view text, std::string* error) { return rules().set(text, error); }

void clearFaults() { rules().clear(); }

}  // namespace evtsim
