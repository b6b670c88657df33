#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <string>

#include "LogCapture.h"
#include "MonitorTestSupport.h"
#include "directory/SidLookupCache.h"
#include "platform/Strings.h"

using namespace skorva;
using namespace skorva::test;

namespace {

const std::string kFn = "WinEventMon::configure";

const ChannelSettings& settingsOf(const TestMon& mon, const char* channel) {
    const WinEventLogChannel* ch = mon.findChannel(channel);
    EXPECT_NE(ch, nullptr) << channel;
    static const ChannelSettings none;
    return ch ? ch->settings() : none;
}

}  // namespace

// (Shown end to end: a value taken as written, batch_size and channel_wait_time, and
// the defaults of a start_from or source left empty, read as missing.)
TEST(Configure, ValuesClampsAndWords) {
    using Get = std::function<std::string(const ChannelSettings&)>;
    auto num = [](auto member) { return Get([member](const ChannelSettings& s) { return std::to_string(s.*member); }); };
    auto text = [](auto member) { return Get([member](const ChannelSettings& s) { return s.*member; }); };
    struct Case {
        const char* key;
        const char* value;
        Get get;
        std::string expected;
    };
    const Case cases[] = {
        {"channel_wait_time", "-5", num(&ChannelSettings::channelWaitSeconds), "0"},
        {"channel_wait_time", "500", num(&ChannelSettings::channelWaitSeconds), "180"},
        {"use_threads", "40", num(&ChannelSettings::threadCount), "15"},
        {"checkpointInterval", "-1", num(&ChannelSettings::checkpointIntervalMs), "18446744073709551615"},
        {"checkpointInterval", "5s", num(&ChannelSettings::checkpointIntervalMs), "0"},
        {"batch_size", "ten", num(&ChannelSettings::batchSize), "10"},
        {"batch_size", "99999999999", num(&ChannelSettings::batchSize), "10"},
        {"thread_wait_time_msec", "250", num(&ChannelSettings::threadWaitMs), "250"},
        {"current_only", "t", num(&ChannelSettings::currentOnly), "1"},
        {"current_only", "TRUE", num(&ChannelSettings::currentOnly), "1"},
        {"current_only", "yes", num(&ChannelSettings::currentOnly), "1"},
        {"current_only", "11", num(&ChannelSettings::currentOnly), "0"},
        {"current_only", "maybe", num(&ChannelSettings::currentOnly), "0"},
        {"checkpointSync", "f", num(&ChannelSettings::checkpointSync), "0"},
        // Every key the collector uses, spelled as users write it, reaches its setting
        // (those not here show their effect end to end or in MonitorRunTest).
        {"suppress_text", "1", num(&ChannelSettings::suppressText), "1"},
        {"suppress_sourcename", "1", num(&ChannelSettings::suppressSourceName), "1"},
        {"suppress_type", "1", num(&ChannelSettings::suppressType), "1"},
        {"suppress_task", "1", num(&ChannelSettings::suppressTask), "1"},
        {"suppress_opcode", "1", num(&ChannelSettings::suppressOpcode), "1"},
        {"suppress_keywords", "yes", num(&ChannelSettings::suppressKeywords), "1"},
        {"source", "custom:src", text(&ChannelSettings::source), "custom:src"},
        {"sourcetype", "custom:st", text(&ChannelSettings::sourceType), "custom:st"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.key) + "=" + c.value);
        TestMon mon;
        ASSERT_TRUE(mon.configure(stanzas({{"WinEventLog://Security", {{c.key, c.value}}}})));
        EXPECT_EQ(c.get(settingsOf(mon, "Security")), c.expected);
    }
}

TEST(Configure, StanzaSelection) {
    struct Case {
        const char* label;
        std::map<std::string, Stanza> doc;
        bool result;
        std::vector<std::string> channels;  // lower-cased, in map order
        std::vector<std::string> errors;
    };
    const Case cases[] = {
        {"prefix forms", stanzas({{"WinEventLog://Application", {}}, {"wineventlog:system", {}}, {"WinEventLog:ForwardedEvents", {}}}),
         true, {"application", "forwardedevents", "system"}, {}},
        {"duplicates regardless of case and prefix form",
         stanzas({{"WinEventLog://Security", {}}, {"wineventlog:security", {}}}), true, {"security"},
         {kFn + ": Duplicate channels found in config. channel name='security'"}},
        {"missing prefix",
         stanzas({{"perfmon://CPU", {}}, {"Default", {}}}), true, {},
         {kFn + " Found a stanza named 'Default' without the WinEventLog prefix, this will not be processed.",
          kFn + " Found a stanza named 'perfmon://CPU' without the WinEventLog prefix, this will not be processed."}},
        {"unknown channel", stanzas({{"WinEventLog://NoSuchLog", {}}}), true, {},
         {kFn + ": Failed to find Event Log with channel name='NoSuchLog'"}},
        {"default and disabled stanzas do not count",
         stanzas({{"default", {}}, {"WinEventLog://Security", {{"disabled", "maybe"}}},
                  {"WinEventLog://System", {{"disabled", "1"}}}}),
         false, {}, {}},
        {"an empty or false disabled does not disable",
         stanzas({{"WinEventLog://Security", {{"disabled", ""}}}, {"WinEventLog://System", {{"disabled", "No"}}}}),
         true, {"security", "system"}, {}},
        {"nested channel path", stanzas({{"WinEventLog://Microsoft-Windows-Sysmon/Operational", {}}}), true,
         {"microsoft-windows-sysmon/operational"}, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        LogCapture log;
        TestMon mon;
        EXPECT_EQ(mon.configure(c.doc), c.result);
        std::vector<std::string> names;
        for (const auto& [name, ch] : mon.channels()) names.push_back(name);
        EXPECT_EQ(names, c.channels);
        std::vector<std::string> errors;
        for (const auto& line : log.lines())
            if (line.level == LogLevel::Error) errors.push_back(line.text);
        EXPECT_EQ(errors, c.errors);
    }
}

TEST(Configure, SidCacheSettingsComeFromTheFirstConfiguredStanzaOnly) {
    TestMon mon;
    ASSERT_TRUE(mon.configure(stanzas({
        {"WinEventLog://Aaa-Unknown", {{"evt_sid_cache_exp", "1"}}},  // rejected before the settings step
        {"WinEventLog://Application", {{"evt_sid_cache_exp", "100"}, {"evt_sid_cache_max_entries", "5"}}},
        {"WinEventLog://Security",
         {{"evt_sid_cache_exp", "200"}, {"evt_sid_cache_disabled", "1"}, {"evt_sid_cache_exp_neg", "3"}}},
    })));
    SidCacheSettings applied = SidLookupCache::instance().settings();
    EXPECT_EQ(applied.expiryMs, 100000u);
    EXPECT_EQ(applied.maxEntries, 5u);
    EXPECT_FALSE(applied.disabled);
    EXPECT_EQ(applied.negativeExpiryMs, 10000u);
    SidLookupCache::instance().configure(SidCacheSettings());
}

TEST(Configure, RenderXmlNeedsVista) {
    LogCapture log;
    TestMon mon(false);
    ASSERT_TRUE(mon.configure(stanzas({{"WinEventLog://Security", {{"renderXml", "true"}}}})));
    const ChannelSettings& s = settingsOf(mon, "Security");
    EXPECT_FALSE(s.renderXml);
    EXPECT_EQ(s.sourceType, "WinEventLog:Security");
    EXPECT_TRUE(log.has(LogLevel::Warn, kFn + ": Operating system is pre Vista. Render XML disabled."));
}

TEST(Configure, ExcludedFields) {
    LogCapture log;
    TestMon mon;
    ASSERT_TRUE(mon.configure(stanzas({{"WinEventLog://Security",
                                        {{"evt_exclude_fields", " Message, Colour ,,EventCode"},
                                         {"whitelist", "4624"}, {"blacklist", "Message=%{secret}%"}}}})));
    const ChannelSettings& s = settingsOf(mon, "Security");
    EXPECT_EQ(s.excludedFields, (std::set<std::wstring, std::less<>>{L"Message", L"Colour", L"EventCode"}));
    // Each field is checked against the rules (the checks themselves: FilterParser tests).
    EXPECT_TRUE(log.has(LogLevel::Warn, "Excluding field: 'Message' conflicts with blacklist entry")) << log.dump();
}
