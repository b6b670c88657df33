#pragma once
// One event as the channel reader hands it to the monitor, and the batch that
// carries events from the reader to the writer.

#include <cstdint>
#include <algorithm>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "eventlog/EvtApi.h"
#include "filter/FilterRules.h"

namespace skorva {

// Field names excluded from the classic text (evt_exclude_fields).
using FieldNameSet = std::set<std::wstring, std::less<>>;

// The classic fields of one event, in order. Values live back to back in one
// buffer and keys are the reader's own constants, so filling the fields of an
// event whose storage is reused allocates nothing.
class EventFields {
public:
    struct Field {
        std::wstring_view key;
        std::wstring_view value;
    };

    class Iterator {
    public:
        Iterator(const EventFields* owner, size_t index) : owner_(owner), index_(index) {}
        Field operator*() const { return (*owner_)[index_]; }
        Iterator& operator++() {
            ++index_;
            return *this;
        }
        bool operator==(const Iterator& other) const { return index_ == other.index_; }
        bool operator!=(const Iterator& other) const { return index_ != other.index_; }

    private:
        const EventFields* owner_;
        size_t index_;
    };

    // `key` must outlive the fields: the reader passes string literals.
    void add(std::wstring_view key, std::wstring_view value) {
        entries_.push_back(Entry{key, static_cast<uint32_t>(text_.size()), static_cast<uint32_t>(value.size())});
        text_.append(value);
    }
    Field operator[](size_t i) const {
        const Entry& e = entries_[i];
        return Field{e.key, std::wstring_view(text_).substr(e.offset, e.length)};
    }
    Field back() const { return (*this)[entries_.size() - 1]; }
    size_t size() const { return entries_.size(); }
    bool empty() const { return entries_.empty(); }
    Iterator begin() const { return Iterator(this, 0); }
    Iterator end() const { return Iterator(this, entries_.size()); }
    // Forgets the fields, keeping the storage for the next event.
    void clear() {
        entries_.clear();
        text_.clear();
    }

private:
    struct Entry {
        std::wstring_view key;
        uint32_t offset;
        uint32_t length;
    };
    std::vector<Entry> entries_;
    std::wstring text_;
};

struct EventRecord {
    UniqueEvtHandle handle;           // the event (owned)
    uint32_t eventCode = 0;
    uint64_t recordNumber = 0;
    uint64_t time = 0;                // seconds since 1970-01-01 UTC, from TimeCreated
    std::wstring publisher;           // provider name
    std::wstring message;             // formatted message text
    std::wstring xml;                 // XML rendering, when asked for
    std::string xmlText;              // that XML as it goes out, when SID translation made it already
    EventFields fields;               // classic fields, in order
    // Set when directory objects were translated: the rules naming their
    // tokens were decided on the event as read.
    TokenRules tokenRules = TokenRules::Undecided;
    // The event as it goes out, in UTF-8: its XML when rendered so, else its
    // classic text, held by its batch. A batch's records carry only this and
    // the numbers above: the readers render into one record of their own
    // (finishRecord).
    std::string_view text;
    bool noMessage = false;  // neither a message nor XML

    // Adds a field unless its key is one of the excluded field names.
    void addField(std::wstring_view key, std::wstring_view value, const FieldNameSet& excluded) {
        if (!excluded.empty() && excluded.count(key)) return;
        fields.add(key, value);
    }

    // Closes the event and empties the record, keeping its storage.
    void reset() {
        handle.reset();
        eventCode = 0;
        recordNumber = 0;
        time = 0;
        publisher.clear();
        message.clear();
        xml.clear();
        xmlText.clear();
        fields.clear();
        tokenRules = TokenRules::Undecided;
        text = {};
        noMessage = false;
    }
};

// The texts of a batch's events, back to back in large blocks that never move
// while the batch is filled, so that a text stays where its record points.
// The blocks are kept from batch to batch: thousands of texts cost a handful of
// allocations, and none of the small blocks the heap would have to sort.
class TextArena {
public:
    std::string_view store(std::string_view text) {
        if (blocks_.empty() || blocks_[current_].size - used_ < text.size()) next(text.size());
        char* at = blocks_[current_].data.get() + used_;
        std::copy(text.begin(), text.end(), at);
        used_ += text.size();
        return {at, text.size()};
    }
    void clear() {
        current_ = 0;
        used_ = 0;
    }
    void release() {
        blocks_.clear();
        clear();
    }

private:
    static constexpr size_t kBlockBytes = 1 << 20;
    struct Block {
        std::unique_ptr<char[]> data;
        size_t size;
    };
    // Moves on to a block with room for `bytes`: the next one kept, else a new one.
    void next(size_t bytes) {
        if (!blocks_.empty()) ++current_;
        used_ = 0;
        while (current_ < blocks_.size() && blocks_[current_].size < bytes) ++current_;
        if (current_ < blocks_.size()) return;
        const size_t size = std::max(bytes, kBlockBytes);
        blocks_.push_back(Block{std::make_unique_for_overwrite<char[]>(size), size});
        current_ = blocks_.size() - 1;
    }

    std::vector<Block> blocks_;
    size_t current_ = 0;
    size_t used_ = 0;
};

// The events of one read. Records taken out by clear() keep their
// storage for the next events put in, so a pass that reads thousands of events
// allocates for the first batches only. release() gives the storage back.
class EventBatch {
public:
    EventRecord& emplace_back() {
        if (size_ == slots_.size()) slots_.emplace_back();
        return slots_[size_++];
    }
    EventRecord& back() { return slots_[size_ - 1]; }
    EventRecord& operator[](size_t i) { return slots_[i]; }
    const EventRecord& operator[](size_t i) const { return slots_[i]; }
    EventRecord* data() { return slots_.data(); }
    EventRecord* begin() { return slots_.data(); }
    EventRecord* end() { return slots_.data() + size_; }
    const EventRecord* begin() const { return slots_.data(); }
    const EventRecord* end() const { return slots_.data() + size_; }
    size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    void reserve(size_t n) { slots_.reserve(n); }
    // Closes every event; the records stay for reuse.
    void clear() {
        for (size_t i = 0; i < size_; ++i) slots_[i].reset();
        size_ = 0;
        texts_.clear();
        if (lane_) lane_->clear();
    }
    // Closes every event and frees the records.
    void release() {
        clear();
        std::vector<EventRecord>().swap(slots_);
        texts_.release();
        lane_.reset();
    }
    // Keeps `text` for as long as the batch holds its events.
    std::string_view keepText(std::string_view text) { return texts_.store(text); }

    // A second batch that another thread fills at the same time with the
    // events that follow this one's. Its texts stay in its own blocks, which
    // belong to this batch until it is cleared.
    EventBatch& lane() {
        if (!lane_) lane_ = std::make_unique<EventBatch>();
        return *lane_;
    }
    // The lane's events join the end of this batch, in their order.
    void joinLane() {
        if (!lane_) return;
        for (size_t i = 0; i < lane_->size_; ++i) std::swap(emplace_back(), lane_->slots_[i]);
        lane_->size_ = 0;
    }
    // Closes the lane's events: they are not kept.
    void dropLane() {
        if (lane_) lane_->clear();
    }

private:
    std::vector<EventRecord> slots_;
    size_t size_ = 0;
    TextArena texts_;
    std::unique_ptr<EventBatch> lane_;
};

}  // namespace skorva
