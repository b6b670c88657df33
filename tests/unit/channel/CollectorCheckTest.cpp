// The event collector subscription check as a channel's init meets it, over the
// simulated collector in process: which subscriptions refuse the channel, what the
// operator reads then, and what reaches the formatting when one delivers rendered text.
#include "EcsimInProcess.h"
#include "ReaderFixture.h"
#include "platform/SkorvaException.h"

namespace skorva::test {
namespace {

// A private collector store with its service running, and the entry points the check calls.
class Collector : public EcsimStore {
public:
    explicit Collector(const std::string& subscriptions, const char* faults = "") : EcsimStore(subscriptions, faults) {
        EcApi& api = apiTable().ec;
        api.EcOpenSubscriptionEnum = &ecsim::EcOpenSubscriptionEnum;
        api.EcEnumNextSubscription = &ecsim::EcEnumNextSubscription;
        api.EcOpenSubscription = &ecsim::EcOpenSubscription;
        api.EcGetSubscriptionProperty = &ecsim::EcGetSubscriptionProperty;
        api.EcClose = &ecsim::EcClose;
        WinEventLogAPIInitializer::useFilledEcTableForTesting();
    }
};

std::string subscription(const std::string& name, const char* enabled, const char* format, const char* logFile) {
    return "[" + name + "]\nEnabled = " + enabled + "\nContentFormat = " + format + "\nLogFile = " + logFile + "\n";
}

using CollectorCheck = ReaderTest;

TEST_F(CollectorCheck, SubscriptionsIntoTheChannelDecideWhetherItOpens) {
    const std::string fn = "WinEventLogChannelBase::enumLocalWECSubscriptions: ";
    const std::string see = "See the description for the 'wec_event_format' setting at "
                            "$SKORVA_HOME/etc/system/README/inputs.conf.spec for more details. ";
    struct Case {
        std::string subscriptions;
        const char* faults;
        const char* format;       // wec_event_format
        const char* formatAfter;  // empty: refused
        bool preRendered;
        std::string line;  // what the operator reads, at WARN when the channel opens, else at ERROR
    } cases[] = {
        // No collector service.
        {"", "EcOpenSubscriptionEnum=1722", "raw_event", "raw_event", false,
         fn + "Cannot open enumeration handle. Error: " + systemErrorText(1722) + " Skipping enumeration."},
        {subscription("Fwd", "true", "RenderedText", "Application"), "", "raw_event", "rendered_event", true, ""},
        // (Raw events into a channel read as rendered ones: refused, end to end.)
        {subscription("Old", "false", "Events", "Application"), "", "rendered_event", "rendered_event", false, ""},
        {subscription("Odd", "true", "7", "Application"), "", "raw_event", "", false,
         fn + "subscription:'Odd' - Unknown WEC content-format = 7 for skorva-format raw_event"},
        {subscription("Fwd", "true", "Events", "Application"), "EcGetSubscriptionProperty:*/LogFile=1726",
         "raw_event", "", false, fn + "getWECSubscriptionProperty Failed for property EcSubscriptionLogFile!"},
        // Into another log, under a name longer than the first name buffer.
        {subscription(std::string(150, 'L'), "true", "Events", "ForwardedEvents"), "", "rendered_event",
         "rendered_event", false, ""},
        // Raw and rendered events into one channel cannot both be read.
        {subscription("A", "true", "Events", "Application") + subscription("B", "true", "RenderedText", "Application"),
         "", "raw_event", "", false,
         fn + "subscription:'B' - Invalid WEC content-format RenderedText, for skorva-format = raw_event. " + see},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.subscriptions + c.faults);
        Collector collector(c.subscriptions, c.faults);
        log_.clear();
        const bool opens = *c.formatAfter != '\0';
        ChannelSettings s = settings();
        s.wecEventFormat = c.format;
        WinEventLogChannel& ch = open(s, opens);
        EXPECT_EQ(ch.settings().wecEventFormat, opens ? c.formatAfter : c.format);
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
    for (const char* format : {"Events", "RenderedText"}) {
        Collector collector(subscription("Fwd", "true", format, "Application"));
        EventBatch records;
        open(settings()).getEventsNew(records);
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(fieldsOf(records[0].text)[L"Message"].find(L"alice") == std::wstring::npos, format[0] == 'R')
            << format;
    }
}

}  // namespace
}  // namespace skorva::test
