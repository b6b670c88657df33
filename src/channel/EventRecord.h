#pragma once
// One event as the channel reader hands it to the monitor, and the batch that
// carries events from the reader to the writer.

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <string_view>
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
    EventFields fields;               // classic fields, in order
    // Set when directory objects were translated: the rules naming their
    // tokens were decided on the event as read.
    TokenRules tokenRules = TokenRules::Undecided;

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
        fields.clear();
        tokenRules = TokenRules::Undecided;
    }
};

// The events of one read. Records taken out by clear() or pop_back() keep their
// storage for the next events put in, so a pass that reads thousands of events
// allocates for the first batches only. release() gives the storage back.
class EventBatch {
public:
    EventRecord& emplace_back() {
        if (size_ == slots_.size()) slots_.emplace_back();
        return slots_[size_++];
    }
    void pop_back() { slots_[--size_].reset(); }
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
    }
    // Closes every event and frees the records.
    void release() {
        clear();
        std::vector<EventRecord>().swap(slots_);
    }

private:
    std::vector<EventRecord> slots_;
    size_t size_ = 0;
};

}  // namespace skorva
