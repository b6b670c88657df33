// Which calls a fault rule's target strikes: by the parts between '/', "*" for
// any one, a shorter rule target for every call it leads.
#include <gtest/gtest.h>

#include "Ecsim.h"
#include "EcFaults.h"

namespace {

TEST(FaultTargets, MatchByLeadingPartsWithoutCase) {
    struct {
        const char* rule;
        const wchar_t* target;
        DWORD code;
    } cases[] = {
        {"EcGetSubscriptionProperty:*/LogFile=5", L"Fwd/LogFile", 5},
        {"EcGetSubscriptionProperty:*/LogFile=5", L"fwd/logfile", 5},
        {"EcGetSubscriptionProperty:*/LogFile=5", L"Fwd/Enabled", 0},
        {"EcGetSubscriptionProperty:*/LogFile=5", L"Fwd", 0},  // the call's target is shorter
        {"EcGetSubscriptionProperty:Fwd=5", L"Fwd/LogFile", 5},
        {"EcGetSubscriptionProperty:Fwd=5", L"Fw/LogFile", 0},
        {"EcGetSubscriptionProperty=5", L"Any/LogFile", 5},
        {"EcOpenSubscription:Fwd=5", L"Fwd", 0},  // another entry point
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.rule);
        ASSERT_TRUE(ecsim::setFaults(c.rule));
        EXPECT_EQ(ecsim::injectedFault("EcGetSubscriptionProperty", c.target), c.code);
    }
    ecsim::clearFaults();
}

}  // namespace
