// The legacy face: OpenEventLogW, ReadEventLogW, the counters and CloseEventLog over
// the store, the EVENTLOGRECORD layout, the registry of classic logs, and the test
// build's message files read with Wine's own loader and FormatMessageW.
#include <algorithm>
#include <cstring>
#include <cwctype>
#include <memory>
#include <optional>
#include <set>
#include <type_traits>

#include "EvtsimTestUtil.h"
#include "Legacy.h"

using namespace evtsim_test;
using skorva::test::EvtsimStore;

namespace {

struct LogCloser {
    void operator()(void* h) const { evtsim::CloseEventLog(h); }
};
using LogHandle = std::unique_ptr<void, LogCloser>;
LogHandle openLog(const wchar_t* name) { return LogHandle(evtsim::OpenEventLogW(nullptr, name)); }

// One record as a classic reader takes it apart.
struct Rec {
    EVENTLOGRECORD head;
    std::wstring source, computer;
    std::string sid, data;
    std::vector<std::wstring> strings;
};

// One ReadEventLogW call with a buffer of `size` bytes: 0 or the error, the size
// asked for when no record fitted, and the records, every length and offset
// checked against the record it belongs to.
struct Read {
    DWORD error = 0, needed = 0;
    std::vector<Rec> records;
    std::vector<DWORD> numbers;
};
Read read(HANDLE h, DWORD flags, DWORD offset = 0, DWORD size = evtsim::kMaxReadBytes) {
    std::vector<BYTE> buf(size + 1);
    DWORD got = 0;
    Read r;
    if (!evtsim::ReadEventLogW(h, flags, offset, buf.data(), size, &got, &r.needed)) return r.error = GetLastError(), r;
    for (DWORD at = 0; at < got;) {
        Rec& c = r.records.emplace_back();
        const BYTE* p = buf.data() + at;
        const EVENTLOGRECORD& e = c.head;
        std::memcpy(&c.head, p, std::min<size_t>(sizeof e, got - at));
        DWORD tail = 0;
        if (got - at < sizeof e || e.Length % 4 || e.Length < sizeof e || e.Length > got - at ||
            (std::memcpy(&tail, p + e.Length - 4, 4), tail != e.Length) || e.Reserved != 0x654c664c ||
            e.UserSidOffset + e.UserSidLength > e.StringOffset || e.DataOffset + e.DataLength > e.Length - 4)
            return ADD_FAILURE() << "damaged record at " << at, r;
        auto text = [&](size_t off) { return std::wstring(reinterpret_cast<const wchar_t*>(p + off)); };
        c.source = text(sizeof e);
        c.computer = text(sizeof e + (c.source.size() + 1) * 2);
        EXPECT_EQ(sizeof e + (c.source.size() + c.computer.size() + 2) * 2, e.UserSidOffset);
        c.sid.assign(reinterpret_cast<const char*>(p + e.UserSidOffset), e.UserSidLength);
        c.data.assign(reinterpret_cast<const char*>(p + e.DataOffset), e.DataLength);
        for (size_t off = e.StringOffset; c.strings.size() < e.NumStrings; off += (c.strings.back().size() + 1) * 2)
            c.strings.push_back(text(off));
        r.numbers.push_back(e.RecordNumber);
        at += e.Length;
    }
    return r;
}

constexpr DWORD kFwd = EVENTLOG_SEQUENTIAL_READ | EVENTLOG_FORWARDS_READ;
constexpr DWORD kBack = EVENTLOG_SEQUENTIAL_READ | EVENTLOG_BACKWARDS_READ;
constexpr DWORD kSeekFwd = EVENTLOG_SEEK_READ | EVENTLOG_FORWARDS_READ;
constexpr DWORD kSeekBack = EVENTLOG_SEEK_READ | EVENTLOG_BACKWARDS_READ;

class LegacyTest : public ::testing::Test {
protected:
    void SetUp() override {
        store.createChannel("Application");
        for (unsigned i = 1; i <= 5; ++i) store.append("Application", sampleEvent(100 + i));
        store.createChannel("System");
        store.append("System", sampleEvent(7));
        handlesBefore = evtsim::openLegacyHandleCount();
    }
    void TearDown() override { EXPECT_EQ(handlesBefore, evtsim::openLegacyHandleCount()); }
    EvtsimStore store;
    size_t handlesBefore = 0;
};

// The fields of the EVENTLOGRECORD documentation; the type from the audit keywords,
// else the level, as the service maps ReportEvent's types to levels.
TEST_F(LegacyTest, RecordLayout) {
    evtsim::EventSpec e;
    e.provider = "Evtsim-Classic", e.classic = true, e.qualifiers = 0xC000, e.eventId = 200, e.level = 2, e.task = 3;
    e.computer = "WS-0142.corp.example.test", e.userSid = "S-1-5-21-1-2-3-1001", e.binary = "4D000A";
    e.data = {{"", "host"}, {"", "%%7003"}, {"", "Grüße"}};
    const DWORD first = static_cast<DWORD>(store.append("Application", e));
    const std::pair<unsigned, uint64_t> levels[] = {{1, 0}, {3, 0}, {4, 0}, {5, 0}, {0, 0}, {0, 0x8020000000000000}, {0, 0x8010000000000000}};
    for (auto [level, keywords] : levels) {
        evtsim::EventSpec plain = sampleEvent(9);
        plain.level = level, plain.keywords = keywords;
        store.append("Application", plain);
    }
    LogHandle h = openLog(L"Application");
    Read r = read(h.get(), kSeekFwd, first);
    ASSERT_EQ(8u, r.records.size());
    const EVENTLOGRECORD& c = r.records[0].head;
    EXPECT_EQ((std::vector<DWORD>{first, 0xC00000C8, EVENTLOG_ERROR_TYPE, 3, 1706735107, 1706735107}),  // 2024-01-31T21:05:07Z
              (std::vector<DWORD>{c.RecordNumber, c.EventID, c.EventType, c.EventCategory, c.TimeGenerated, c.TimeWritten}));
    EXPECT_EQ(L"Evtsim-Classic", r.records[0].source);
    EXPECT_EQ(L"WS-0142.corp.example.test", r.records[0].computer);
    EXPECT_EQ((std::vector<std::wstring>{L"host", L"%%7003", L"Grüße"}), r.records[0].strings);
    EXPECT_EQ(std::string("\x4D\x00\x0A", 3), r.records[0].data);
    EXPECT_TRUE(r.records[0].sid.size() == 28 && IsValidSid(r.records[0].sid.data()));
    const EVENTLOGRECORD& plain = r.records[1].head;
    EXPECT_EQ((std::vector<DWORD>{9, 0, 0, 0}), (std::vector<DWORD>{plain.EventID, plain.UserSidLength, plain.NumStrings, plain.DataLength}));
    EXPECT_EQ(plain.UserSidOffset, plain.StringOffset);  // no SID (Wine's conformance test, test_readwrite)
    std::vector<WORD> types;
    for (size_t i = 1; i < r.records.size(); ++i) types.push_back(r.records[i].head.EventType);
    EXPECT_EQ((std::vector<WORD>{EVENTLOG_ERROR_TYPE, EVENTLOG_WARNING_TYPE, EVENTLOG_INFORMATION_TYPE, EVENTLOG_INFORMATION_TYPE,
                                 EVENTLOG_SUCCESS, EVENTLOG_AUDIT_SUCCESS, EVENTLOG_AUDIT_FAILURE}),
              types);
}

// Arguments are checked before the handle (Wine's conformance test, test_read and
// test_count, run on Windows); a modern handle is no legacy one.
TEST_F(LegacyTest, ArgumentsBeforeTheHandle) {
    BYTE buf[64];
    DWORD got = 0, needed = 0, n = 0xdeadbeef;
    const auto error = [](BOOL ok) { return ok ? 0 : GetLastError(); };
    EXPECT_EQ((std::vector<DWORD>{87, 6, 87, 87, 6, 0xdeadbeef}),
              (std::vector<DWORD>{error(evtsim::ReadEventLogW(nullptr, kFwd, 1, nullptr, 64, &got, &needed)),
                                  error(evtsim::ReadEventLogW(nullptr, kFwd, 1, buf, 64, &got, &needed)),
                                  error(evtsim::ReadEventLogW(openLog(L"Application").get(), kSeekFwd | kFwd, 1, buf, 64,
                                                              &got, &needed)),
                                  error(evtsim::GetOldestEventLogRecord(nullptr, nullptr)),
                                  error(evtsim::GetNumberOfEventLogRecords(nullptr, &n)), n}));
    UniqueEvtHandle q(evtsim::EvtQuery(nullptr, L"Application", nullptr, EvtQueryChannelPath));
    EXPECT_FALSE(evtsim::CloseEventLog(q.get()));
}

// Reading on from where the last call left off, in either direction, or from a
// record number; as many whole records per call as fit (here two and a half), and
// a record that does not fit: ERROR_INSUFFICIENT_BUFFER with the size it needs, the
// position kept (ReadEventLogW; [MS-EVEN] ElfrReadELW).
TEST_F(LegacyTest, SequentialBothWaysAndSeek) {
    LogHandle probe = openLog(L"Application");
    const DWORD one = read(probe.get(), kFwd, 0, sizeof(EVENTLOGRECORD)).needed;
    ASSERT_GT(one, sizeof(EVENTLOGRECORD));
    struct Step {
        DWORD flags, offset;
        std::vector<DWORD> numbers;
        DWORD error = 0, size = 0;  // 0: two and a half records
    };
    const std::vector<std::vector<Step>> cases = {
        {{kFwd, 0, {1, 2}}, {kFwd, 0, {3, 4}}, {kFwd, 0, {5}}, {kFwd, 0, {}, ERROR_HANDLE_EOF}},
        {{kBack, 0, {5, 4}}, {kBack, 0, {3, 2}}, {kBack, 0, {1}}, {kBack, 0, {}, ERROR_HANDLE_EOF}},
        {{kSeekFwd, 3, {3, 4}}, {kFwd, 0, {5}}, {kFwd, 0, {}, ERROR_HANDLE_EOF}},
        {{kFwd, 0, {1, 2}}, {kSeekFwd, 5, {5}}, {kSeekBack, 2, {2, 1}}},
        {{kFwd, 0, {}, 122, one - 1}, {kFwd, 0, {1}, 0, one}, {kFwd, 0, {2, 3}}},
        // A record number the log does not hold (KB 177199; fluent-bit winlog.c).
        {{kSeekFwd, 0, {}, 87}, {kSeekFwd, 6, {}, 87}, {kFwd, 0, {1, 2}}},
    };
    for (size_t i = 0; i < cases.size(); ++i) {
        LogHandle h = openLog(L"Application");
        for (const Step& s : cases[i]) {
            Read r = read(h.get(), s.flags, s.offset, s.size ? s.size : 2 * one + one / 2);
            EXPECT_EQ(s.error, r.error) << "case " << i;
            EXPECT_EQ(s.numbers, r.numbers) << "case " << i;
            EXPECT_EQ(s.error == 122 ? one : 0, r.needed) << "case " << i;
        }
    }
}

// The end, new records, then a clear: a handle opened before it fails every read
// with ERROR_EVENTLOG_FILE_CHANGED until it is closed (beats eventlogging.go and
// fluent-bit winlog.c open the log again); the counters follow the log; record
// numbers go on (Vista SP1 and later); an empty log's oldest record is 0
// ([MS-EVEN] ElfrOldestRecord).
TEST_F(LegacyTest, EndNewRecordsAndClear) {
    LogHandle old = openLog(L"Application");
    EXPECT_EQ((std::vector<DWORD>{1, 2, 3, 4, 5}), read(old.get(), kFwd).numbers);
    EXPECT_EQ(ERROR_HANDLE_EOF, read(old.get(), kFwd).error);
    store.append("Application", sampleEvent(106));
    EXPECT_EQ(std::vector<DWORD>{6}, read(old.get(), kFwd).numbers);
    auto counters = [&] {
        DWORD count = 99, oldest = 99;
        EXPECT_TRUE(evtsim::GetNumberOfEventLogRecords(old.get(), &count) && evtsim::GetOldestEventLogRecord(old.get(), &oldest));
        return std::make_pair(count, oldest);
    };
    store.clearChannel("Application");
    EXPECT_EQ(std::make_pair(0ul, 0ul), counters());
    store.append("Application", sampleEvent(1));
    store.append("Application", sampleEvent(2));
    for (DWORD flags : {kFwd, kBack, kSeekFwd}) EXPECT_EQ(ERROR_EVENTLOG_FILE_CHANGED, read(old.get(), flags, 7).error);
    EXPECT_EQ(std::make_pair(2ul, 7ul), counters());
    EXPECT_EQ((std::vector<DWORD>{7, 8}), read(openLog(L"Application").get(), kFwd).numbers);
}

// Which log a name opens: the log, a registered source's log, else Application
// ("If you specify a custom log and it cannot be found, the event logging service
// opens the Application log", OpenEventLogW); remote servers are not simulated.
TEST_F(LegacyTest, OpenResolvesNames) {
    evtsim::LegacySource source;
    source.log = L"System", source.name = L"Evtsim-SystemSource";
    evtsim::LegacyRegistration reg(store.root(), {source});
    const struct {
        const wchar_t *server, *name;
        DWORD records, error;  // 5 records: Application, 1: System
    } cases[] = {
        {nullptr, L"system", 1, 0},
        {nullptr, L"NoSuchLog", 5, 0},
        {nullptr, L"Evtsim-SystemSource", 1, 0},
        {L"\\\\far-away", L"System", 0, RPC_S_SERVER_UNAVAILABLE},
    };
    for (const auto& c : cases) {
        LogHandle h(evtsim::OpenEventLogW(c.server, c.name));
        DWORD n = 0;
        EXPECT_EQ(c.error, h ? 0 : GetLastError()) << c.name;
        EXPECT_EQ(c.records, h && evtsim::GetNumberOfEventLogRecords(h.get(), &n) ? n : 0) << c.name;
    }
    HANDLE h = evtsim::OpenEventLogW(nullptr, L"System");
    EXPECT_TRUE(evtsim::CloseEventLog(h));
    EXPECT_FALSE(evtsim::CloseEventLog(h));  // handle values are never used twice
}

// ---- the registry and the message files --------------------------------------

const std::wstring kClassicKey = std::wstring(evtsim::kEventLogKey) + L"\\Application\\Evtsim-Classic";

std::wstring regString(const std::wstring& key, const wchar_t* value) {
    wchar_t buf[1024];
    DWORD size = sizeof buf;
    return RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), value, RRF_RT_REG_EXPAND_SZ | RRF_NOEXPAND, nullptr, buf, &size) ? L"" : buf;
}

std::set<std::wstring> classicLogs() {
    std::set<std::wstring> names;
    HKEY key = nullptr;
    wchar_t name[256];
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, evtsim::kEventLogKey, 0, KEY_READ, &key)) return names;
    for (DWORD i = 0, n = 256; RegEnumKeyExW(key, i, name, &n, nullptr, nullptr, nullptr, nullptr) == 0; ++i, n = 256)
        names.insert(name);
    RegCloseKey(key);
    return names;
}

using Module = std::unique_ptr<std::remove_pointer_t<HMODULE>, decltype(&FreeLibrary)>;

// The modules of a registry value: several files, ';'-separated, with environment
// variables, loaded as data files; those that do not load are left out.
std::vector<Module> modules(const wchar_t* value) {
    wchar_t expanded[2048];
    std::vector<Module> out;
    if (!ExpandEnvironmentStringsW(regString(kClassicKey, value).c_str(), expanded, 2048)) return out;
    std::wstring list = expanded;
    for (size_t at = 0, semi; at < list.size(); at = semi + 1) {
        semi = std::min(list.find(L';', at), list.size());
        if (HMODULE m = LoadLibraryExW(list.substr(at, semi - at).c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE))
            out.emplace_back(m, &FreeLibrary);
    }
    return out;
}

DWORD formatFrom(HMODULE m, DWORD id, DWORD_PTR* args, std::wstring& out) {
    wchar_t buf[8192];
    const DWORD flags = FORMAT_MESSAGE_FROM_HMODULE | (args ? FORMAT_MESSAGE_ARGUMENT_ARRAY : FORMAT_MESSAGE_IGNORE_INSERTS);
    out.assign(buf, FormatMessageW(flags, m, id, 0, buf, 8192, reinterpret_cast<va_list*>(args)));
    return out.empty() ? GetLastError() : 0;
}

// A classic reader's description: the first message file that holds the event
// formats the record's strings; each %%n is then the parameter file's string n
// without its line break.
DWORD classicMessage(const std::vector<Module>& files, HMODULE params, const Rec& r, std::wstring& text) {
    std::vector<DWORD_PTR> args(99, reinterpret_cast<DWORD_PTR>(L""));  // inserts the record lacks stay empty
    for (size_t i = 0; i < r.strings.size(); ++i) args[i] = reinterpret_cast<DWORD_PTR>(r.strings[i].c_str());
    DWORD error = ERROR_MR_MID_NOT_FOUND;
    auto file = std::find_if(files.begin(), files.end(), [&](const Module& m) { return !(error = formatFrom(m.get(), r.head.EventID, args.data(), text)); });
    if (file == files.end()) return error;
    for (size_t at; (at = text.find(L"%%")) != std::wstring::npos;) {
        size_t end = at + 2, id = 0;
        for (; end < text.size() && iswdigit(text[end]); ++end) id = id * 10 + (text[end] - L'0');
        std::wstring param;
        if (formatFrom(params, static_cast<DWORD>(id), nullptr, param)) return ERROR_MR_MID_NOT_FOUND;
        text.replace(at, end - at, param.substr(0, param.find_last_not_of(L"\r\n") + 1));
    }
    return 0;
}

// The generator's classic source through both faces: Wine's real LoadLibraryExW
// and FormatMessageW over the test build's message files give, for every event
// whose strings are complete, the text the modern face formats from the source's
// provider file. The registration makes keys for classic logs only (a channel
// name with a '/' gets none, as on Windows) and lasts as long as its object.
TEST(LegacyRegistryTest, MessageFilesFormatAsTheModernFace) {
    EvtsimStore store;
    store.generate("Application", 1000, 3);
    for (const char* c : {"Evtsim-Custom", "Microsoft-Windows-Test/Operational"}) store.createChannel(c);
    std::optional<evtsim::LegacyRegistration> reg(std::in_place, store.root(), evtsim::sampleLegacySources());
    ASSERT_EQ(ERROR_SUCCESS, reg->error());
    std::set<std::wstring> logs = classicLogs();
    EXPECT_TRUE(logs.count(L"Application") && logs.count(L"Evtsim-Custom"));
    EXPECT_FALSE(logs.count(L"Microsoft-Windows-Test/Operational"));
    std::vector<Module> files = modules(L"EventMessageFile"), params = modules(L"ParameterMessageFile"),
                        categories = modules(L"CategoryMessageFile");
    ASSERT_TRUE(files.size() == 2 && params.size() == 1 && categories.size() == 1)
        << "message files missing from System32: the Wine fixture installs them";
    std::wstring category;
    EXPECT_EQ(0u, formatFrom(categories[0].get(), 2, nullptr, category));
    EXPECT_EQ(L"Storage\r\n", category);

    UniqueEvtHandle q(evtsim::EvtQuery(nullptr, L"Application", nullptr, EvtQueryChannelPath));
    auto events = readAll(q.get());
    UniqueEvtHandle pub(evtsim::EvtOpenPublisherMetadata(nullptr, L"Evtsim-Classic", nullptr, 0, 0));
    LogHandle log = openLog(L"Application");
    std::set<DWORD> seen;
    size_t compared = 0;
    for (Read r = read(log.get(), kFwd); !r.error; r = read(log.get(), kFwd)) {
        for (const Rec& rec : r.records) {
            if (rec.source != L"Evtsim-Classic") continue;
            seen.insert(rec.head.EventID);
            std::wstring legacy, modern(4096, L'\0');
            const DWORD legacyError = classicMessage(files, params[0].get(), rec, legacy);
            DWORD used = 0;
            if (rec.head.EventID == 999) {
                EXPECT_EQ(ERROR_MR_MID_NOT_FOUND, legacyError);  // no file describes it
            }
            // A record short of strings is refused by the modern face (15029): not compared.
            if (!evtsim::EvtFormatMessage(pub.get(), events[rec.head.RecordNumber - 1].get(), 0, 0, nullptr,
                                          EvtFormatMessageEvent, 4096, modern.data(), &used))
                continue;
            modern.resize(used - 1);
            EXPECT_EQ(modern, legacy) << rec.head.RecordNumber;
            ++compared;
        }
    }
    EXPECT_EQ((std::set<DWORD>{0x40000064, 0x80000065, 0x40000066, 0xC00000C8, 999}), seen);
    EXPECT_GE(compared, 4u);
    files.clear(), params.clear(), categories.clear();
    reg.reset();
    logs = classicLogs();
    EXPECT_TRUE(logs.count(L"Application") && !logs.count(L"Evtsim-Custom"));  // what was there before stays
    EXPECT_EQ(L"", regString(kClassicKey, L"EventMessageFile"));
}

}  // namespace
