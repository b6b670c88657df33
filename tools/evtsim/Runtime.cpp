#include <algorithm>
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
