// What one event becomes on the stream, and how a batch is split over writer threads.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "MonitorTestSupport.h"

using namespace skorva;
using namespace skorva::test;

TEST(WriterThreads, DivisorKeepsAtLeastAHundredEventsPerThread) {
    struct Case {
        size_t size;
        int32_t threads;
        unsigned writers;
        size_t share;
    };
    const Case cases[] = {
        {250, 4, 1, 125}, {1000, 4, 3, 250}, {150, 4, 0, 0},  {199, 4, 0, 0},  {200, 4, 1, 100},
        {1000, 0, 0, 0},  {5000, 1, 0, 0},   {5000, 2, 1, 2500}, {3000, 15, 14, 200}, {0, 4, 0, 0},
    };
    for (const Case& c : cases) {
        size_t share = 12345;
        EXPECT_EQ(WinEventMon::writerThreadCount(c.size, c.threads, share), c.writers) << c.size << "/" << c.threads;
        EXPECT_EQ(share, c.share) << c.size << "/" << c.threads;
    }
}

namespace {

using Fields = std::vector<std::pair<const wchar_t*, std::wstring>>;  // literal keys, as the reader's

EventRecord classicEvent(const Fields& fields) {
    EventRecord e;
    e.time = 1700000000;
    e.recordNumber = 7;
    e.message = L"m";
    for (const auto& [key, value] : fields) e.fields.add(key, value);
    return e;
}

struct Output {
    TestMon mon;
    CapturedOutput out;
    WinEventMon::ChannelWork work;
    WinEventMon::OutputScratch scratch;

    explicit Output(Params params, const char* stanza = "WinEventLog://Security") {
        EXPECT_TRUE(mon.configure(stanzas({{stanza, std::move(params)}})));
        mon.setOutput(out.file());
        work.monitor = &mon;
        work.channel = mon.findChannel(WinEventMon::channelFromStanza(stanza));
    }
    bool write(EventRecord e) {
        EventBatch batch;
        std::string text;
        finishRecord(e, batch, text);
        const bool kept = mon.processEvent(work, batch[0], scratch);
        EXPECT_TRUE(mon.flushOutput(scratch));
        return kept;
    }
};

}  // namespace

// (Plain key=value lines and a "$" key's bare value are in the exact bytes end to end.)
TEST(ProcessEvent, ClassicTextExactBytes) {
    struct Case {
        const char* label;
        Fields fields;
        const char* data;
    };
    const Case cases[] = {
        {"no second line feed after one", {{L"A", L"x\n"}, {L"Message", L"line1\r\nline2\n"}},
         "A=x\nMessage=line1\r\nline2"},
        {"trimmed both ends", {{L"$Lead", L" \t\n"}, {L"B", L"y \r\n\n"}}, "B=y"},
        {"UTF-8 and escaping", {{L"Message", L"caf\u00e9 <b> & \"q\""}}, "Message=caf\xc3\xa9 &lt;b&gt; &amp; &quot;q&quot;"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        Output o(Params{{"index", "wineventlog"}});
        EXPECT_TRUE(o.write(classicEvent(c.fields)));
        EXPECT_EQ(o.out.text(), std::string("<stream>\n<event stanza=\"WinEventLog://Security\">\n<time>1700000000</time>\n"
                                             "<data>") + c.data +
                                    "</data>\n<source>WinEventLog:Security</source>\n"
                                    "<sourcetype>WinEventLog:Security</sourcetype>\n<index>wineventlog</index>\n</event>\n");
    }
}

// (A message rule on either list, either of two rules admitting, the object type
// read from the message and a rule on the whole event run end to end.)
TEST(ProcessEvent, FiltersDecideWhatIsWritten) {
    struct Case {
        const char* label;
        Params params;
        std::vector<std::pair<std::wstring, bool>> messages;  // message, written
    };
    const Case cases[] = {
        {"message on both lists", {{"whitelist", "Message=%logon%"}, {"blacklist", "Message=%failed%"}},
         {{L"logon ok", true}, {L"logon failed", false}, {L"other", false}}},
        {"every key of a message rule counts",
         {{"whitelist", "EventCode=%^4625$% Message=%logon%"}, {"whitelist1", "Message=%audit%"}},
         {{L"logon ok", false}, {L"audit ok", true}}},
        {"a blacklist rule drops only when all its keys match",
         {{"blacklist", "EventCode=%^4624$% Message=%secret%"}, {"blacklist1", "EventCode=%^1$% Message=%.%"}},
         {{L"top secret", false}, {L"public", true}}},
        {"object type on a blacklist", {{"blacklist", "Object Type=%File%"}},
         {{L"\tObject Type:\tFile", false}, {L"File", true}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.label);
        Output o(c.params);
        for (const auto& [message, written] : c.messages) {
            EXPECT_EQ(o.write(classicEvent({{L"EventCode", L"4624"}, {L"Message", message}})), written) << narrow(message);
        }
    }
}
