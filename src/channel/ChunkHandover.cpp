#include "channel/ChunkHandover.h"

#include <utility>

namespace skorva {

class ChunkHandover::Lock {
public:
    explicit Lock(ChunkHandover& h) : h_(h) { ::AcquireSRWLockExclusive(&h_.mutex_); }
    ~Lock() { ::ReleaseSRWLockExclusive(&h_.mutex_); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;
    void wait() { ::SleepConditionVariableSRW(&h_.changed_, &h_.mutex_, INFINITE, 0); }

private:
    ChunkHandover& h_;
};

void ChunkHandover::Chunk::hold(EventRecord& rendered) {
    if (count == records.size()) records.emplace_back();
    std::swap(records[count++], rendered);
}

void ChunkHandover::begin(uint32_t events) {
    reset();
    chunks_ = (events + kChunk - 1) / kChunk;
}

ChunkHandover::Chunk* ChunkHandover::claimFree() {
    if (cancelled_ || next_ >= chunks_) return nullptr;
    Chunk& chunk = buffers_[next_ % kBuffers];
    if (chunk.used) return nullptr;
    chunk.used = true;
    chunk.index = next_++;
    return &chunk;
}

ChunkHandover::Chunk* ChunkHandover::claim() {
    Lock lock(*this);
    for (;;) {
        if (cancelled_ || next_ >= chunks_) return nullptr;
        if (Chunk* chunk = claimFree()) return chunk;
        lock.wait();
    }
}

void ChunkHandover::publish(Chunk& chunk, bool bad) {
    {
        Lock lock(*this);
        chunk.ready = true;
        chunk.bad = bad;
    }
    ::WakeAllConditionVariable(&changed_);
}

void ChunkHandover::abandon() {
    {
        Lock lock(*this);
        abandoned_ = true;
    }
    ::WakeAllConditionVariable(&changed_);
}

ChunkHandover::Take ChunkHandover::take(uint32_t index, Chunk*& chunk) {
    Lock lock(*this);
    if (next_ == index) {
        ++next_;
        return Take::Own;
    }
    Chunk& wanted = buffers_[index % kBuffers];
    for (;;) {
        if (wanted.ready && wanted.index == index) {
            chunk = &wanted;
            return Take::Ready;
        }
        if (abandoned_) return Take::Gone;
        if ((chunk = claimFree())) return Take::Help;
        lock.wait();
    }
}

void ChunkHandover::giveBack(Chunk& chunk) {
    {
        Lock lock(*this);
        chunk.count = 0;
        chunk.ready = chunk.bad = chunk.used = false;
    }
    ::WakeAllConditionVariable(&changed_);
}

void ChunkHandover::cancel() {
    {
        Lock lock(*this);
        cancelled_ = true;
    }
    ::WakeAllConditionVariable(&changed_);
}

void ChunkHandover::reset() {
    for (Chunk& chunk : buffers_) {
        for (size_t i = 0; i < chunk.count; ++i) chunk.records[i].reset();
        chunk.count = 0;
        chunk.ready = chunk.bad = chunk.used = false;
    }
    chunks_ = next_ = 0;
    cancelled_ = abandoned_ = false;
}

}  // namespace skorva
