// The legacy face: OpenEventLogW, ReadEventLogW, the counters and CloseEventLog over
// the store, and the EVENTLOGRECORD layout. (The registered message files are read
// through the product's legacy reader, channel/LegacyTest; the product opens only
// the logs the registry lists, by their names, and never passes a null buffer.)
#include <algorithm>
#include <cstring>

#include "EvtsimTestUtil.h"
#include "Legacy.h"
#include "platform/Handles.h"

using namespace evtsim_test;
using skorva::test::EvtsimStore;

namespace {

using LogHandle = skorva::UniqueAny<HANDLE, &evtsim::CloseEventLog>;
LogHandle openLog(const wchar_t* name) { return LogHandle(evtsim::OpenEventLogW(nullptr, name)); }

// One ReadEventLogW call with a buffer of `size` bytes: 0 or the error, the size
// asked for when no record fitted, and the records, every length and offset
// checked against the record it belongs to.
struct Read {
    DWORD error = 0, needed = 0;
    std::vector<EVENTLOGRECORD> records;
    std::vector<DWORD> numbers;
};
Read read(HANDLE h, DWORD flags, DWORD offset = 0, DWORD size = evtsim::kMaxReadBytes) {
    std::vector<BYTE> buf(size + 1);
    DWORD got = 0;
    Read r;
    if (!evtsim::ReadEventLogW(h, flags, offset, buf.data(), size, &got, &r.needed)) return r.error = GetLastError(), r;
    for (DWORD at = 0; at < got;) {
        EVENTLOGRECORD& e = r.records.emplace_back();
        const BYTE* p = buf.data() + at;
        std::memcpy(&e, p, std::min<size_t>(sizeof e, got - at));
        DWORD tail = 0;
        if (got - at < sizeof e || e.Length % 4 || e.Length < sizeof e || e.Length > got - at ||
            (std::memcpy(&tail, p + e.Length - 4, 4), tail != e.Length) || e.Reserved != 0x654c664c ||
            e.UserSidOffset + e.UserSidLength > e.StringOffset || e.DataOffset + e.DataLength > e.Length - 4)
            return ADD_FAILURE() << "damaged record at " << at, r;
        auto text = [&](size_t off) { return std::wstring(reinterpret_cast<const wchar_t*>(p + off)); };
        const std::wstring source = text(sizeof e), computer = text(sizeof e + (source.size() + 1) * 2);
        EXPECT_EQ(sizeof e + (source.size() + computer.size() + 2) * 2, e.UserSidOffset);
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
        handlesBefore = evtsim::openLegacyHandleCount();
    }
    void TearDown() override { EXPECT_EQ(handlesBefore, evtsim::openLegacyHandleCount()); }
    EvtsimStore store;
    size_t handlesBefore = 0;
};

// The type from the audit keywords, else the level, as the service maps ReportEvent's
// types to levels; no SID, strings or data. (A full record's fields are read through
// the product's legacy reader: channel/LegacyTest, XmlFromTheRecord.)
TEST_F(LegacyTest, RecordLayout) {
    const std::pair<unsigned, uint64_t> levels[] = {{1, 0}, {3, 0}, {4, 0}, {5, 0}, {0, 0}, {0, 0x8020000000000000}, {0, 0x8010000000000000}};
    DWORD first = 0;
    for (auto [level, keywords] : levels) {
        evtsim::EventSpec plain = sampleEvent(9);
        plain.level = level, plain.keywords = keywords;
        const auto id = static_cast<DWORD>(store.append("Application", plain));
        first = first ? first : id;
    }
    LogHandle h = openLog(L"Application");
    Read r = read(h.get(), kSeekFwd, first);
    ASSERT_EQ(7u, r.records.size());
    const EVENTLOGRECORD& plain = r.records[0];
    EXPECT_EQ((std::vector<DWORD>{9, 0, 0, 0}), (std::vector<DWORD>{plain.EventID, plain.UserSidLength, plain.NumStrings, plain.DataLength}));
    EXPECT_EQ(plain.UserSidOffset, plain.StringOffset);  // no SID (Wine's conformance test, test_readwrite)
    std::vector<WORD> types;
    for (const EVENTLOGRECORD& rec : r.records) types.push_back(rec.EventType);
    EXPECT_EQ((std::vector<WORD>{EVENTLOG_ERROR_TYPE, EVENTLOG_WARNING_TYPE, EVENTLOG_INFORMATION_TYPE, EVENTLOG_INFORMATION_TYPE,
                                 EVENTLOG_SUCCESS, EVENTLOG_AUDIT_SUCCESS, EVENTLOG_AUDIT_FAILURE}),
              types);
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

}  // namespace
