// The classic event log functions (advapi32) over the store: open, read in both
// directions or from a record number, count, oldest record, close.
#include <cstring>
#include <map>
#include <memory>
#include <type_traits>

#include "Evtsim.h"
#include "Faults.h"
#include "Internal.h"
#include "Legacy.h"
#include "Text.h"
#include "SrwLock.h"

namespace evtsim {

// Windows' signatures, checked against <winbase.h>.
static_assert(std::is_same_v<decltype(&evtsim::OpenEventLogW), decltype(&::OpenEventLogW)>);
static_assert(std::is_same_v<decltype(&evtsim::ReadEventLogW), decltype(&::ReadEventLogW)>);
static_assert(std::is_same_v<decltype(&evtsim::GetNumberOfEventLogRecords), decltype(&::GetNumberOfEventLogRecords)>);
static_assert(std::is_same_v<decltype(&evtsim::GetOldestEventLogRecord), decltype(&::GetOldestEventLogRecord)>);
static_assert(std::is_same_v<decltype(&evtsim::CloseEventLog), decltype(&::CloseEventLog)>);

namespace {

// One open log. The records file it was opened on is the one it reads: after a
// clear every read fails until the handle is closed and the log opened again.
struct LegacyLog {
    Mutex mutex;
    std::wstring root;
    std::string name;                  // the channel as the store spells it
    std::shared_ptr<ChannelLog> log;   // as opened
    bool started = false;              // a read has set the position
    uint64_t lastId = 0;               // the record the position is at
    std::vector<BYTE> scratch;         // one record being laid out
};

// Handle values of their own, never used twice, apart from the modern face's: a
// legacy handle is no EVT_HANDLE and the reverse.
struct LegacyHandles {
    Mutex mutex;
    std::map<uintptr_t, std::shared_ptr<LegacyLog>> live;
    uintptr_t next = 0x4C000000;
};

LegacyHandles& handles() {
    static LegacyHandles* h = new LegacyHandles;  // outlives static destruction, as the modern registry does
    return *h;
}

std::shared_ptr<LegacyLog> lookup(HANDLE h) {
    LegacyHandles& t = handles();
    std::lock_guard<Mutex> lock(t.mutex);
    auto it = t.live.find(reinterpret_cast<uintptr_t>(h));
    return it == t.live.end() ? nullptr : it->second;
}

// The log's present records (the channel may have been cleared since the handle
// was opened), fully indexed; null when the channel is gone.
std::shared_ptr<ChannelLog> presentLog(const LegacyLog& l) {
    DWORD error = 0;
    auto log = openChannelLog(l.root, toWide(l.name), error);
    if (log) loadAll(*log);
    return log;
}

// A source registered for a log of the store opens that log (Wine's conformance
// test, dlls/advapi32/tests/eventlog.c: events reported through a handle opened
// by source name land in the source's log).
std::shared_ptr<ChannelLog> logOfSource(const std::wstring& root, const std::wstring& source) {
    for (const std::string& channel : listChannels(root)) {
        const std::wstring key = std::wstring(kEventLogKey) + L"\\" + toWide(channel) + L"\\" + source;
        HKEY k = nullptr;
        if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, key.c_str(), 0, KEY_READ, &k) != ERROR_SUCCESS) continue;
        RegCloseKey(k);
        DWORD error = 0;
        return openChannelLog(root, toWide(channel), error);
    }
    return nullptr;
}

bool oneOf(DWORD flags, DWORD a, DWORD b) { return ((flags & a) != 0) != ((flags & b) != 0); }

}  // namespace

size_t openLegacyHandleCount() {
    LegacyHandles& t = handles();
    std::lock_guard<Mutex> lock(t.mutex);
    return t.live.size();
}

HANDLE WINAPI OpenEventLogW(LPCWSTR lpUNCServerName, LPCWSTR lpSourceName) {
    if (!lpSourceName) return failWith<HANDLE>(ERROR_INVALID_PARAMETER, nullptr);
    // An empty server name is the local computer; remote logs are not simulated
    // (Wine's conformance test: a server that does not answer gives RPC_S_SERVER_UNAVAILABLE).
    if (lpUNCServerName && *lpUNCServerName) return failWith<HANDLE>(RPC_S_SERVER_UNAVAILABLE, nullptr);
    if (DWORD f = injectedFault("OpenEventLogW", toUtf8(lpSourceName))) return failWith<HANDLE>(f, nullptr);
    auto l = std::make_shared<LegacyLog>();
    l->root = storeRoot();
    DWORD error = 0;
    if (!l->root.empty()) {
        l->log = openChannelLog(l->root, lpSourceName, error);
        if (!l->log) l->log = logOfSource(l->root, lpSourceName);
        // "If you specify a custom log and it cannot be found, the event logging
        // service opens the Application log" (OpenEventLogW).
        if (!l->log) l->log = openChannelLog(l->root, L"Application", error);
    }
    // Windows always has an Application log; a store without one has nothing to open.
    if (!l->log) return failWith<HANDLE>(ERROR_FILE_NOT_FOUND, nullptr);
    l->name = l->log->meta().name;
    LegacyHandles& t = handles();
    std::lock_guard<Mutex> lock(t.mutex);
    t.next += 4;
    t.live.emplace(t.next, std::move(l));
    return reinterpret_cast<HANDLE>(t.next);
}

BOOL WINAPI CloseEventLog(HANDLE hEventLog) {
    std::shared_ptr<LegacyLog> doomed;  // released outside the table's lock
    LegacyHandles& t = handles();
    std::lock_guard<Mutex> lock(t.mutex);
    auto it = t.live.find(reinterpret_cast<uintptr_t>(hEventLog));
    if (it == t.live.end()) return failWith(ERROR_INVALID_HANDLE, FALSE);
    doomed = std::move(it->second);
    t.live.erase(it);
    return TRUE;
}

BOOL WINAPI GetNumberOfEventLogRecords(HANDLE hEventLog, PDWORD NumberOfRecords) {
    // The pointer is checked before the handle (Wine's conformance test, test_count).
    if (!NumberOfRecords) return failWith(ERROR_INVALID_PARAMETER, FALSE);
    auto l = lookup(hEventLog);
    if (!l) return failWith(ERROR_INVALID_HANDLE, FALSE);
    if (DWORD f = injectedFault("GetNumberOfEventLogRecords", l->name)) return failWith(f, FALSE);
    // The log as it is now: a handle opened before a clear counts what is left.
    auto log = presentLog(*l);
    if (!log) return failWith(ERROR_INVALID_HANDLE, FALSE);
    *NumberOfRecords = static_cast<DWORD>(log->size());
    return TRUE;
}

BOOL WINAPI GetOldestEventLogRecord(HANDLE hEventLog, PDWORD OldestRecord) {
    if (!OldestRecord) return failWith(ERROR_INVALID_PARAMETER, FALSE);
    auto l = lookup(hEventLog);
    if (!l) return failWith(ERROR_INVALID_HANDLE, FALSE);
    if (DWORD f = injectedFault("GetOldestEventLogRecord", l->name)) return failWith(f, FALSE);
    auto log = presentLog(*l);
    if (!log) return failWith(ERROR_INVALID_HANDLE, FALSE);
    // An empty log answers 0 ([MS-EVEN] 3.1.4.19 ElfrOldestRecord). Record numbers
    // go on counting across a clear, so after one the oldest is not 1 (Vista SP1
    // and later; Wine's conformance test, test_readwrite).
    Record first{};
    *OldestRecord = log->size() > 0 && log->copy(0, 1, false, &first) == 1 ? static_cast<DWORD>(first.id) : 0;
    return TRUE;
}

BOOL WINAPI ReadEventLogW(HANDLE hEventLog, DWORD dwReadFlags, DWORD dwRecordOffset, LPVOID lpBuffer,
                          DWORD nNumberOfBytesToRead, DWORD* pnBytesRead, DWORD* pnMinNumberOfBytesNeeded) {
    // Arguments before the handle, as Windows checks them (Wine's conformance test,
    // test_read): a buffer ("This parameter cannot be NULL, even if the
    // nNumberOfBytesToRead parameter is zero"), both counters, exactly one of
    // sequential and seek and exactly one direction, and at most 0x7FFFF bytes.
    if (!lpBuffer || !pnBytesRead || !pnMinNumberOfBytesNeeded ||
        !oneOf(dwReadFlags, EVENTLOG_SEQUENTIAL_READ, EVENTLOG_SEEK_READ) ||
        !oneOf(dwReadFlags, EVENTLOG_FORWARDS_READ, EVENTLOG_BACKWARDS_READ) || nNumberOfBytesToRead > kMaxReadBytes)
        return failWith(ERROR_INVALID_PARAMETER, FALSE);
    auto l = lookup(hEventLog);
    if (!l) return failWith(ERROR_INVALID_HANDLE, FALSE);
    std::lock_guard<Mutex> lock(l->mutex);
    *pnBytesRead = 0;
    *pnMinNumberOfBytesNeeded = 0;
    if (DWORD f = injectedFault("ReadEventLogW", l->name)) return failWith(f, FALSE);

    ChannelMeta now;
    switch (checkChannel(*l->log, now)) {
    case ChannelChange::None: break;
    case ChannelChange::Deleted: return failWith(ERROR_INVALID_HANDLE, FALSE);
    // "The event log file has changed between read operations": readers close the
    // handle and open the log again (elastic/beats winlogbeat/eventlog/eventlogging.go,
    // fluent/fluent-bit plugins/in_winlog/winlog.c winlog_on_cleared).
    case ChannelChange::Cleared:
    case ChannelChange::Recreated: return failWith(ERROR_EVENTLOG_FILE_CHANGED, FALSE);
    }
    ChannelLog& log = *l->log;
    loadAll(log);

    const bool backwards = (dwReadFlags & EVENTLOG_BACKWARDS_READ) != 0;
    size_t next = 0;  // index of the first record to return
    if (dwReadFlags & EVENTLOG_SEEK_READ) {
        // A record number the log does not hold is refused (KB 177199 "ReadEventLog
        // Fails with Error 87"; fluent/fluent-bit winlog.c falls back to reading
        // sequentially; .NET's EventLog reports "The parameter is incorrect",
        // wokhan/WFN #91).
        if (!log.find(dwRecordOffset, next)) return failWith(ERROR_INVALID_PARAMETER, FALSE);
    } else if (!l->started) {
        // The first sequential read starts at the oldest or the newest record.
        if (log.size() == 0) return failWith(ERROR_HANDLE_EOF, FALSE);
        next = backwards ? log.size() - 1 : 0;
    } else if (backwards) {
        const size_t at = log.lowerBound(l->lastId);
        if (at == 0) return failWith(ERROR_HANDLE_EOF, FALSE);
        next = at - 1;
    } else {
        next = log.lowerBound(l->lastId + 1);
    }

    // As many whole records as fit; none fitting is ERROR_INSUFFICIENT_BUFFER with
    // the size of the next one, and the position stays (ReadEventLogW:
    // "the function will not return partial entries").
    auto* out = static_cast<BYTE*>(lpBuffer);
    DWORD used = 0;
    Record r{};
    while (backwards ? log.copy(next + 1, 1, true, &r) == 1 : log.copy(next, 1, false, &r) == 1) {
        layoutEventLogRecord(std::string_view(r.xml, r.size), r.id, l->scratch);
        const DWORD size = static_cast<DWORD>(l->scratch.size());
        if (size > nNumberOfBytesToRead - used) {
            if (used > 0) break;
            *pnMinNumberOfBytesNeeded = size;
            return failWith(ERROR_INSUFFICIENT_BUFFER, FALSE);
        }
        std::memcpy(out + used, l->scratch.data(), size);
        used += size;
        l->started = true;
        l->lastId = r.id;
        if (backwards && next == 0) break;
        next = backwards ? next - 1 : next + 1;
    }
    if (used == 0) return failWith(ERROR_HANDLE_EOF, FALSE);
    *pnBytesRead = used;
    return TRUE;
}

}  // namespace evtsim
