#pragma once
// Handle objects and the shared, lazily loaded view of each channel's records.

#include <windows.h>
#include <winevt.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Store.h"
#include "Xml.h"
#include "SrwLock.h"

namespace evtsim {

// The calling thread's own T, made on first use and freed when the thread ends;
// null when no storage is left. Kept in fiber-local storage, whose callback
// frees it: a thread_local object with a destructor is destroyed after its
// storage is gone by this toolchain's runtime, which corrupts the heap of a
// process whose threads come and go.
template <class T>
T* threadOwn() {
    static const DWORD index = ::FlsAlloc([](void* p) { delete static_cast<T*>(p); });
    if (index == FLS_OUT_OF_INDEXES) return nullptr;
    auto* own = static_cast<T*>(::FlsGetValue(index));
    if (!own) {
        own = new T;
        ::FlsSetValue(index, own);
    }
    return own;
}

enum class Kind : uint32_t { Query = 1, Subscription, Event, Bookmark, RenderContext, Publisher, ChannelEnum };

struct QueryObj;

struct Object {
    explicit Object(Kind k) : kind(k) {}
    virtual ~Object() = default;
    const Kind kind;
    uintptr_t handle = 0;  // the value handed out for it
};

// Sets the thread's last error and returns `value`: the service's failure convention.
template <class T>
T failWith(DWORD code, T value) {
    SetLastError(code);
    return value;
}

EVT_HANDLE registerObject(std::unique_ptr<Object> obj);
// An event handed out by a result set: closing the result set closes it too
// (EvtClose remarks: "closing a query or subscription handle also closes the
// event handles that it returned").
EVT_HANDLE registerEvent(QueryObj& parent, std::unique_ptr<Object> event);
// The live object behind a handle, or null for an unknown or closed one.
Object* lookupObject(EVT_HANDLE h);
template <class T>
T* lookupAs(EVT_HANDLE h) {
    Object* o = lookupObject(h);
    return o && T::accepts(o->kind) ? static_cast<T*>(o) : nullptr;
}
// 0, or the error that kept the handle open.
DWORD closeObject(EVT_HANDLE h);

// The bytes of one slice of a records file (whole frames only) and where each
// frame's event text lies in them. The last slice of a log may still grow: the log
// writes past the frames it has handed out and adds frames under its mutex; bytes
// never move.
struct SliceData {
    explicit SliceData(size_t capacity);
    ~SliceData();
    SliceData(const SliceData&) = delete;
    SliceData& operator=(const SliceData&) = delete;

    char* const bytes;  // whole pages (PageAllocator)
    const size_t capacity;
    FrameList frames;  // offsets into `bytes`
};

struct Record {
    uint64_t id;
    const char* xml;  // UTF-8, inside `slice`
    uint32_t size;
    std::shared_ptr<const SliceData> slice;  // keeps `xml` readable
};

// The committed records of one channel incarnation and generation, shared by every
// handle of the process that reads it. The log indexes the file in slices as readers
// reach its end, and keeps the bytes of only the few slices used last; a slice whose
// bytes were dropped is read again when one of its records is asked for.
class ChannelLog {
public:
    ChannelLog(std::wstring dir, ChannelMeta meta);
    const std::wstring& dir() const { return dir_; }
    const std::wstring& path() const { return path_; }
    const ChannelMeta& meta() const { return meta_; }
    const std::wstring& wideName() const { return wideName_; }

    // Indexes frames committed since the last call (up to one slice). False when the
    // file is gone; `partial` tells whether a frame is being written.
    bool refresh(bool& partial);
    uint64_t loadedBytes() const { return loadedBytes_.load(std::memory_order_acquire); }
    size_t size() const;
    // Copies up to `n` records starting at index `from`, walking down when `reverse`
    // (then `from` counts the records below the first one copied). Fewer when the
    // file can no longer be read.
    size_t copy(size_t from, size_t n, bool reverse, Record* out) const;
    // Index of the first record whose id is at least `id`.
    size_t lowerBound(uint64_t id) const;
    bool find(uint64_t id, size_t& index) const;

private:
    struct Slice {
        uint64_t offset;
        uint64_t bytes;
        size_t firstIndex;
        size_t count;
        uint64_t firstId, lastId;
        std::weak_ptr<SliceData> data;  // alive while the log or an event holds it
    };
    using Lock = std::unique_lock<Mutex>;

    size_t sliceOf(size_t index) const;
    // The slice's bytes, read again from the file when nobody holds them (the lock is
    // released meanwhile). Null when they cannot be read.
    std::shared_ptr<SliceData> data(size_t slice, Lock& lock) const;
    // The slice's bytes when the log or an event still holds them, now the ones used
    // last. The caller holds the lock, as for remember().
    std::shared_ptr<SliceData> resident(size_t slice) const;
    // Makes `data` the slice's bytes and the ones used last; the log lets go of the
    // least recently used beyond the few it keeps.
    void remember(size_t slice, const std::shared_ptr<SliceData>& data) const;
    std::shared_ptr<SliceData> readSlice(const Slice& s) const;
    // Index of the first record with an id of at least `id`; `found` when it is `id`.
    size_t locate(uint64_t id, bool& found) const;

    std::wstring dir_, path_, wideName_;
    ChannelMeta meta_;
    mutable Mutex mutex_;  // guards the members below and the frames of a growing slice
    Mutex refreshMutex_;   // one refresh at a time
    mutable std::vector<Slice> slices_;
    size_t records_ = 0;
    mutable std::vector<std::pair<size_t, std::shared_ptr<SliceData>>> recent_;  // least recently used first
    FrameList scanned_;  // refresh's scratch list
    std::atomic<uint64_t> loadedBytes_{0};
};

// Indexes the whole file (reading from the end, seeking to a record); the log keeps
// only the last slices' bytes.
void loadAll(ChannelLog& log);

// The process's view of a channel by name: null with ERROR_EVT_CHANNEL_NOT_FOUND
// when the store has no such channel.
std::shared_ptr<ChannelLog> openChannelLog(const std::wstring& root, const std::wstring& name, DWORD& error);

enum class ChannelChange { None, Cleared, Recreated, Deleted };
// Compares the log with the store; `current` receives the channel's present state.
ChannelChange checkChannel(const ChannelLog& log, ChannelMeta& current);

// One event record's XML, parsed on first use.
struct ParsedEvent {
    XmlNode doc;
    const XmlNode* event = nullptr;
    const XmlNode* system = nullptr;
    const XmlNode* rendering = nullptr;
    std::vector<const XmlNode*> data;  // EventData/Data, or the leaves of UserData, in order
};

struct EventObj : Object {
    EventObj() : Object(Kind::Event) {}
    ~EventObj() override { delete parsed_.load(); }
    static bool accepts(Kind k) { return k == Kind::Event; }
    const ParsedEvent& parsed() const;
    std::string_view xml() const { return {record.xml, record.size}; }
    size_t wideLength() const;

    std::shared_ptr<ChannelLog> log;
    Record record{};
    bool backward = false;
    const QueryObj* parent = nullptr;  // the result set it goes with

private:
    mutable std::atomic<ParsedEvent*> parsed_{nullptr};
    mutable std::atomic<int64_t> wideLength_{-1};
};

struct BookmarkObj : Object {
    BookmarkObj() : Object(Kind::Bookmark) {}
    static bool accepts(Kind k) { return k == Kind::Bookmark; }
    struct Entry {
        std::wstring channel;
        uint64_t recordId;
    };
    Mutex mutex;
    std::vector<Entry> entries;
    int current = -1;
    bool backward = false;
};

struct QueryObj : Object {
    explicit QueryObj(Kind k) : Object(k) {}
    ~QueryObj() override;
    static bool accepts(Kind k) { return k == Kind::Query || k == Kind::Subscription; }
    bool subscription() const { return kind == Kind::Subscription; }

    Mutex mutex;
    std::wstring root, channel;
    std::shared_ptr<ChannelLog> log;
    bool reverse = false;
    size_t snapshot = 0;  // reverse queries: records present when made
    size_t cursor = 0;    // position in query order of the next record
    uint64_t lastId = 0;  // last record handed out (subscriptions resume after it)
    DWORD ownerThread = 0;     // queries: the thread that made it, the only one that may use it
    bool stale = false;        // the log was cleared under it: only a new handle reads on
    bool deliveredSinceIdle = false;  // subscriptions: events handed out since the last empty pull
    HANDLE signal = nullptr;
    // The records file as the signal watcher last saw it: the service signals a
    // subscription only for records written after it was made.
    uint64_t seenIncarnation = 0, seenGeneration = 0, seenBytes = 0;
};

// Subscriptions whose signal the watcher keeps set while records are waiting.
void watchSubscription(QueryObj* q);
void unwatchSubscription(QueryObj* q);
// Whether EvtNext fails a call that would carry more than the batch bound
// (systems before Windows 11) instead of returning a short batch.
bool batchLimitFails();

// Where a subscription starts watching for new records: what is on disk now.
void markSignalBaseline(QueryObj& q);

}  // namespace evtsim
