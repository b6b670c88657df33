#include <algorithm>
#include <cwctype>
#include <map>
#include <unordered_set>

#include "Evtsim.h"
#include "Internal.h"
#include "Text.h"

namespace evtsim {

// ---- handles ---------------------------------------------------------------

namespace {

struct Registry {
    std::mutex mutex;
    std::unordered_set<Object*> live;
};

Registry& registry() {
    static Registry* r = new Registry;  // outlives static destruction: handles may close late
    return *r;
}

struct RootState {
    std::mutex mutex;
    std::wstring root;
    bool overridden = false;
};

RootState& rootState() {
    static RootState* s = new RootState;
    return *s;
}

}  // namespace

EVT_HANDLE registerObject(std::unique_ptr<Object> obj) {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    Object* raw = obj.release();
    r.live.insert(raw);
    return reinterpret_cast<EVT_HANDLE>(raw);
}

Object* lookupObject(EVT_HANDLE h) {
    if (!h) return nullptr;
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    auto it = r.live.find(reinterpret_cast<Object*>(h));
    return it == r.live.end() ? nullptr : *it;
}

bool closeObject(EVT_HANDLE h) {
    if (!h) return false;
    Object* obj = nullptr;
    {
        Registry& r = registry();
        std::lock_guard<std::mutex> lock(r.mutex);
        auto it = r.live.find(reinterpret_cast<Object*>(h));
        if (it == r.live.end()) return false;
        obj = *it;
        r.live.erase(it);
    }
    delete obj;
    return true;
}

size_t openHandleCount() {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    return r.live.size();
}

void setStoreRoot(const std::wstring& root) {
    RootState& s = rootState();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.root = root;
    s.overridden = !root.empty();
}

std::wstring storeRoot() {
    RootState& s = rootState();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.overridden ? s.root : storeRootFromEnvironment();
}

// ---- channel logs ------------------------------------------------------------

ChannelLog::ChannelLog(std::wstring dir, ChannelMeta meta)
    : dir_(std::move(dir)), path_(recordsPath(dir_, meta)), wideName_(toWide(meta.name)), meta_(std::move(meta)) {}

bool ChannelLog::refresh(bool& partial) {
    std::lock_guard<std::mutex> lock(refreshMutex_);
    partial = false;
    HANDLE h = CreateFileW(path_.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                           OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (h == INVALID_HANDLE_VALUE) return false;
    LARGE_INTEGER size{};
    GetFileSizeEx(h, &size);
    uint64_t from = loadedBytes_.load();
    uint64_t available = static_cast<uint64_t>(size.QuadPart) > from ? static_cast<uint64_t>(size.QuadPart) - from : 0;
    if (available == 0) {
        CloseHandle(h);
        return true;
    }
    // Large files are taken in slices so a reader near the start does not wait for all of it.
    constexpr uint64_t kSlice = 16u << 20;
    auto chunk = std::make_unique<std::string>();
    std::vector<FrameRef> frames;
    bool corrupt = false;
    size_t used = 0;
    uint64_t want = std::min(available, kSlice);
    while (true) {
        size_t have = chunk->size();
        chunk->resize(static_cast<size_t>(want));
        OVERLAPPED ov{};
        DWORD got = 0;
        size_t total = have;
        while (total < want) {
            ov.Offset = static_cast<DWORD>(from + total);
            ov.OffsetHigh = static_cast<DWORD>((from + total) >> 32);
            if (!ReadFile(h, chunk->data() + total, static_cast<DWORD>(want - total), &got, &ov) || got == 0) break;
            total += got;
        }
        chunk->resize(total);
        frames.clear();
        used = scanFrames(*chunk, frames, partial, corrupt);
        // A single frame larger than the slice: read on until it is whole.
        if (frames.empty() && partial && !corrupt && total == want && want < available && chunk->size() >= kFrameHeaderSize) {
            auto len = parseUnsigned(std::string_view(*chunk).substr(26, 10));
            want = std::min<uint64_t>(available, kFrameHeaderSize + (len ? *len : 0) + kFrameTrailer.size());
            if (want > total) continue;
        }
        break;
    }
    CloseHandle(h);
    if (frames.empty()) return true;
    chunk->resize(used);
    {
        std::unique_lock<std::shared_mutex> w(mutex_);
        const char* base = chunk->data();
        records_.reserve(records_.size() + frames.size());
        for (const FrameRef& f : frames) records_.push_back({f.recordId, base + f.payloadOffset, f.payloadSize});
        chunks_.push_back(std::move(chunk));
    }
    loadedBytes_.store(from + used, std::memory_order_release);
    return true;
}

size_t ChannelLog::size() const {
    std::shared_lock<std::shared_mutex> r(mutex_);
    return records_.size();
}

size_t ChannelLog::copy(size_t from, size_t n, bool reverse, Record* out) const {
    std::shared_lock<std::shared_mutex> r(mutex_);
    size_t copied = 0;
    if (reverse) {
        // `from` counts records still to walk down from: the next is records_[from - 1].
        while (copied < n && from > 0 && from <= records_.size()) out[copied++] = records_[--from];
    } else {
        while (copied < n && from < records_.size()) out[copied++] = records_[from++];
    }
    return copied;
}

size_t ChannelLog::lowerBound(uint64_t id) const {
    std::shared_lock<std::shared_mutex> r(mutex_);
    return static_cast<size_t>(std::lower_bound(records_.begin(), records_.end(), id,
                                                [](const Record& rec, uint64_t v) { return rec.id < v; }) -
                               records_.begin());
}

bool ChannelLog::find(uint64_t id, size_t& index) const {
    index = lowerBound(id);
    std::shared_lock<std::shared_mutex> r(mutex_);
    return index < records_.size() && records_[index].id == id;
}

namespace {

struct LogCache {
    std::mutex mutex;
    std::map<std::wstring, std::weak_ptr<ChannelLog>> logs;
};

LogCache& logCache() {
    static LogCache* c = new LogCache;
    return *c;
}

}  // namespace

std::shared_ptr<ChannelLog> openChannelLog(const std::wstring& root, const std::wstring& name, DWORD& error) {
    error = ERROR_EVT_CHANNEL_NOT_FOUND;
    if (root.empty() || name.empty()) return nullptr;
    std::wstring dir = channelDir(root, toUtf8(name));
    ChannelMeta meta;
    if (!readChannelMeta(dir, meta)) return nullptr;
    std::wstring key = recordsPath(dir, meta);
    for (auto& c : key) c = static_cast<wchar_t>(towlower(c));
    LogCache& cache = logCache();
    std::lock_guard<std::mutex> lock(cache.mutex);
    for (auto it = cache.logs.begin(); it != cache.logs.end();)  // drop logs nobody reads
        it = it->second.expired() ? cache.logs.erase(it) : std::next(it);
    if (auto existing = cache.logs[key].lock()) return existing;
    auto log = std::make_shared<ChannelLog>(dir, meta);
    cache.logs[key] = log;
    error = 0;
    return log;
}

ChannelChange checkChannel(const ChannelLog& log, ChannelMeta& current) {
    current = log.meta();
    if (GetFileAttributesW(log.path().c_str()) != INVALID_FILE_ATTRIBUTES) return ChannelChange::None;
    if (!readChannelMeta(log.dir(), current)) return ChannelChange::Deleted;
    if (current.incarnation != log.meta().incarnation) return ChannelChange::Recreated;
    if (current.generation != log.meta().generation) return ChannelChange::Cleared;
    return ChannelChange::None;
}

// ---- events --------------------------------------------------------------------

const ParsedEvent& EventObj::parsed() const {
    if (ParsedEvent* p = parsed_.load(std::memory_order_acquire)) return *p;
    auto fresh = std::make_unique<ParsedEvent>();
    if (parseXml(xml(), fresh->doc) && fresh->doc.children[0].localName() == "Event") {
        fresh->event = &fresh->doc.children[0];
        fresh->system = fresh->event->child("System");
        fresh->rendering = fresh->event->child("RenderingInfo");
        if (const XmlNode* ed = fresh->event->child("EventData")) {
            for (const auto& c : ed->children)
                if (c.localName() == "Data") fresh->data.push_back(&c);
        } else if (const XmlNode* ud = fresh->event->child("UserData"); ud && !ud->children.empty()) {
            for (const auto& c : ud->children[0].children) fresh->data.push_back(&c);
        }
    }
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
    std::mutex mutex;
    std::vector<QueryObj*> subs;
    HANDLE wake = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    bool started = false;
};

Watcher& watcher() {
    static Watcher* w = new Watcher;  // its thread runs until the process ends
    return *w;
}

bool recordsWaiting(QueryObj& q) {
    if (q.cursor < q.log->size()) return true;
    WIN32_FILE_ATTRIBUTE_DATA attr;
    if (!GetFileAttributesExW(q.log->path().c_str(), GetFileExInfoStandard, &attr)) return true;  // cleared or gone
    uint64_t size = (static_cast<uint64_t>(attr.nFileSizeHigh) << 32) | attr.nFileSizeLow;
    return size > q.log->loadedBytes();
}

DWORD WINAPI watchLoop(void*) {
    Watcher& w = watcher();
    while (true) {
        bool any;
        {
            std::lock_guard<std::mutex> lock(w.mutex);
            any = !w.subs.empty();
            for (QueryObj* q : w.subs) {
                std::unique_lock<std::mutex> ql(q->mutex, std::try_to_lock);
                if (ql.owns_lock() && recordsWaiting(*q)) SetEvent(q->signal);
            }
        }
        WaitForSingleObject(w.wake, any ? 15 : INFINITE);
    }
}

}  // namespace

void watchSubscription(QueryObj* q) {
    Watcher& w = watcher();
    std::lock_guard<std::mutex> lock(w.mutex);
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
    std::lock_guard<std::mutex> lock(w.mutex);
    w.subs.erase(std::remove(w.subs.begin(), w.subs.end(), q), w.subs.end());
}

void updateSignal(QueryObj& q) {
    if (!q.signal) return;
    if (recordsWaiting(q)) {
        SetEvent(q.signal);
    } else {
        ResetEvent(q.signal);
        // A record committed between the check and the reset must not be missed.
        if (recordsWaiting(q)) SetEvent(q.signal);
    }
}

QueryObj::~QueryObj() {
    if (subscription()) unwatchSubscription(this);
}

}  // namespace evtsim
