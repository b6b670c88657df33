#include "Faults.h"

#include "Evtsim.h"
#include "FaultRules.h"

namespace evtsim {

namespace {

const char* entryPointOnly(std::string_view function, const DWORD*) {
    return function.rfind("Evt", 0) == 0 ? nullptr : "unknown entry point";
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
