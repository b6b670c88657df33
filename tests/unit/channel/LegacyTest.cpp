// The legacy reader over the legacy face of the simulated event log, with the
// test build's message files registered in the test prefix (Wine's own loader,
// registry and FormatMessageW do the work).
#include <cstring>
#include <map>

#include "Legacy.h"
#include "ReaderFixture.h"
#include "checkpoint/WELCheckPoint.h"
#include "platform/Paths.h"
#include "platform/Strings.h"

namespace skorva::test {
namespace {

// Damages one record of what evtsim's ReadEventLogW returns.
struct Damage {
    uint32_t record = 0;  // the record number to damage, 0: none
    int field = 0;        // byte offset of the DWORD to overwrite; -4: the closing length
    uint32_t value = 0;
    static Damage& current() {
        static Damage d;
        return d;
    }
    static BOOL WINAPI read(HANDLE h, DWORD flags, DWORD offset, void* buffer, DWORD size, DWORD* got, DWORD* need) {
        const BOOL ok = evtsim::ReadEventLogW(h, flags, offset, buffer, size, got, need);
        const Damage& d = current();
        auto* bytes = static_cast<uint8_t*>(buffer);
        for (DWORD at = 0; ok && at < *got;) {
            const auto* r = reinterpret_cast<const EVENTLOGRECORD*>(bytes + at);
            const DWORD length = r->Length;
            if (r->RecordNumber == d.record)
                std::memcpy(bytes + at + (d.field < 0 ? length - 4 : static_cast<DWORD>(d.field)), &d.value, 4);
            at += length;
        }
        return ok;
    }
};

class Legacy : public ReaderTest {
protected:
    void SetUp() override {
        ReaderTest::SetUp();
        installEvtsimLegacyApi();
        legacyHandles_ = evtsim::openLegacyHandleCount();
    }
    void TearDown() override {
        ReaderTest::TearDown();
        EXPECT_EQ(evtsim::openLegacyHandleCount(), legacyHandles_) << "a classic event log handle leaked";
        apiTable().legacy.ReadEventLogW = &evtsim::ReadEventLogW;
    }
    ChannelSettings legacy(const char* startFrom = "oldest") const {
        ChannelSettings s = settings();
        s.useOldApi = true;
        s.startFrom = startFrom;
        return s;
    }
    std::string file(const wchar_t* suffix = L"") const {
        std::string text;
        readFile(settings().checkpointDir + L"\\Application_checkpoint" + suffix, text);
        return text;
    }
    static evtsim::EventSpec classic(unsigned id, unsigned qualifiers, unsigned task, std::vector<std::string> strings,
                                     const char* source = "Evtsim-Classic") {
        evtsim::EventSpec e;
        e.provider = source, e.classic = true, e.eventId = id, e.qualifiers = qualifiers, e.task = task;
        for (auto& s : strings) e.data.emplace_back("", std::move(s));
        return e;
    }
    // The classic fields of each record read, by record number.
    std::map<uint64_t, std::map<std::wstring, std::wstring>> fieldsRead(const ChannelSettings& s) {
        std::map<uint64_t, std::map<std::wstring, std::wstring>> out;
        WinEventLogChannel& ch = open(s);
        do {
            EventBatch records;
            ch.getEventsNew(records);
            for (const auto& r : records) out[r.recordNumber] = fieldsOf(r.text);
        } while (ch.eventsPending());
        return out;
    }

    evtsim::LegacyRegistration registration_{store_.root(), evtsim::sampleLegacySources()};
    size_t legacyHandles_ = 0;
};

// Also across a switch between the two APIs: both name the same record.
TEST_F(Legacy, OldestFirstResumesAfterTheLastRecordSent) {
    append(5);
    EXPECT_EQ(drain(open(legacy())), ids(1, 5));
    EXPECT_TRUE(channel_->subscriptionReady());
    EXPECT_EQ(file(), "channel=Application,record_id=5");
    append(2);
    EXPECT_EQ(drain(open(legacy())), ids(6, 7));
    append(2);
    EXPECT_EQ(drain(open(settings())), ids(8, 9));
    EXPECT_NE(file().find("RecordId='9'"), std::string::npos);
    append(1);
    EXPECT_EQ(drain(open(legacy())), ids(10, 10));
}

// Stopped inside the newest-first phase after two records went out: the next
// run sends the older ones, once, then what arrived meanwhile.
TEST_F(Legacy, NewestFirstThenForwardAcrossARestart) {
    append(5);
    {
        WinEventLogChannel& ch = open(legacy("newest"));
        ASSERT_TRUE(ch.readingReverse());
        EventBatch records;
        ch.getEventsNew(records);
        ASSERT_EQ(records.size(), 5u);
        EXPECT_EQ(records[0].recordNumber, 5u);
        ch.markWritten(nullptr, 4);
        ASSERT_TRUE(ch.checkPoint(nullptr, 4, false));
        EXPECT_EQ(file(L"_reverse"), "channel=Application,newest_record_id=5,record_id=4");
        EXPECT_EQ(file(), "");
    }
    append(2);
    WinEventLogChannel& ch = open(legacy("newest"));
    EXPECT_EQ(drain(ch), ids(3, 1));
    EXPECT_TRUE(ch.reverseComplete());
    ch.endReversePhase();
    EXPECT_EQ(file(), "channel=Application,record_id=5");
    EXPECT_EQ(file(L"_reverse"), "");
    ASSERT_TRUE(ch.init());
    EXPECT_TRUE(ch.subscriptionReady());
    EXPECT_EQ(drain(ch), ids(6, 7));
}

TEST_F(Legacy, ClearedOrWrappedLogGoesOnFromItsOldestRecordAndSaysWhatWasLost) {
    // Cleared under an open handle: the log is opened again.
    append(3);
    WinEventLogChannel& ch = open(legacy());
    EXPECT_EQ(drain(ch), ids(1, 3));
    store_.clearChannel(kChannel);
    append(2);
    EventBatch records;
    ch.getEventsNew(records);
    EXPECT_FALSE(ch.channelState());
    ch.uninit();
    ASSERT_TRUE(ch.init());
    EXPECT_EQ(drain(ch), ids(4, 5));

    // Records written and cleared away while the channel was down.
    channel_.reset();
    append(2);
    store_.clearChannel(kChannel);
    append(1);
    EXPECT_EQ(drain(open(legacy())), ids(8, 8));
    EXPECT_TRUE(log_.contains("Records 6 to 7 of Windows Event Log channel='Application' are gone")) << log_.dump();

    // A log whose numbering started again after a clear (older systems).
    fresh();
    ASSERT_TRUE(createDirectories(settings().checkpointDir));
    ASSERT_TRUE(WELCheckPoint::saveCheckpointStr(settings().checkpointDir + L"\\Application_checkpoint",
                                                 "channel=Application,record_id=100", false));
    store_.appendXml(kChannel, evtsim::buildEventXml(classic(100, 0x4000, 1, {"a", "b"})));
    EXPECT_EQ(drain(open(legacy())).size(), 1u);
    EXPECT_TRUE(log_.contains("older than the last record sent (100)")) << log_.dump();
}

TEST_F(Legacy, DamagedRecordsAreSkippedAndReported) {
    struct {
        const char* what;
        Damage damage;
        std::vector<uint64_t> read;
        const char* told;
    } cases[] = {
        {"strings past the record", {2, 36, 0xFFFF0}, {1, 3, 4}, "Record 2 of Windows Event Log channel='Application' is skipped: it is damaged (its strings run past the record)"},
        {"SID past the record", {3, 40, 0x7FFFFFFF}, {1, 2, 4}, "is damaged (its user SID lies outside the record or is not a SID)"},
        {"first record's length", {1, -4, 1}, {2, 3, 4}, "Record 1 of Windows Event Log channel='Application' is skipped: it is damaged (its length does not hold)"},
        {"a later record's length", {3, -4, 1}, {1, 2, 4}, "A damaged record of Windows Event Log channel='Application' ends a read"},
    };
    apiTable().legacy.ReadEventLogW = &Damage::read;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        fresh();
        append(4);
        Damage::current() = c.damage;
        EXPECT_EQ(drain(open(legacy())), c.read);
        EXPECT_TRUE(log_.contains(c.told)) << log_.dump();
    }
    Damage::current() = Damage{};
}

// The source's message, parameter and category files as the classic viewer uses
// them; what a source without files, or a message no file has, shows instead.
TEST_F(Legacy, MessagesCategoriesAndTypesFromTheRegisteredFiles) {
    evtsim::EventSpec audit = classic(4624, 0, 12544, {"x"}, "Some-Auditor");
    audit.level = 0, audit.keywords = 0x8020000000000000ull;
    evtsim::EventSpec warning = classic(101, 0x8000, 2, {"D:", "95", "1000"});
    warning.level = 3;
    struct {
        evtsim::EventSpec event;
        const wchar_t* message;  // whole, or its start when `whole` is false
        bool whole;
        std::map<std::wstring, std::wstring> fields;
    } cases[] = {
        {classic(100, 0x4000, 1, {"Spooler", "%%7001"}), L"Service Spooler entered the running state.\r\n", true,
         {{L"TaskCategory", L"Startup"}, {L"Type", L"Information"}, {L"EventType", L"4"}, {L"EventCode", L"100"}}},
        {warning, L"Disk D: is 95% full; 1000 bytes are free.\r\n", true,
         {{L"TaskCategory", L"Storage"}, {L"Type", L"Warning"}, {L"EventType", L"2"}}},
        // Fewer strings than the message inserts: the insert is left as it is.
        {classic(102, 0x4000, 2, {"C:", "B:", "7"}), L"Backup of C: to B: finished in 7 seconds.\r\nFiles copied: %4.\r\n",
         true, {{L"TaskCategory", L"Storage"}}},
        {classic(999, 0, 0, {"an event without a description"}),
         L"The description for Event ID 999 from source Evtsim-Classic cannot be found.", false,
         {{L"TaskCategory", L"None"}}},
        {audit, L"The description for Event ID 4624 from source Some-Auditor cannot be found.", false,
         {{L"TaskCategory", L"12544"}, {L"Type", L"Success Audit"}, {L"Keywords", L"Audit Success"}, {L"EventType", L"8"}}},
    };
    for (const auto& c : cases) store_.append(kChannel, c.event);
    auto read = fieldsRead(legacy());
    ASSERT_EQ(read.size(), std::size(cases));
    for (size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE(i);
        auto& fields = read[i + 1];
        const std::wstring& message = fields[L"Message"];
        if (cases[i].whole)  // the text goes out trimmed
            EXPECT_EQ(message + L"\r\n", cases[i].message);
        else
            EXPECT_EQ(message.rfind(cases[i].message, 0), 0u) << narrow(message);
        for (const auto& [key, value] : cases[i].fields) EXPECT_EQ(fields[key], value) << narrow(key);
        EXPECT_EQ(fields.count(L"OpCode"), 0u);
    }
    // With the strings, and the viewer's reason when the source's files lack the message.
    EXPECT_NE(read[4][L"Message"].find(L"event: \r\n\r\nan event without a description\r\n\r\nThe message resource is "
                                       L"present but the message was not found in the message table"),
              std::wstring::npos);
    EXPECT_EQ(read[5][L"Message"].find(L"message resource"), std::wstring::npos);
}

// Every generated record read through both paths: the fields both know agree,
// and the classic source's description and category too.
TEST_F(Legacy, ModernAndLegacyPathsAgreeOnTheFieldsBothKnow) {
    store_.generate(kChannel, 400, 7);
    ChannelSettings s = settings(100);
    s.checkpointDir.clear();
    auto modern = fieldsRead(s);
    s.useOldApi = true;
    auto classicRead = fieldsRead(s);
    ASSERT_EQ(modern.size(), 400u);
    ASSERT_EQ(classicRead.size(), 400u);
    size_t classicSource = 0;
    for (auto& [id, legacyFields] : classicRead) {
        SCOPED_TRACE(id);
        auto& modernFields = modern[id];
        for (const wchar_t* key : {L"$Timestamp", L"LogName", L"EventCode", L"ComputerName", L"User", L"Sid", L"SidType",
                                   L"RecordNumber"})
            EXPECT_EQ(legacyFields[key], modernFields[key]) << narrow(key);
        if (legacyFields[L"SourceName"] != L"Evtsim-Classic" || legacyFields[L"EventCode"] == L"999") continue;
        ++classicSource;
        EXPECT_EQ(legacyFields[L"TaskCategory"], modernFields[L"TaskCategory"]);
        EXPECT_EQ(legacyFields[L"Message"], modernFields[L"Message"]);
    }
    EXPECT_GE(classicSource, 4u);
}

TEST_F(Legacy, XmlFromTheRecord) {
    evtsim::EventSpec e = classic(200, 0xC000, 3, {"a<b", "%%7003"});
    e.level = 2, e.userSid = "S-1-5-18", e.binary = "4D000A";
    store_.append(kChannel, e);
    ChannelSettings s = legacy();
    s.renderXml = true;
    for (bool resolve : {false, true}) {
        s.resolveAdObj = resolve;
        s.checkpointDir.clear();
        EventBatch records;
        open(s).getEventsNew(records);
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(widen(records[0].text),
                  std::wstring(L"<Event xmlns='http://schemas.microsoft.com/win/2004/08/events/event'><System>"
                               L"<Provider Name='Evtsim-Classic'/><EventID Qualifiers='49152'>200</EventID><Level>2"
                               L"</Level><Task>3</Task><TimeCreated SystemTime='2024-01-31T21:05:07.0000000Z'/>"
                               L"<EventRecordID>1</EventRecordID><Channel>Application</Channel><Computer>"
                               L"host.example.test</Computer><Security UserID='") +
                      (resolve ? L"NT AUTHORITY\\SYSTEM" : L"S-1-5-18") +
                      L"'/></System><EventData><Data>a&lt;b</Data><Data>%%7003</Data><Binary>4D000A</Binary>"
                      L"</EventData></Event>");
    }
}

}  // namespace
}  // namespace skorva::test
