#include <gtest/gtest.h>

#include <limits>

#include "LogCapture.h"
#include "filter/FilterParser.h"

using namespace skorva;
using skorva::test::LogCapture;

namespace {
const uint32_t kMax = std::numeric_limits<uint32_t>::max();
}

TEST(FilterParser, ValueForms) {
    struct Case {
        const char* value;
        bool renderXml;
        bool ok;
        FilterRuleMap rule;
        LogLevel level;
        std::string line;  // what the operator is told of a value not taken as written
    };
    // (A list of codes and keys between "%" are read through whole rules end to end
    // and in ProcessEvent and FilterEvaluation.)
    const Case cases[] = {
        {R"(  Account Name = "svc_backup"   SourceName=/Security/ )", false, true,
         {{"Account Name", "svc_backup"}, {"SourceName", "Security"}}, LogLevel::Debug, ""},
        {"Type=%Error% Type=%Warning%", false, true, {{"Type", "Warning"}}, LogLevel::Debug, ""},
        {"key1=%a% key2", false, false, {}, LogLevel::Error,
         "Processing: 'whitelist', failed to find key in string data 'key2'"},
        {"EventCode=%4624% Message=|abc", false, false, {}, LogLevel::Error,
         "Processing: 'whitelist', failed to find delimeter '|' in regex '|abc' for key 'Message '. Discarding."},
        // The delimiter cannot appear inside its own pattern.
        {"Message=|a|b|", false, false, {}, LogLevel::Error,
         "Processing: 'whitelist', failed to find key in string data 'b|'"},
        {"$XmlRegex=%<EventID>4624%  $XmlRegex=%TargetUserName'>bob%", true, true,
         {{"$XmlRegex0", "<EventID>4624"}, {"$XmlRegex1", "TargetUserName'>bob"}}, LogLevel::Debug, ""},
        {"$XmlRegex=%<EventID>4624% EventCode=%4624%", false, true, {{"EventCode", "4624"}}, LogLevel::Warn,
         "$XmlRegex detected, but stanza was not configured to render XML. Ignoring XML portion of "
         "whitelist/blacklist."},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.value);
        LogCapture log;
        FilterRuleMap rule{{"stale", "x"}};
        EXPECT_EQ(parseFilterValue("whitelist", c.value, c.renderXml, rule), c.ok);
        EXPECT_EQ(rule, c.rule);
        if (!c.line.empty()) {
            EXPECT_TRUE(log.has(c.level, c.line)) << log.dump();
        }
    }
}

TEST(FilterParser, EventCodeLists) {
    struct Case {
        const char* text;
        EventCodeRanges ranges;
    };
    const Case cases[] = {
        {"4624,4625,4700-4800", {{4624, 4624}, {4625, 4625}, {4700, 4800}}},
        {" 10 , 20 - 30 ", {{10, 10}, {20, 30}}},
        {"*", {{0, kMax}}},
        {"4294967295", {{kMax, kMax}}},
        {"4624,47x0", {}},
        {"1-2-3", {}},
        {"4624,", {}},
        {"-5", {}},
        {"4294967296", {}},
        {"300-200", {{300, 200}}},
        {"+5", {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        LogCapture log;
        EXPECT_EQ(parseEventCodeList(c.text, "blacklist2"), c.ranges);
        bool error = c.ranges.empty();
        EXPECT_EQ(log.has(LogLevel::Error, std::string("Processing: 'blacklist2' [legacy], range error found in '") +
                                               c.text + "'. Discarding entire range."),
                  error)
            << log.dump();
    }
}

TEST(FilterParser, CompilingRules) {
    LogCapture log;
    FilterList white, black;
    bool needsMessage = false;
    addFilterRule("whitelist", {{"EventCode", "^46"}, {"legacy_event_id", "4624-4634"}, {"User", "(unclosed"}}, true,
                  white, needsMessage);
    addFilterRule("blacklist1", {{"User", "[bad"}}, false, black, needsMessage);
    addFilterRule("blacklist2", {{"legacy_event_id", "x"}}, false, black, needsMessage);

    ASSERT_EQ(white.rules.size(), 1u);
    ASSERT_EQ(white.rules[0].keys.size(), 1u);  // the bad key is dropped, the rest stays
    EXPECT_EQ(white.rules[0].keys[0].key, "EventCode");
    EXPECT_TRUE(white.rules[0].keys[0].regex->search("4624"));
    EXPECT_EQ(white.codeLists, (std::vector<EventCodeRanges>{{{4624, 4634}}}));
    EXPECT_TRUE(black.rules.empty());     // a rule left without keys would pass everything
    EXPECT_TRUE(black.codeLists.empty());  // a discarded list adds nothing
    EXPECT_FALSE(needsMessage);
    EXPECT_TRUE(log.has(LogLevel::Error, "Processing: 'whitelist', invalid Regex: key=User, regex=(unclosed, Discarding."));
    EXPECT_TRUE(log.has(LogLevel::Error, "Processing: 'blacklist1', invalid Regex: key='User', regex='[bad', Discarding."));
}

TEST(FilterParser, MessageBearingKeys) {
    struct Case {
        const char* key;
        const char* pattern;
        bool whitelist;
        bool marks;
    };
    // (A message rule on either list and an object type on a whitelist wait for the
    // message end to end.)
    const Case cases[] = {
        {"Message", "Logon Type:\\s{1,}3", true, false},
        {"Message", "%{x", false, false},
        {"Object Type", "File", false, false},
        {"EventCode", "4624", true, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.key) + " " + c.pattern + (c.whitelist ? " white" : " black"));
        FilterList list;
        bool needsMessage = false;
        addFilterRule("x", {{c.key, c.pattern}}, c.whitelist, list, needsMessage);
        EXPECT_EQ(needsMessage, c.marks);
        EXPECT_EQ(list.rules.size(), 1u);  // a rule like any other
    }
}

TEST(FilterParser, ExcludedFieldChecks) {
    FilterList white, black;
    bool needsMessage = false;
    addFilterRule("whitelist", {{"User", "bob"}}, true, white, needsMessage);
    addFilterRule("blacklist", {{"legacy_event_id", "4663"}, {"Sid", "S-1-5-18"}}, false, black, needsMessage);
    struct Case {
        const char* field;
        std::vector<std::string> warnings;
    };
    const Case cases[] = {
        {"ComputerName", {}},
        {"Foo", {"Excluding field: 'Foo' not a standard field entry"}},
        {"EventCode", {"Excluding field: 'EventCode' conflicts with whitelist/blacklist entry"}},
        {"User", {"Excluding field: 'User' conflicts with whitelist entry"}},
        {"Sid", {"Excluding field: 'Sid' conflicts with blacklist entry"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.field);
        LogCapture log;
        checkExcludedField(c.field, white, black);
        std::vector<std::string> warnings;
        for (const auto& line : log.lines())
            if (line.level == LogLevel::Warn) warnings.push_back(line.text);
        EXPECT_EQ(warnings, c.warnings);
    }
}
