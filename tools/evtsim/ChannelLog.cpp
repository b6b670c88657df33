// Each channel's records as the process sees them: a table of the file's slices,
// the bytes of the few slices used last, and the process-wide cache of logs.
#include <algorithm>
#include <cwctype>
#include <map>

#include "Evtsim.h"
#include "Internal.h"
#include "Text.h"
#include "SrwLock.h"

namespace evtsim {

namespace {

constexpr size_t kDefaultSliceBytes = 4u << 20;
constexpr size_t kRecentSlices = 4;  // slices a log keeps in memory for its readers

std::atomic<size_t> g_sliceBytes{0};
std::atomic<size_t> g_residentBytes{0};

size_t sliceBytes() {
    size_t n = g_sliceBytes.load(std::memory_order_relaxed);
    return n ? n : kDefaultSliceBytes;
}

HANDLE openForReading(const std::wstring& path) {
    return CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                       OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
}

// Reads up to `n` bytes at `offset`; returns how many were read.
size_t readAt(HANDLE h, uint64_t offset, char* out, size_t n) {
    size_t total = 0;
    while (total < n) {
        OVERLAPPED ov{};
        ov.Offset = static_cast<DWORD>(offset + total);
        ov.OffsetHigh = static_cast<DWORD>((offset + total) >> 32);
        DWORD got = 0;
        DWORD ask = static_cast<DWORD>(std::min<size_t>(n - total, 1u << 30));
        if (!ReadFile(h, out + total, ask, &got, &ov) || got == 0) break;
        total += got;
    }
    return total;
}

// A slice with room for `need` bytes holding the first `keep` bytes and the frames
// of `old` (null: an empty one). Growth doubles so a slice fed a record at a time is
// copied a few times only.
std::shared_ptr<SliceData> grown(const std::shared_ptr<SliceData>& old, size_t keep, size_t need, size_t slice) {
    size_t capacity = old ? std::max(need, std::min(2 * old->capacity, slice)) : need;
    auto fresh = std::make_shared<SliceData>(capacity);
    if (old) {
        std::copy(old->bytes, old->bytes + keep, fresh->bytes);
        fresh->frames = old->frames;
    }
    return fresh;
}

}  // namespace

size_t residentRecordBytes() { return g_residentBytes.load(); }

void setSliceBytes(size_t bytes) { g_sliceBytes.store(bytes); }

SliceData::SliceData(size_t size) : bytes(PageAllocator<char>().allocate(size)), capacity(size) {
    g_residentBytes += capacity;
    // Written once before ReadFile fills it. Under Wine, ReadFile into pages
    // never touched was seen (perf, kernel stacks) to fault on each twice: the
    // shared zero page is mapped, then copied on a write, and every copy
    // flushes the page from the other cores running the process.
    for (size_t at = 0; at < capacity; at += 4096) bytes[at] = 0;
}

SliceData::~SliceData() {
    PageAllocator<char>().deallocate(bytes, capacity);
    g_residentBytes -= capacity;
}

ChannelLog::ChannelLog(std::wstring dir, ChannelMeta meta)
    : dir_(std::move(dir)), path_(recordsPath(dir_, meta)), wideName_(toWide(meta.name)), meta_(std::move(meta)) {}

bool ChannelLog::refresh(bool& partial) {
    std::lock_guard<Mutex> serial(refreshMutex_);
    partial = false;
    FileCloser file(openForReading(path_));
    if (file.h == INVALID_HANDLE_VALUE) return false;
    LARGE_INTEGER size{};
    if (!GetFileSizeEx(file.h, &size)) return false;
    const uint64_t from = loadedBytes_.load();
    const uint64_t available = static_cast<uint64_t>(size.QuadPart) > from ? static_cast<uint64_t>(size.QuadPart) - from : 0;
    if (available == 0) return true;
    const size_t slice = sliceBytes();
    // A live channel gains a few records at a time: its last slice takes them while it
    // is short and in memory, so the table does not gain an entry per record.
    std::shared_ptr<SliceData> data;
    size_t at = 0;
    {
        Lock lock(mutex_);
        if (!slices_.empty() && slices_.back().bytes < slice / 2 && (data = resident(slices_.size() - 1)))
            at = static_cast<size_t>(slices_.back().bytes);
    }
    const bool extend = data != nullptr;
    size_t want = static_cast<size_t>(std::min<uint64_t>(available, slice - at));
    bool corrupt = false;
    size_t used = 0;
    while (true) {
        if (!data || at + want > data->capacity) data = grown(data, at, at + want, slice);
        char* dest = data->bytes + at;
        size_t got = readAt(file.h, from, dest, want);
        scanned_.clear();
        used = scanFrames(std::string_view(dest, got), scanned_, partial, corrupt);
        // A single frame larger than the slice: read on until it is whole.
        if (scanned_.empty() && partial && !corrupt && got == want && want < available && got >= kFrameHeaderSize) {
            auto len = parseUnsigned(std::string_view(dest + 26, 10));
            uint64_t whole = std::min<uint64_t>(available, kFrameHeaderSize + (len ? *len : 0) + kFrameTrailer.size());
            if (whole > want) {
                want = static_cast<size_t>(whole);
                continue;
            }
        }
        break;
    }
    Lock lock(mutex_);
    if (scanned_.empty()) {
        if (extend) remember(slices_.size() - 1, data);  // keep a grown copy for the next try
        return true;
    }
    for (FrameRef& f : scanned_) f.payloadOffset += at;
    if (extend) {
        Slice& s = slices_.back();
        s.bytes += used;
        s.count += scanned_.size();
        s.lastId = scanned_.back().recordId;
    } else {
        slices_.push_back({from, used, records_, scanned_.size(), scanned_.front().recordId, scanned_.back().recordId, {}});
    }
    data->frames.insert(data->frames.end(), scanned_.begin(), scanned_.end());
    records_ += scanned_.size();
    remember(slices_.size() - 1, data);
    loadedBytes_.store(from + used, std::memory_order_release);
    return true;
}

void loadAll(ChannelLog& log) {
    bool partial = false;
    uint64_t before;
    do {
        before = log.loadedBytes();
        if (!log.refresh(partial)) return;
    } while (log.loadedBytes() != before);
}

size_t ChannelLog::size() const {
    Lock lock(mutex_);
    return records_;
}

size_t ChannelLog::sliceOf(size_t index) const {
    auto it = std::upper_bound(slices_.begin(), slices_.end(), index,
                               [](size_t i, const Slice& s) { return i < s.firstIndex; });
    return static_cast<size_t>(it - slices_.begin()) - 1;
}

std::shared_ptr<SliceData> ChannelLog::resident(size_t slice) const {
    auto it = std::find_if(recent_.begin(), recent_.end(), [&](const auto& r) { return r.first == slice; });
    if (it != recent_.end()) {
        std::rotate(it, it + 1, recent_.end());
        return recent_.back().second;
    }
    // Events handed out may still hold it.
    std::shared_ptr<SliceData> held = slices_[slice].data.lock();
    if (held) remember(slice, held);
    return held;
}

void ChannelLog::remember(size_t slice, const std::shared_ptr<SliceData>& data) const {
    slices_[slice].data = data;
    auto it = std::find_if(recent_.begin(), recent_.end(), [&](const auto& r) { return r.first == slice; });
    if (it != recent_.end()) recent_.erase(it);
    recent_.emplace_back(slice, data);
    if (recent_.size() > kRecentSlices) recent_.erase(recent_.begin());
}

std::shared_ptr<SliceData> ChannelLog::data(size_t slice, Lock& lock) const {
    while (true) {
        if (auto d = resident(slice)) return d;
        Slice wanted = slices_[slice];
        lock.unlock();
        auto d = readSlice(wanted);
        lock.lock();
        if (!d) return nullptr;
        if (auto other = resident(slice)) return other;  // another reader was quicker
        if (d->frames.size() == slices_[slice].count) {
            remember(slice, d);
            return d;
        }
        // The slice took more records meanwhile: read it again.
    }
}

std::shared_ptr<SliceData> ChannelLog::readSlice(const Slice& s) const {
    FileCloser file(openForReading(path_));
    if (file.h == INVALID_HANDLE_VALUE) return nullptr;
    auto d = std::make_shared<SliceData>(static_cast<size_t>(s.bytes));
    if (readAt(file.h, s.offset, d->bytes, d->capacity) != d->capacity) return nullptr;
    bool partial = false, corrupt = false;
    d->frames.reserve(s.count);
    if (scanFrames(std::string_view(d->bytes, d->capacity), d->frames, partial, corrupt) != d->capacity ||
        d->frames.size() != s.count || d->frames.front().recordId != s.firstId || d->frames.back().recordId != s.lastId)
        return nullptr;
    return d;
}

size_t ChannelLog::copy(size_t from, size_t n, bool reverse, Record* out) const {
    Lock lock(mutex_);
    size_t copied = 0;
    while (copied < n && (reverse ? from > 0 && from <= records_ : from < records_)) {
        const size_t index = reverse ? from - 1 : from;
        const size_t s = sliceOf(index);
        std::shared_ptr<SliceData> d = data(s, lock);
        if (!d) break;
        const size_t local = index - slices_[s].firstIndex;
        const size_t take = std::min(n - copied, reverse ? local + 1 : slices_[s].count - local);
        for (size_t i = 0; i < take; ++i) {
            const FrameRef& f = d->frames[reverse ? local - i : local + i];
            out[copied++] = Record{f.recordId, d->bytes + f.payloadOffset, f.payloadSize, d};
        }
        from = reverse ? from - take : from + take;
    }
    return copied;
}

size_t ChannelLog::locate(uint64_t id, bool& found) const {
    Lock lock(mutex_);
    found = false;
    auto it = std::lower_bound(slices_.begin(), slices_.end(), id, [](const Slice& s, uint64_t v) { return s.lastId < v; });
    if (it == slices_.end()) return records_;
    if (id <= it->firstId) {
        found = id == it->firstId;
        return it->firstIndex;
    }
    // The store numbers records one by one; then a record's place follows from its id.
    if (it->lastId - it->firstId + 1 == it->count) {
        found = true;
        return it->firstIndex + static_cast<size_t>(id - it->firstId);
    }
    const size_t s = static_cast<size_t>(it - slices_.begin());
    std::shared_ptr<SliceData> d = data(s, lock);
    if (!d) return slices_[s].firstIndex;
    auto f = std::lower_bound(d->frames.begin(), d->frames.end(), id,
                              [](const FrameRef& fr, uint64_t v) { return fr.recordId < v; });
    found = f != d->frames.end() && f->recordId == id;
    return slices_[s].firstIndex + static_cast<size_t>(f - d->frames.begin());
}

size_t ChannelLog::lowerBound(uint64_t id) const {
    bool found = false;
    return locate(id, found);
}

bool ChannelLog::find(uint64_t id, size_t& index) const {
    bool found = false;
    index = locate(id, found);
    return found;
}

namespace {

struct LogCache {
    Mutex mutex;
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
    std::lock_guard<Mutex> lock(cache.mutex);
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

}  // namespace evtsim
