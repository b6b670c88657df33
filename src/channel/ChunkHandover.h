#pragma once
// Chunks of a call's events handed from a second rendering thread to the
// reader thread, which finishes every record in order. Chunks are claimed in
// order by whichever thread comes first: the second thread renders the next
// unclaimed one into a free buffer; the reader thread renders the one it needs
// next itself when nobody has claimed it yet, and while it waits for one the
// second thread is rendering it claims the next into a buffer too. Neither
// thread idles, however the work between rendering and finishing is split.

#include <windows.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "channel/EventRecord.h"

namespace skorva {

class ChunkHandover {
public:
    static constexpr uint32_t kChunk = 128;  // events
    static constexpr uint32_t kBuffers = 4;  // a bound on what is held

    struct Chunk {
        std::vector<EventRecord> records;  // the first `count`, storage kept
        size_t count = 0;
        uint32_t index = 0;  // which chunk of the call
        bool ready = false;  // rendered, not yet given back
        bool bad = false;    // an event in it showed the result set gone bad
        bool used = false;   // claimed for rendering, not yet given back
        uint32_t from() const { return index * kChunk; }
        void hold(EventRecord& rendered);
    };

    ChunkHandover() = default;
    ChunkHandover(const ChunkHandover&) = delete;
    ChunkHandover& operator=(const ChunkHandover&) = delete;

    // A new call of `events` events; neither thread may be using it.
    void begin(uint32_t events);
    uint32_t chunks() const { return chunks_; }

    // Second thread (and the reader thread helping): the buffer for the next
    // unclaimed chunk, once one is free; rendered, it is published.
    // Null when none is left or the reader thread takes no more.
    Chunk* claim();
    void publish(Chunk& chunk, bool bad);
    // It threw: nothing more comes from it.
    void abandon();

    // Reader thread, for each chunk in order, until it is Own or Ready:
    enum class Take {
        Own,    // it was unclaimed: render and finish it at once
        Ready,  // `chunk` holds it rendered: finish it and give the buffer back
        Help,   // it is being rendered: render the later one `chunk` was claimed for, and publish it
        Gone,   // the second thread gave up
    };
    Take take(uint32_t index, Chunk*& chunk);
    void giveBack(Chunk& chunk);
    // No more chunks are taken.
    void cancel();

    // Closes the records still held; neither thread may be using it.
    void reset();

private:
    class Lock;
    // The buffer for the next unclaimed chunk when it is free; the caller holds the lock.
    Chunk* claimFree();

    SRWLOCK mutex_ = SRWLOCK_INIT;
    CONDITION_VARIABLE changed_ = CONDITION_VARIABLE_INIT;
    Chunk buffers_[kBuffers];
    uint32_t chunks_ = 0;
    uint32_t next_ = 0;  // the first chunk nobody claimed
    bool cancelled_ = false;
    bool abandoned_ = false;
};

}  // namespace skorva
