// The event collector subscription check as a channel's init meets it, over the
// simulated collector in process: which subscriptions refuse the channel, what the
// operator reads then, and what reaches the formatting when one delivers rendered text.
#include <filesystem>
#include <fstream>

#include "Ecsim.h"
#include "ReaderFixture.h"
#include "platform/SkorvaException.h"
#include "platform/Strings.h"

namespace skorva::test {
namespace {

// A private collector store with its service running, and the entry points the check calls.
class Collector {
public:
    Collector() {
        ::CreateDirectoryW((folder_.path() + L"\\collector").c_str(), nullptr);
        ecsim::setStoreRoot(folder_.path());
        EcApi& api = apiTable().ec;
        api.EcOpenSubscriptionEnum = &ecsim::EcOpenSubscriptionEnum;
        api.EcEnumNextSubscription = &ecsim::EcEnumNextSubscription;
        api.EcOpenSubscription = &ecsim::EcOpenSubscription;
        api.EcGetSubscriptionProperty = &ecsim::EcGetSubscriptionProperty;
        api.EcClose = &ecsim::EcClose;
        WinEventLogAPIInitializer::useFilledEcTableForTesting();
    }
    ~Collector() {
        ecsim::clearFaults();
        ecsim::setStoreRoot(L"");
    }
    void write(const std::string& subscriptions, const char* faults = "") {
        const std::filesystem::path file = folder_.path() + L"\\collector\\subscriptions.txt";
        std::ofstream(file, std::ios::binary) << subscriptions;
        ASSERT_TRUE(ecsim::setFaults(faults));
    }

private:
    TempFolder folder_{L"ecsim"};
};

std::string subscription(const std::string& name, bool enabled, const char* format, const char* logFile) {
    return "[" + name + "]\nEnabled = " + (enabled ? "true" : "false") + "\nContentFormat = " + format +
           "\nLogFile = " + logFile + "\n";
}

ChannelSettings withFormat(ChannelSettings s, const char* format) {
    s.wecEventFormat = format;
    return s;
}

using CollectorCheck = ReaderTest;

TEST_F(CollectorCheck, SubscriptionsIntoTheChannelDecideWhetherItOpens) {
    const std::string fn = "WinEventLogChannelBase::enumLocalWECSubscriptions: ";
    const std::string see = "See the description for the 'wec_event_format' setting at "
                            "$SKORVA_HOME/etc/system/README/inputs.conf.spec for more details. ";
    struct Case {
        const char* label;
        std::string subscriptions;
        const char* faults;
        const char* format;       // wec_event_format
        const char* formatAfter;  // empty: refused
        bool preRendered;
        std::string line;  // what the operator reads, at WARN when the channel opens, else at ERROR
    } cases[] = {
        {"no collector service", "", "EcOpenSubscriptionEnum=1722", "raw_event", "raw_event", false,
         fn + "Cannot open enumeration handle. Error: " + systemErrorText(RPC_S_SERVER_UNAVAILABLE) +
             " Skipping enumeration."},
        {"rendered text set to be read raw", subscription("Fwd", true, "RenderedText", "Application"), "",
         "raw_event", "rendered_event", true, ""},
        {"raw events set to be read rendered", subscription("Raw", true, "Events", "Application"), "",
         "rendered_event", "", false,
         fn + "subscription:'Raw' - Invalid WEC content-format:'Events', for skorva-format = rendered_event" + see},
        {"disabled and not fitting", subscription("Old", false, "Events", "Application"), "", "rendered_event",
         "rendered_event", false, ""},
        {"unknown content format", subscription("Odd", true, "7", "Application"), "", "raw_event", "", false,
         fn + "subscription:'Odd' - Unknown WEC content-format = 7 for skorva-format raw_event"},
        {"log file unreadable", subscription("Fwd", true, "Events", "Application"),
         "EcGetSubscriptionProperty:*/LogFile=1726", "raw_event", "", false,
         fn + "getWECSubscriptionProperty Failed for property EcSubscriptionLogFile!"},
        // A name longer than the first name buffer.
        {"into another log", subscription(std::string(150, 'L'), true, "Events", "ForwardedEvents"), "",
         "rendered_event", "rendered_event", false, ""},
        {"raw and rendered into one channel",
         subscription("A", true, "Events", "Application") + subscription("B", true, "RenderedText", "Application"),
         "", "raw_event", "", false,
         fn + "subscription:'B' - Invalid WEC content-format RenderedText, for skorva-format = raw_event. " + see},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        Collector collector;
        collector.write(c.subscriptions, c.faults);
        log_.clear();
        const bool opens = *c.formatAfter != '\0';
        WinEventLogChannel& ch = open(withFormat(settings(), c.format), opens);
        EXPECT_EQ(ch.initialized(), opens);
        if (opens) {
            EXPECT_EQ(ch.settings().wecEventFormat, c.formatAfter);
        }
        EXPECT_EQ(ch.preRendered(), c.preRendered);
        EXPECT_TRUE(c.line.empty() || log_.has(opens ? LogLevel::Warn : LogLevel::Error, c.line)) << log_.dump();
        EXPECT_EQ(log_.has(LogLevel::Error, "WinEventLogChannel::init: Invalid config or enumLocalWECSubscriptions "
                                            "failure for channel = Application"),
                  !opens);
        channel_.reset();
        EXPECT_EQ(ecsim::openHandleCount(), 0u);
    }
}

// Events rendered at their source have their own message or none: one from a
// publisher unknown here, carrying no text, gets no message made of its data.
TEST_F(CollectorCheck, PreRenderedEventsGetNoPlaceholderMessage) {
    evtsim::EventSpec e;
    e.provider = "Not-Registered";
    e.data = {{"", "alice"}};
    store_.append(kChannel, e);
    Collector collector;
    for (const bool rendered : {false, true}) {
        collector.write(subscription("Fwd", true, rendered ? "RenderedText" : "Events", "Application"));
        EventBatch records;
        open(withFormat(settings(), "raw_event")).getEventsNew(records);
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(records[0].message.find(L"alice") == std::wstring::npos, rendered) << narrow(records[0].message);
    }
}

}  // namespace
}  // namespace skorva::test
