#include <algorithm>
#include <atomic>
#include <string_view>
#include <new>
#include <vector>

#include "Evtsim.h"
#include "Internal.h"
#include "SrwLock.h"
#include "Text.h"

namespace evtsim {

// ---- handles ---------------------------------------------------------------

namespace {

// Handles name slots of a table. A handle's value carries its slot and the
// slot's generation, so a handle closed by mistake twice (or one that went with
// its result set) can never reach another object: values are never used twice.
// Every call looks its handle up, and the look-up takes no lock and writes
// nothing, each slot on a line of its own: threads rendering different events
// of one result set write no line in common (under a lock, every look-up moved
// the lock's line between their cores). Making and closing handles take the
// table's lock.
struct alignas(64) Slot {
    std::atomic<uintptr_t> handle{0};  // the handle that names it now, 0 while free
    std::atomic<Object*> object{nullptr};
    uint32_t generation = 0;  // under the lock
    uint32_t nextFree = 0;    // under the lock, while free: the next free slot + 1, 0 for none
};

struct Registry {
    static constexpr uint32_t kChunkSlots = 1u << 14;
    static constexpr uint32_t kChunks = 1u << 12;  // 64 Mi live handles at most

    SRWLOCK lock = SRWLOCK_INIT;
    std::atomic<Slot*> chunks[kChunks] = {};
    uint32_t slotsMade = 0;  // under the lock
    uint32_t firstFree = 0;  // under the lock: a free slot + 1, 0 for none
    std::atomic<size_t> live{0};

    static uintptr_t handleOf(uint32_t index, uint32_t generation) {
        return (static_cast<uintptr_t>(generation) << 32) | (static_cast<uintptr_t>(index + 1) << 2);
    }
    static uint32_t indexOf(uintptr_t handle) { return static_cast<uint32_t>((handle & 0xFFFFFFFFu) >> 2) - 1; }
    // The slot a handle value names, or null for a value no handle has.
    Slot* slotOf(uintptr_t handle) const {
        const uintptr_t low = handle & 0xFFFFFFFFu;
        if ((low & 3) != 0 || low == 0 || (handle >> 32) == 0) return nullptr;
        const uint32_t index = indexOf(handle);
        if (index >= kChunkSlots * kChunks) return nullptr;
        Slot* chunk = chunks[index / kChunkSlots].load(std::memory_order_acquire);
        return chunk ? &chunk[index % kChunkSlots] : nullptr;
    }
    Slot& slotAt(uint32_t index) {
        return chunks[index / kChunkSlots].load(std::memory_order_relaxed)[index % kChunkSlots];
    }
    // A free slot's index, under the lock; throws when the table is full.
    uint32_t takeSlot() {
        if (firstFree) {
            const uint32_t index = firstFree - 1;
            firstFree = slotAt(index).nextFree;
            return index;
        }
        if (slotsMade == kChunkSlots * kChunks) throw std::bad_alloc();
        if (slotsMade % kChunkSlots == 0)
            chunks[slotsMade / kChunkSlots].store(new Slot[kChunkSlots], std::memory_order_release);
        return slotsMade++;
    }
    // Frees a slot, under the lock.
    void release(Slot& slot, uint32_t index) {
        slot.handle.store(0, std::memory_order_release);
        slot.object.store(nullptr, std::memory_order_relaxed);
        slot.nextFree = firstFree;
        firstFree = index + 1;
        live.fetch_sub(1, std::memory_order_relaxed);
    }
};

Registry& registry() {
    static Registry* r = new Registry;  // outlives static destruction: handles may close late
    return *r;
}

struct RootState {
    SRWLOCK lock = SRWLOCK_INIT;  // read by every rendering of event data
    std::wstring root;
    bool overridden = false;
};

RootState& rootState() {
    static RootState* s = new RootState;
    return *s;
}

}  // namespace

namespace {

// EVTSIM_STATS names a file that gets "handles=<open handles>" once a second,
// for long runs that watch a reader's handles from outside (Wine counts no
// process's handles).
DWORD WINAPI statsLoop(void* path) {
    const std::wstring file(static_cast<const wchar_t*>(path));
    for (;;) {
        const std::string line = "handles=" + std::to_string(openHandleCount()) + "\n";
        const HANDLE h = CreateFileW(file.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                                     CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
        if (h != INVALID_HANDLE_VALUE) {
            DWORD written = 0;
            WriteFile(h, line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
            CloseHandle(h);
        }
        Sleep(1000);
    }
}

void startStatsOnce() {
    static std::once_flag once;
    std::call_once(once, [] {
        static wchar_t path[MAX_PATH];
        const DWORD n = GetEnvironmentVariableW(L"EVTSIM_STATS", path, MAX_PATH);
        if (n == 0 || n >= MAX_PATH) return;
        if (HANDLE t = CreateThread(nullptr, 0, statsLoop, path, 0, nullptr)) CloseHandle(t);
    });
}

}  // namespace

EVT_HANDLE registerObject(std::unique_ptr<Object> obj) {
    startStatsOnce();
    Registry& r = registry();
    ExclusiveLock lock(r.lock);
    const uint32_t index = r.takeSlot();
    Slot& slot = r.slotAt(index);
    if (++slot.generation == 0) slot.generation = 1;  // generation 0 would name no handle
    const uintptr_t h = Registry::handleOf(index, slot.generation);
    obj->handle = h;
    slot.object.store(obj.release(), std::memory_order_relaxed);
    slot.handle.store(h, std::memory_order_release);
    r.live.fetch_add(1, std::memory_order_relaxed);
    return reinterpret_cast<EVT_HANDLE>(h);
}

Object* lookupObject(EVT_HANDLE h) {
    const auto handle = reinterpret_cast<uintptr_t>(h);
    Slot* slot = registry().slotOf(handle);
    if (!slot || slot->handle.load(std::memory_order_acquire) != handle) return nullptr;
    Object* obj = slot->object.load(std::memory_order_acquire);
    // Closed (and perhaps given to another object) meanwhile: the handle is gone.
    return slot->handle.load(std::memory_order_acquire) == handle ? obj : nullptr;
}

EVT_HANDLE registerEvent(QueryObj& parent, std::unique_ptr<Object> event) {
    static_cast<EventObj*>(event.get())->parent = &parent;
    return registerObject(std::move(event));
}

DWORD closeObject(EVT_HANDLE h) {
    Registry& r = registry();
    const auto handle = reinterpret_cast<uintptr_t>(h);
    Object* obj = nullptr;
    std::vector<Object*> children;
    {
        ExclusiveLock lock(r.lock);
        Slot* slot = r.slotOf(handle);
        if (!slot || slot->handle.load(std::memory_order_relaxed) != handle) return ERROR_INVALID_HANDLE;
        obj = slot->object.load(std::memory_order_relaxed);
        if (obj->kind == Kind::Query && static_cast<QueryObj*>(obj)->ownerThread != GetCurrentThreadId())
            return ERROR_INVALID_THREAD_ID;
        r.release(*slot, Registry::indexOf(handle));
        if (obj->kind == Kind::Query || obj->kind == Kind::Subscription) {
            // The events it returned go with it. Rare enough to look through them all.
            for (uint32_t i = 0; i < r.slotsMade; ++i) {
                Slot& other = r.slotAt(i);
                if (!other.handle.load(std::memory_order_relaxed)) continue;
                Object* child = other.object.load(std::memory_order_relaxed);
                if (child->kind == Kind::Event && static_cast<EventObj*>(child)->parent == obj) {
                    children.push_back(child);
                    r.release(other, i);
                }
            }
        }
    }
    delete obj;
    for (Object* o : children) delete o;
    return 0;
}

size_t openHandleCount() { return registry().live.load(std::memory_order_relaxed); }

void setStoreRoot(const std::wstring& root) {
    RootState& s = rootState();
    ExclusiveLock lock(s.lock);
    s.root = root;
    s.overridden = !root.empty();
}

std::wstring storeRoot() {
    RootState& s = rootState();
    SharedLock lock(s.lock);
    return s.overridden ? s.root : storeRootFromEnvironment();
}

namespace {
std::atomic<int> batchLimitMode{static_cast<int>(BatchLimit::FromEnvironment)};
}  // namespace

void setBatchLimit(BatchLimit mode) { batchLimitMode = static_cast<int>(mode); }

bool batchLimitFails() {
    switch (static_cast<BatchLimit>(batchLimitMode.load())) {
    case BatchLimit::Short: return false;
    case BatchLimit::Fail: return true;
    case BatchLimit::FromEnvironment: break;
    }
    static const bool fails = [] {
        char value[16];
        const DWORD n = GetEnvironmentVariableA("EVTSIM_BATCH_LIMIT", value, sizeof value);
        return n > 0 && n < sizeof value && std::string_view(value, n) == "fail";
    }();
    return fails;
}

// ---- events --------------------------------------------------------------------

namespace {

// Parses into `into`, written over: a parse kept for the next event costs no
// allocation once the events' shapes repeat.
void parseEvent(std::string_view xml, ParsedEvent& into) {
    into.event = into.system = into.rendering = nullptr;
    into.data.clear();
    if (parseXml(xml, into.doc) && into.doc.children[0].localName() == "Event") {
        into.event = &into.doc.children[0];
        into.system = into.event->child("System");
        into.rendering = into.event->child("RenderingInfo");
        if (const XmlNode* ed = into.event->child("EventData")) {
            for (const auto& c : ed->children)
                if (c.localName() == "Data") into.data.push_back(&c);
        } else if (const XmlNode* ud = into.event->child("UserData"); ud && !ud->children.empty()) {
            for (const auto& c : ud->children[0].children) into.data.push_back(&c);
        }
    }
}

// The events the calling thread parsed last. The service keeps an event in its
// binary form however long a reader holds its handle, so a handle keeps no parse
// of its own: the calls made on one event in a row (its values, names, message)
// find it here, and a reader holding thousands of handles holds no more memory
// than their records (threadOwn).
struct ParseCache {
    struct Slot {
        uintptr_t handle = 0;  // never used twice, so a closed event cannot be mistaken
        std::unique_ptr<ParsedEvent> parsed;
    };
    Slot slots[4];
    unsigned next = 0;
};

}  // namespace

const ParsedEvent& EventObj::parsed() const {
    if (ParseCache* cache = threadOwn<ParseCache>()) {
        for (auto& slot : cache->slots)
            if (slot.handle == handle && slot.parsed) return *slot.parsed;
        ParseCache::Slot& slot = cache->slots[cache->next++ % 4];
        slot.handle = 0;  // until the parse is whole: one that threw is not found again
        if (!slot.parsed) slot.parsed = std::make_unique<ParsedEvent>();
        parseEvent(xml(), *slot.parsed);
        slot.handle = handle;
        return *slot.parsed;
    }
    // No thread storage: the handle keeps its parse.
    if (ParsedEvent* p = parsed_.load(std::memory_order_acquire)) return *p;
    auto fresh = std::make_unique<ParsedEvent>();
    parseEvent(xml(), *fresh);
    ParsedEvent* expected = nullptr;
    if (parsed_.compare_exchange_strong(expected, fresh.get(), std::memory_order_acq_rel)) return *fresh.release();
    return *expected;
}

size_t EventObj::wideLength() const {
    int64_t n = wideLength_.load(std::memory_order_relaxed);
    if (n < 0) {
        n = static_cast<int64_t>(evtsim::wideLength(xml()));
        wideLength_.store(n, std::memory_order_relaxed);
    }
    return static_cast<size_t>(n);
}

// ---- subscription watcher ------------------------------------------------------

namespace {

struct Watcher {
    Mutex mutex;
    std::vector<QueryObj*> subs;
    HANDLE wake = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    bool started = false;
};

Watcher& watcher() {
    static Watcher* w = new Watcher;  // its thread runs until the process ends
    return *w;
}

uint64_t fileBytes(const std::wstring& path, bool& exists) {
    WIN32_FILE_ATTRIBUTE_DATA attr;
    exists = GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &attr) != FALSE;
    return exists ? (static_cast<uint64_t>(attr.nFileSizeHigh) << 32) | attr.nFileSizeLow : 0;
}

// True when records were written to the subscription's channel since the watcher
// last looked, also into the file that replaced a cleared one. The service sets
// the signal only then: never for the backlog that existed when the
// subscription was made, and it never resets it (EvtSubscribe: "the service
// sets the event when events ... are written"; the client resets it). Caller
// holds q.mutex.
bool newRecordsWritten(QueryObj& q) {
    const ChannelLog& log = *q.log;
    bool exists = false;
    uint64_t bytes = 0;
    if (q.seenIncarnation == log.meta().incarnation && q.seenGeneration == log.meta().generation) {
        bytes = fileBytes(log.path(), exists);
        if (exists) {
            const bool grew = bytes > q.seenBytes;
            q.seenBytes = bytes;
            return grew;
        }
    }
    ChannelMeta now;
    if (!readChannelMeta(log.dir(), now)) return false;  // deleted: nothing is written to it
    bytes = fileBytes(recordsPath(log.dir(), now), exists);
    if (now.incarnation != q.seenIncarnation || now.generation != q.seenGeneration) {
        q.seenIncarnation = now.incarnation;
        q.seenGeneration = now.generation;
        q.seenBytes = 0;
    }
    const bool grew = bytes > q.seenBytes;
    q.seenBytes = bytes;
    return grew;
}

// How often the watcher looks at the files: Windows signals a subscriber within a
// moment of the write, and a reader's latency must not be the stand-in's.
constexpr DWORD kWatchPeriodMs = 2;

DWORD WINAPI watchLoop(void*) {
    Watcher& w = watcher();
    while (true) {
        bool any;
        {
            std::lock_guard<Mutex> lock(w.mutex);
            any = !w.subs.empty();
            for (QueryObj* q : w.subs) {
                std::unique_lock<Mutex> ql(q->mutex, std::try_to_lock);
                if (ql.owns_lock() && newRecordsWritten(*q)) SetEvent(q->signal);
            }
        }
        WaitForSingleObject(w.wake, any ? kWatchPeriodMs : INFINITE);
    }
}

}  // namespace

void watchSubscription(QueryObj* q) {
    Watcher& w = watcher();
    std::lock_guard<Mutex> lock(w.mutex);
    w.subs.push_back(q);
    if (!w.started) {
        HANDLE t = CreateThread(nullptr, 0, watchLoop, nullptr, 0, nullptr);
        if (t) {
            CloseHandle(t);
            w.started = true;
        }
    }
    SetEvent(w.wake);
}

void unwatchSubscription(QueryObj* q) {
    Watcher& w = watcher();
    std::lock_guard<Mutex> lock(w.mutex);
    w.subs.erase(std::remove(w.subs.begin(), w.subs.end(), q), w.subs.end());
}

void markSignalBaseline(QueryObj& q) {
    q.seenIncarnation = q.log->meta().incarnation;
    q.seenGeneration = q.log->meta().generation;
    bool exists = false;
    q.seenBytes = fileBytes(q.log->path(), exists);
}

QueryObj::~QueryObj() {
    if (subscription()) unwatchSubscription(this);
}

}  // namespace evtsim
