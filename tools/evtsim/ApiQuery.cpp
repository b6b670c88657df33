// Result sets: queries, subscriptions, reading them and moving in them, and the
// channel enumeration.
#include <algorithm>
#include <cwctype>

#include "Evtsim.h"
#include "Faults.h"
#include "Internal.h"
#include "Text.h"
#include "SrwLock.h"

namespace evtsim {

namespace {

bool queryIsAll(LPCWSTR q) {
    if (!q) return true;
    std::wstring_view v(q);
    while (!v.empty() && iswspace(v.front())) v.remove_prefix(1);
    while (!v.empty() && iswspace(v.back())) v.remove_suffix(1);
    return v.empty() || v == L"*";
}

struct ChannelEnumObj : Object {
    ChannelEnumObj() : Object(Kind::ChannelEnum) {}
    static bool accepts(Kind k) { return k == Kind::ChannelEnum; }
    Mutex mutex;
    std::vector<std::wstring> names;
    size_t next = 0;
};

uint64_t firstRecordId(const ChannelLog& log) {
    Record first{};
    if (log.size() > 0 && log.copy(0, 1, false, &first) == 1) return first.id;
    return log.meta().nextRecordId;
}

// The number of records in query order.
size_t orderLength(QueryObj& q) { return q.reverse ? q.snapshot : q.log->size(); }

// Index in query order of record `index` of the log.
size_t orderIndex(QueryObj& q, size_t index) { return q.reverse ? q.snapshot - 1 - index : index; }

// Follows a change of the channel under a result set: the error the handle now
// gives, or 0 when it reads on. A clear makes queries and subscriptions alike
// stale for good: "The query result is stale or invalid and must be recreated.
// This may be due to the log being cleared or rolling over after the query
// result was created" (ERROR_EVT_QUERY_RESULT_STALE, Windows Event Log error
// constants; seen by peers on subscriptions: elastic/beats #32168, #45750,
// vector #26115).
DWORD followChange(QueryObj& q) {
    if (q.stale) return ERROR_EVT_QUERY_RESULT_STALE;
    ChannelMeta now;
    switch (checkChannel(*q.log, now)) {
    case ChannelChange::None: return 0;
    case ChannelChange::Deleted: return ERROR_EVT_CHANNEL_NOT_FOUND;
    case ChannelChange::Recreated: return ERROR_INVALID_HANDLE;
    case ChannelChange::Cleared: break;
    }
    q.stale = true;
    return ERROR_EVT_QUERY_RESULT_STALE;
}

// A query handle "must only be used on the same thread that created the
// handle" (EvtQuery remarks); subscriptions carry no such rule.
bool wrongThread(const QueryObj& q) { return !q.subscription() && q.ownerThread != GetCurrentThreadId(); }

// What one EvtNext call may carry: at most MAX_RPC_RECORD_COUNT (1024) records
// and MAX_RPC_BATCH_SIZE (2 MiB) of them ([MS-EVEN6] 2.2.1; elastic/beats
// winlogbeat/sys/wineventlog/iterator.go; microsoft/EventLogExpert
// EventLogReader.cs). Record sizes count the stored XML.
constexpr size_t kMaxBatchRecords = 1024;
constexpr uint64_t kMaxBatchBytes = 2u * 1024 * 1024;

}  // namespace

EVT_HANDLE WINAPI EvtQuery(EVT_HANDLE Session, LPCWSTR Path, LPCWSTR Query, DWORD Flags) {
    if (Session) return failWith<EVT_HANDLE>(RPC_S_UNKNOWN_IF, nullptr);  // remote sessions are not simulated
    DWORD kind = Flags & 0xFF, direction = Flags & 0xF00;
    if (!Path || (kind != EvtQueryChannelPath && kind != EvtQueryFilePath) ||
        (direction != 0 && direction != EvtQueryForwardDirection && direction != EvtQueryReverseDirection) ||
        (Flags & ~(0xFFFu | EvtQueryTolerateQueryErrors)))
        return failWith<EVT_HANDLE>(ERROR_INVALID_PARAMETER, nullptr);
    if (kind == EvtQueryFilePath) return failWith<EVT_HANDLE>(ERROR_NOT_SUPPORTED, nullptr);
    if (!queryIsAll(Query)) return failWith<EVT_HANDLE>(ERROR_EVT_INVALID_QUERY, nullptr);
    if (DWORD f = injectedFault("EvtQuery", toUtf8(Path))) return failWith<EVT_HANDLE>(f, nullptr);
    DWORD error = 0;
    auto q = std::make_unique<QueryObj>(Kind::Query);
    q->root = storeRoot();
    q->channel = Path;
    q->log = openChannelLog(q->root, Path, error);
    if (!q->log) return failWith<EVT_HANDLE>(error, nullptr);
    q->reverse = direction == EvtQueryReverseDirection;
    q->ownerThread = GetCurrentThreadId();
    if (q->reverse) {
        loadAll(*q->log);
        q->snapshot = q->log->size();
    }
    return registerObject(std::move(q));
}

EVT_HANDLE WINAPI EvtSubscribe(EVT_HANDLE Session, HANDLE SignalEvent, LPCWSTR ChannelPath, LPCWSTR Query,
                               EVT_HANDLE Bookmark, PVOID Context, EVT_SUBSCRIBE_CALLBACK Callback, DWORD Flags) {
    (void)Context;
    if (Session) return failWith<EVT_HANDLE>(RPC_S_UNKNOWN_IF, nullptr);
    DWORD origin = Flags & EvtSubscribeOriginMask;
    if (!ChannelPath || (!SignalEvent && !Callback) || (SignalEvent && Callback) || origin == 0 ||
        (Flags & ~(EvtSubscribeOriginMask | EvtSubscribeTolerateQueryErrors | EvtSubscribeStrict)) ||
        ((origin == EvtSubscribeStartAfterBookmark) != (Bookmark != nullptr)) ||
        ((Flags & EvtSubscribeStrict) && origin != EvtSubscribeStartAfterBookmark))
        return failWith<EVT_HANDLE>(ERROR_INVALID_PARAMETER, nullptr);
    // Only the pull model (a signal event) is simulated.
    if (Callback) return failWith<EVT_HANDLE>(ERROR_NOT_SUPPORTED, nullptr);
    BookmarkObj* bm = nullptr;
    if (Bookmark && !(bm = lookupAs<BookmarkObj>(Bookmark))) return failWith<EVT_HANDLE>(ERROR_INVALID_HANDLE, nullptr);
    if (!queryIsAll(Query)) return failWith<EVT_HANDLE>(ERROR_EVT_INVALID_QUERY, nullptr);
    if (DWORD f = injectedFault("EvtSubscribe", toUtf8(ChannelPath))) return failWith<EVT_HANDLE>(f, nullptr);
    DWORD error = 0;
    auto q = std::make_unique<QueryObj>(Kind::Subscription);
    q->root = storeRoot();
    q->channel = ChannelPath;
    q->signal = SignalEvent;
    q->log = openChannelLog(q->root, ChannelPath, error);
    if (!q->log) return failWith<EVT_HANDLE>(error, nullptr);
    if (origin == EvtSubscribeToFutureEvents) {
        loadAll(*q->log);
        q->cursor = q->log->size();
        q->lastId = q->log->meta().nextRecordId - 1;
        Record last{};
        if (q->cursor > 0 && q->log->copy(q->cursor - 1, 1, false, &last) == 1) q->lastId = std::max(q->lastId, last.id);
    } else if (origin == EvtSubscribeStartAfterBookmark) {
        uint64_t id = 0;
        bool have = false;
        {
            std::lock_guard<Mutex> lock(bm->mutex);
            for (const auto& e : bm->entries)
                if (iequals(e.channel, q->log->wideName())) {
                    id = e.recordId;
                    have = true;
                }
        }
        loadAll(*q->log);
        size_t index = 0;
        bool found = have && q->log->find(id, index);
        if (!found && (Flags & EvtSubscribeStrict)) return failWith<EVT_HANDLE>(ERROR_NOT_FOUND, nullptr);
        // A bookmark into records a clear took away: the subscription is stale
        // from the start (elastic/beats #36020, #37238: "error subscribing (first
        // chance): The query result is stale or invalid").
        if (!found && have && q->log->meta().generation > 0 && id < firstRecordId(*q->log))
            return failWith<EVT_HANDLE>(ERROR_EVT_QUERY_RESULT_STALE, nullptr);
        // Without the bookmarked record, start at the first one after it.
        q->cursor = found ? index + 1 : (have ? q->log->lowerBound(id + 1) : 0);
        q->lastId = have ? id : 0;
    }
    QueryObj* raw = q.get();
    markSignalBaseline(*raw);
    EVT_HANDLE h = registerObject(std::move(q));
    watchSubscription(raw);
    return h;
}

BOOL WINAPI EvtNext(EVT_HANDLE ResultSet, DWORD EventArraySize, EVT_HANDLE* EventArray, DWORD Timeout, DWORD Flags,
                    PDWORD Returned) {
    QueryObj* q = lookupAs<QueryObj>(ResultSet);
    if (!q) return failWith(ERROR_INVALID_HANDLE, FALSE);
    if (!EventArray || !Returned || EventArraySize == 0 || Flags != 0) return failWith(ERROR_INVALID_PARAMETER, FALSE);
    *Returned = 0;
    if (wrongThread(*q)) return failWith(ERROR_INVALID_THREAD_ID, FALSE);
    std::lock_guard<Mutex> lock(q->mutex);
    if (DWORD f = injectedFault("EvtNext", toUtf8(q->log->wideName()))) return failWith(f, FALSE);

    if (DWORD e = followChange(*q)) return failWith(e, FALSE);

    ChannelMeta now;
    const ULONGLONG start = GetTickCount64();
    ULONGLONG stuckSince = start;
    uint64_t stuckBytes = q->log->loadedBytes();
    const size_t want = std::min<size_t>(EventArraySize, kMaxBatchRecords);
    std::vector<Record> taken;
    taken.reserve(std::min<size_t>(want, 64));
    uint64_t bytes = 0;
    bool overBound = false;
    Record chunk[64];
    while (true) {
        if (!q->reverse && q->cursor >= q->log->size()) {
            bool partial = false;
            if (!q->log->refresh(partial)) {
                if (checkChannel(*q->log, now) == ChannelChange::Deleted) return failWith(ERROR_EVT_CHANNEL_NOT_FOUND, FALSE);
            }
            if (q->cursor >= q->log->size()) {
                // A record half written by another process is waited for, never served.
                if (!partial || Timeout == 0) break;
                ULONGLONG t = GetTickCount64();
                if (Timeout != INFINITE && t - start >= Timeout) return failWith(ERROR_TIMEOUT, FALSE);
                if (q->log->loadedBytes() != stuckBytes) {
                    stuckBytes = q->log->loadedBytes();
                    stuckSince = t;
                } else if (Timeout == INFINITE && t - stuckSince > 5000) {
                    break;  // an abandoned half record: report the end
                }
                Sleep(2);
                continue;
            }
        }
        bool unreadable = false;
        while (taken.size() < want && !overBound) {
            const size_t n = q->reverse ? q->log->copy(q->snapshot - q->cursor, std::min<size_t>(want - taken.size(), 64), true, chunk)
                                        : q->log->copy(q->cursor, std::min<size_t>(want - taken.size(), 64), false, chunk);
            if (n == 0) {
                unreadable = q->cursor < orderLength(*q);
                break;
            }
            for (size_t i = 0; i < n; ++i) {
                if (!taken.empty() && bytes + chunk[i].size > kMaxBatchBytes) {
                    overBound = true;
                    break;
                }
                bytes += chunk[i].size;
                taken.push_back(std::move(chunk[i]));
                ++q->cursor;
            }
        }
        if (unreadable && taken.empty()) {
            // Records whose bytes could not be read again: the file has gone meanwhile.
            if (DWORD e = followChange(*q)) return failWith(e, FALSE);
            return failWith(ERROR_READ_FAULT, FALSE);
        }
        break;
    }
    if (overBound && batchLimitFails()) {
        // Older systems fail the whole call, and the position stays past the records
        // it gathered: they are lost to this handle (elastic/beats #3076, #3112;
        // opentelemetry-collector-contrib #38149).
        return failWith(RPC_S_INVALID_BOUND, FALSE);
    }
    for (Record& r : taken) {
        auto ev = std::make_unique<EventObj>();
        ev->log = q->log;
        q->lastId = r.id;
        ev->record = std::move(r);
        ev->backward = q->reverse;
        EventArray[(*Returned)++] = registerEvent(*q, std::move(ev));
    }
    if (*Returned == 0) {
        // An idle subscription pulled again with nothing handed out since it last
        // ran dry answers ERROR_INVALID_OPERATION rather than ERROR_NO_MORE_ITEMS
        // (elastic/beats iterator.go, mhammond/pywin32 #1648, vector #26118).
        const bool idle = q->subscription() && !q->deliveredSinceIdle;
        q->deliveredSinceIdle = false;
        return failWith(idle ? ERROR_INVALID_OPERATION : ERROR_NO_MORE_ITEMS, FALSE);
    }
    q->deliveredSinceIdle = true;
    return TRUE;
}

BOOL WINAPI EvtSeek(EVT_HANDLE ResultSet, LONGLONG Position, EVT_HANDLE Bookmark, DWORD Timeout, DWORD Flags) {
    (void)Timeout;
    QueryObj* q = lookupAs<QueryObj>(ResultSet);
    if (!q) return failWith(ERROR_INVALID_HANDLE, FALSE);
    if (q->subscription()) return failWith(ERROR_NOT_SUPPORTED, FALSE);
    if (wrongThread(*q)) return failWith(ERROR_INVALID_THREAD_ID, FALSE);
    DWORD origin = Flags & EvtSeekOriginMask;
    bool strict = (Flags & EvtSeekStrict) != 0;
    if (origin < EvtSeekRelativeToFirst || origin > EvtSeekRelativeToBookmark || (Flags & ~(EvtSeekOriginMask | EvtSeekStrict)) ||
        ((origin == EvtSeekRelativeToBookmark) != (Bookmark != nullptr)))
        return failWith(ERROR_INVALID_PARAMETER, FALSE);
    std::lock_guard<Mutex> lock(q->mutex);
    if (DWORD e = followChange(*q)) return failWith(e, FALSE);  // a query: a clear makes it stale
    loadAll(*q->log);
    const LONGLONG length = static_cast<LONGLONG>(orderLength(*q));
    LONGLONG target = 0;
    switch (origin) {
    case EvtSeekRelativeToFirst: target = Position; break;
    case EvtSeekRelativeToLast: target = length - 1 + Position; break;
    case EvtSeekRelativeToCurrent: target = static_cast<LONGLONG>(q->cursor) - 1 + Position; break;
    case EvtSeekRelativeToBookmark: {
        BookmarkObj* bm = lookupAs<BookmarkObj>(Bookmark);
        if (!bm) return failWith(ERROR_INVALID_HANDLE, FALSE);
        uint64_t id = 0;
        bool have = false;
        {
            std::lock_guard<Mutex> bl(bm->mutex);
            for (const auto& e : bm->entries)
                if (iequals(e.channel, q->log->wideName())) id = e.recordId, have = true;
        }
        size_t index = 0;
        bool found = have && q->log->find(id, index);
        if (!found && strict) return failWith(ERROR_NOT_FOUND, FALSE);
        if (found) {
            target = static_cast<LONGLONG>(orderIndex(*q, index)) + Position;
        } else {
            // The bookmarked record is gone: it sat between two others.
            size_t lb = have ? q->log->lowerBound(id) : 0;
            LONGLONG next = q->reverse ? static_cast<LONGLONG>(q->snapshot) - static_cast<LONGLONG>(lb) : static_cast<LONGLONG>(lb);
            target = next + (Position > 0 ? Position - 1 : Position);
        }
        break;
    }
    }
    // Past the first or last record the seek lands on the last record within the
    // boundary, or fails under EvtSeekStrict (EVT_SEEK_FLAGS remarks).
    if (target < 0 || target >= length) {
        if (strict) return failWith(ERROR_NOT_FOUND, FALSE);
        target = length == 0 ? 0 : std::clamp<LONGLONG>(target, 0, length - 1);
    }
    q->cursor = static_cast<size_t>(target);
    return TRUE;
}

EVT_HANDLE WINAPI EvtOpenChannelEnum(EVT_HANDLE Session, DWORD Flags) {
    if (Session) return failWith<EVT_HANDLE>(RPC_S_UNKNOWN_IF, nullptr);
    if (Flags != 0) return failWith<EVT_HANDLE>(ERROR_INVALID_PARAMETER, nullptr);
    if (DWORD f = injectedFault("EvtOpenChannelEnum", "")) return failWith<EVT_HANDLE>(f, nullptr);
    auto e = std::make_unique<ChannelEnumObj>();
    std::wstring root = storeRoot();
    if (!root.empty())
        for (const auto& n : listChannels(root)) e->names.push_back(toWide(n));
    return registerObject(std::move(e));
}

BOOL WINAPI EvtNextChannelPath(EVT_HANDLE ChannelEnum, DWORD ChannelPathBufferSize, LPWSTR ChannelPathBuffer,
                               PDWORD ChannelPathBufferUsed) {
    ChannelEnumObj* e = lookupAs<ChannelEnumObj>(ChannelEnum);
    if (!e) return failWith(ERROR_INVALID_HANDLE, FALSE);
    if (!ChannelPathBufferUsed || (!ChannelPathBuffer && ChannelPathBufferSize != 0))
        return failWith(ERROR_INVALID_PARAMETER, FALSE);
    if (DWORD f = injectedFault("EvtNextChannelPath", "")) return failWith(f, FALSE);
    std::lock_guard<Mutex> lock(e->mutex);
    if (e->next >= e->names.size()) {
        *ChannelPathBufferUsed = 0;
        return failWith(ERROR_NO_MORE_ITEMS, FALSE);
    }
    const std::wstring& name = e->names[e->next];
    DWORD need = static_cast<DWORD>(name.size() + 1);
    *ChannelPathBufferUsed = need;
    if (ChannelPathBufferSize < need) return failWith(ERROR_INSUFFICIENT_BUFFER, FALSE);
    std::copy(name.c_str(), name.c_str() + need, ChannelPathBuffer);
    ++e->next;
    return TRUE;
}

BOOL WINAPI EvtClose(EVT_HANDLE Object) {
    if (DWORD error = closeObject(Object)) return failWith(error, FALSE);
    return TRUE;
}

}  // namespace evtsim
