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

TEST(Configure, SummaryLineShowsTheSettingsRead) {
    const std::string head = kFn + ": configure stanza wineventlog://security:  channel = Security, ";
    struct Case {
        const char* label;
        Params params;
        std::string values;
    };
    const Case cases[] = {
        {"defaults", {},
         "startFrom = oldest, currentOnly = false, wec_event_format = raw_event, dc name = , dns name = , bind to DC = 0 "
         "index = , suppress text = false, render XML = false, suppress_sourcename = false, use_old_eventlog_api = "
         "false, suppress_type = false, suppress_task = false, suppress_opcode = false, suppress_keywords = false, "
         "source = WinEventLog:security, sourcetype = WinEventLog:security, DC type = Auto DC, "
         "evt_ad_obj_cache_disabled 0, evt_ad_cache_exp 3600000, evt_ad_cache_exp_neg 10000, evt_ad_cache_max_entries "
         "1000 evt_sid_cache_disabled 0, evt_sid_cache_exp 3600000, evt_sid_cache_exp_neg 10000, "
         "evt_sid_cache_max_entries 1000"},
        // Every key spelled as users write it reaches its setting.
        {"all set",
         {{"start_from", "newest"}, {"current_only", "1"}, {"evt_dc_name", "dc02.corp.example"},
          {"evt_dns_name", "corp.example"}, {"evt_resolve_ad_obj", "1"}, {"index", "wineventlog"},
          {"suppress_text", "1"}, {"renderXml", "1"}, {"suppress_sourcename", "1"}, {"use_old_eventlog_api", "1"},
          {"suppress_type", "1"}, {"suppress_task", "1"}, {"suppress_opcode", "1"}, {"suppress_keywords", "yes"},
          {"source", "custom:src"}, {"sourcetype", "custom:st"}, {"evt_ad_cache_disabled", "yes"},
          {"evt_ad_cache_exp", "60"}, {"evt_ad_cache_exp_neg", "2"}, {"evt_ad_cache_max_entries", "50"},
          {"evt_sid_cache_disabled", "1"}, {"evt_sid_cache_exp", "7"}, {"evt_sid_cache_exp_neg", "3"},
          {"evt_sid_cache_max_entries", "5"}},
         "startFrom = newest, currentOnly = true, wec_event_format = raw_event, dc name = dc02.corp.example, dns name "
         "= corp.example, bind to DC = 1 index = wineventlog, suppress text = true, render XML = true, "
         "suppress_sourcename = true, use_old_eventlog_api = true, suppress_type = true, suppress_task = true, "
         "suppress_opcode = true, suppress_keywords = true, source = custom:src, sourcetype = custom:st, DC type = "
         "Auto DC, evt_ad_obj_cache_disabled 1, evt_ad_cache_exp 60000, evt_ad_cache_exp_neg 2000, "
         "evt_ad_cache_max_entries 50 evt_sid_cache_disabled 1, evt_sid_cache_exp 7000, evt_sid_cache_exp_neg 3000, "
         "evt_sid_cache_max_entries 5"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        LogCapture log;
        TestMon mon;
        ASSERT_TRUE(mon.configure(stanzas({{"wineventlog://security", c.params}})));
        EXPECT_TRUE(log.has(LogLevel::Info, head + c.values)) << log.dump();
    }
    SidLookupCache::instance().configure(SidCacheSettings());
}

TEST(Configure, ValuesClampsAndWords) {
    using Get = std::function<std::string(const ChannelSettings&)>;
    auto num = [](auto member) { return Get([member](const ChannelSettings& s) { return std::to_string(s.*member); }); };
    const Get adExpiry = [](const ChannelSettings& s) { return std::to_string(s.adCache.expiryMs); };
    const Get dcKind = [](const ChannelSettings& s) { return std::to_string(int(s.dcKind)); };
    struct Case {
        const char* key;
        const char* value;
        Get get;
        std::string expected;
    };
    const Case cases[] = {
        {"channel_wait_time", "-5", num(&ChannelSettings::channelWaitSeconds), "0"},
        {"channel_wait_time", "500", num(&ChannelSettings::channelWaitSeconds), "180"},
        {"channel_wait_time", "180", num(&ChannelSettings::channelWaitSeconds), "180"},
        {"channel_wait_time", "12", num(&ChannelSettings::channelWaitSeconds), "12"},
        {"use_threads", "40", num(&ChannelSettings::threadCount), "15"},
        {"use_threads", "3", num(&ChannelSettings::threadCount), "3"},
        {"checkpointInterval", "-1", num(&ChannelSettings::checkpointIntervalMs), "18446744073709551615"},
        {"checkpointInterval", "5", num(&ChannelSettings::checkpointIntervalMs), "5000"},
        {"checkpointInterval", "5s", num(&ChannelSettings::checkpointIntervalMs), "0"},
        {"batch_size", "25", num(&ChannelSettings::batchSize), "25"},
        {"batch_size", "ten", num(&ChannelSettings::batchSize), "10"},
        {"batch_size", "99999999999", num(&ChannelSettings::batchSize), "10"},
        {"thread_wait_time_msec", "250", num(&ChannelSettings::threadWaitMs), "250"},
        {"current_only", "t", num(&ChannelSettings::currentOnly), "1"},
        {"current_only", "TRUE", num(&ChannelSettings::currentOnly), "1"},
        {"current_only", "yes", num(&ChannelSettings::currentOnly), "1"},
        {"current_only", "11", num(&ChannelSettings::currentOnly), "0"},
        {"current_only", "maybe", num(&ChannelSettings::currentOnly), "0"},
        {"checkpointSync", "f", num(&ChannelSettings::checkpointSync), "0"},
        {"suppress_checkpoint", "true", num(&ChannelSettings::suppressCheckpoint), "1"},
        {"renderXml", "1", Get([](const ChannelSettings& s) { return s.sourceType; }), "XmlWinEventLog:Security"},
        {"evt_ad_cache_exp", "-1", adExpiry, "3600000"},
        {"evt_resolve_ad_ds", "PDC", dcKind, "2"},
        {"evt_resolve_ad_ds", "auto", dcKind, "1"},
        {"evt_resolve_ad_ds", "bdc", dcKind, "1"},
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

TEST(Configure, CollectorEventFormat) {
    struct Case {
        const char* stanza;
        const char* value;
        const char* expected;
        std::string warning;
    };
    const Case cases[] = {
        {"WinEventLog://Security", "rendered_event", "raw_event",
         kFn + ": unexpected value rendered_event for 'wec_event_format' for a non-ForwardedEvents channel, Falling back "
               "to default value \"raw_event\""},
        {"WinEventLog://Security", "raw_event", "raw_event", ""},
        {"WinEventLog://Security", "", "raw_event", ""},
        {"WinEventLog://ForwardedEvents", "xml", "rendered_event",
         kFn + ": unexpected value xml for 'wec_event_format', falling back to default value \"rendered_event\""},
        {"WinEventLog://ForwardedEvents", "raw_event", "raw_event", ""},
        {"WinEventLog://ForwardedEvents", "", "rendered_event", ""},
        {"wineventlog://forwardedevents", "rendered_event", "rendered_event", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.stanza) + " " + c.value);
        LogCapture log;
        TestMon mon;
        ASSERT_TRUE(mon.configure(stanzas({{c.stanza, {{"wec_event_format", c.value}}}})));
        EXPECT_EQ(mon.channels().begin()->second->settings().wecEventFormat, c.expected);
        size_t warnings = 0;
        for (const auto& line : log.lines()) warnings += line.level == LogLevel::Warn;
        EXPECT_EQ(warnings, c.warning.empty() ? 0u : 1u) << log.dump();
        if (!c.warning.empty()) {
            EXPECT_TRUE(log.has(LogLevel::Warn, c.warning)) << log.dump();
        }
    }
}

TEST(Configure, DomainControllerFromEnvironment) {
    _putenv_s("SKORVA_TEST_DC", "dc07.corp.example");
    _putenv_s("SKORVA_TEST_NO_DC", "");  // removes it
    LogCapture log;
    TestMon mon;
    ASSERT_TRUE(mon.configure(stanzas(
        {{"WinEventLog://Security", {{"evt_dc_name", "$SKORVA_TEST_DC"}, {"evt_resolve_ad_ds", "pdc"}}},
         {"WinEventLog://System", {{"evt_dc_name", "$SKORVA_TEST_NO_DC"}, {"evt_resolve_ad_ds", "pdc"}}}})));
    const ChannelSettings& security = settingsOf(mon, "Security");
    EXPECT_EQ(security.dcName, L"dc07.corp.example");
    EXPECT_EQ(security.dcKind, DcKind::Automatic);
    EXPECT_TRUE(log.has(LogLevel::Debug, "Found an environment variable for evt_dc_name, it is $SKORVA_TEST_DC and "
                                         "translates to 'dc07.corp.example'"));
    EXPECT_TRUE(log.has(LogLevel::Info, kFn + ": evt_dc_name is set, ignoring evt_resolve_ad_ds setting"));
    const ChannelSettings& system = settingsOf(mon, "System");
    EXPECT_TRUE(system.dcName.empty());
    EXPECT_EQ(system.dcKind, DcKind::Primary);  // honoured, since no name was found
    EXPECT_TRUE(log.has(LogLevel::Warn, "Found an environment variable for evt_dc_name, it is $SKORVA_TEST_NO_DC but is "
                                        "not present in environment"))
        << log.dump();
    _putenv_s("SKORVA_TEST_DC", "");
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

TEST(Configure, GuidSkipListNeedsDirectoryResolution) {
    struct Case {
        const char* resolve;
        const char* list;
        EventCodeRanges stored;
        std::string info;
    };
    const Case cases[] = {
        {"1", "4662,5136-5141", {{4662, 4662}, {5136, 5141}}, "Skipping GUID resolutions for event codes: 4662,5136-5141"},
        {"0", "4662", {}, "Not skipping GUID resolutions for: 4662, because evt_resolve_ad_obj is false"},
        {"1", "46x2", {}, "Processing: 'skipGUIDResolution' [legacy], range error found in '46x2'. Discarding entire range."},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.list);
        LogCapture log;
        TestMon mon;
        ASSERT_TRUE(mon.configure(stanzas(
            {{"WinEventLog://Security", {{"evt_resolve_ad_obj", c.resolve}, {"evt_skip_GUID_resolution", c.list}}}})));
        EXPECT_EQ(settingsOf(mon, "Security").guidSkipCodes, c.stored);
        EXPECT_TRUE(log.contains(c.info)) << log.dump();
        EXPECT_EQ(log.contains("Skipping GUID resolutions for event codes"), !c.stored.empty());
    }
}

TEST(Configure, ExcludedFields) {
    LogCapture log;
    TestMon mon;
    ASSERT_TRUE(mon.configure(stanzas({{"WinEventLog://Security",
                                        {{"evt_exclude_fields", " Message, Colour ,,EventCode"},
                                         {"whitelist", "4624"}, {"blacklist", "Message=%{secret}%"}}}})));
    const ChannelSettings& s = settingsOf(mon, "Security");
    EXPECT_EQ(s.excludedFields, (std::set<std::wstring, std::less<>>{L"Message", L"Colour", L"EventCode"}));
    EXPECT_TRUE(log.has(LogLevel::Debug, "Excluding field: 'Colour' from event"));
    // Each field is checked against the rules (the checks themselves: FilterParser tests).
    EXPECT_TRUE(log.has(LogLevel::Warn, "Excluding field: 'Message' conflicts with blacklist entry")) << log.dump();
}
