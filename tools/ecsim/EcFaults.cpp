#include "EcFaults.h"

#include "Ecsim.h"
#include "FaultRules.h"  // evtsim's rule syntax, shared by the stand-ins
#include "SubscriptionStore.h"
#include "Text.h"

namespace ecsim {

namespace {

const char* validateRule(std::string_view function, const DWORD*) {
    return function.size() < 3 || function.rfind("Ec", 0) != 0 ? "unknown entry point" : nullptr;
}

evtsim::FaultRules& faultRules() {
    static auto* r = new evtsim::FaultRules("ECSIM_FAULTS", collectorDir, validateRule,
                                            evtsim::FaultRules::TargetMatch::Parts);
    return *r;
}

}  // namespace

DWORD injectedFault(const char* function, std::wstring_view target) {
    return faultRules().match(function, evtsim::toUtf8(target));
}

bool setFaults(std::string_view text, std::string* error) { return faultRules().set(text, error); }

void clearFaults() { faultRules().clear(); }

}  // namespace ecsim
