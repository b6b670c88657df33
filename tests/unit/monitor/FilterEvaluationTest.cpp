#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "MonitorTestSupport.h"
#include "SampleEvents.h"

using namespace skorva;
using namespace skorva::test;

namespace {

const char* const kStanza = "WinEventLog://Security";

struct Monitor {
    TestMon mon;
    explicit Monitor(Params params) { EXPECT_TRUE(mon.configure(stanzas({{kStanza, std::move(params)}}))); }
    const WinEventLogChannel& channel() const { return *mon.findChannel("Security"); }
};

}  // namespace

TEST(FilterEvaluation, EventCodeRanges) {
    struct Case {
        const char* label;
        Params params;
        std::vector<std::pair<uint32_t, bool>> codes;
    };
    const Case cases[] = {
        {"whitelist", {{"whitelist", "4624,4625"}}, {{4624, true}, {4625, true}, {4626, false}, {4623, false}}},
        {"whitelist then blacklist",
         {{"whitelist", "100-200"}, {"blacklist3", "150"}},
         {{99, false}, {100, true}, {150, false}, {151, true}, {200, true}, {201, false}}},
        {"several whitelist settings", {{"whitelist", "10"}, {"whitelist9", "20-21"}}, {{10, true}, {21, true}, {15, false}}},
        {"numbers above 9 are not read", {{"whitelist10", "10"}, {"whitelist0", "20"}}, {{5, true}}},
        {"a reversed range holds no code", {{"whitelist", "4800-4700,10"}}, {{4750, false}, {4800, false}, {10, true}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        Monitor m(c.params);
        for (auto [code, included] : c.codes) EXPECT_EQ(m.channel().includeEvent(code), included) << code;
    }
}

TEST(FilterEvaluation, RulesOnClassicText) {
    struct Case {
        const char* label;
        Params params;
        bool logon, failedLogon;
    };
    const Case cases[] = {
        {"whitelist on a field", {{"whitelist", "EventCode=%^4624$%"}}, true, false},
        {"the regex searches anywhere", {{"whitelist", "SourceName=%security%"}}, true, false},
        {"all keys of a rule must pass",
         {{"whitelist", R"(EventCode=%4624% Message=/Logon Type:\s{1,}10/)"}}, false, false},
        {"a missing key fails its rule, another rule admits",
         {{"whitelist", "EventCode=%46% Keywords=%Audit%"}, {"whitelist1", "EventCode=%4625%"}}, true, true},
        {"multi-line message value", {{"whitelist", R"(Message=%Logon Type:\s{1,}3$%)"}}, false, false},
        {"message body runs to the end", {{"whitelist", R"(Message=%(?s)logged on\..*Logon Type:\s{1,}3%)"}}, true, false},
        {"message body lines are not fields", {{"whitelist", "Detail=%.%"}}, false, false},
        {"blacklist on a missing key never excludes", {{"blacklist", "Keywords=%.%"}}, false, true},
        {"whitelist before blacklist",
         {{"whitelist", "LogName=%Security%"}, {"blacklist2", "RecordNumber=%386038%"}}, false, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        Monitor m(c.params);
        EXPECT_EQ(m.mon.include_event(kClassicLogon, kStanza), c.logon);
        EXPECT_EQ(m.mon.include_event(kClassicFailedLogonCrLf, kStanza), c.failedLogon);
    }
}

TEST(FilterEvaluation, RulesOnXml) {
    struct Case {
        const char* label;
        std::string whitelist, blacklist;
        bool logon, cleared;
    };
    const Case cases[] = {
        {"system value by classic name", "EventCode=%^4624$%", "", true, false},
        {"provider name", "SourceName=%Eventlog$%", "", false, true},
        {"event data by name", "TargetUserName=%^bob$% LogonType=%^3$%", "", true, false},
        {"user data by element", "SubjectUserName=%admin%", "", false, true},
        {"whole XML", "$XmlRegex=%<EventID>1102</EventID>%", "", false, true},
        {"two XML patterns in one rule", "$XmlRegex=%1102% $XmlRegex=%LogFileCleared%", "", false, true},
        {"blacklist on event data", "", "IpAddress=%^10\\.%", false, true},
        {"blacklist on a key only one event has", "", "SubjectUserName=%.%", true, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        Params p{{"renderXml", "true"}};
        if (!c.whitelist.empty()) p["whitelist"] = c.whitelist;
        if (!c.blacklist.empty()) p["blacklist"] = c.blacklist;
        Monitor m(p);
        EXPECT_EQ(m.mon.include_event(kXmlLogon, kStanza), c.logon);
        EXPECT_EQ(m.mon.include_event(kXmlLogCleared, kStanza), c.cleared);
    }
}
