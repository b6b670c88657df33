#pragma once
// One pass over a channel: the next batch is read on a reader thread while the
// current one is written, large batches are split over writer threads, and the
// position moves (and is checkpointed) only past events that went out.

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "monitor/ChannelWork.h"

namespace skorva {

class PassPipeline {
public:
    // Events are written through `monitor.processEvent`; `stop` ends a pass
    // after the batch in hand.
    PassPipeline(WinEventMon& monitor, const std::atomic<bool>& stop) : monitor_(monitor), stop_(stop) {}

    void run(ChannelWork& work);
    // processEvent for `count` events in order; returns how many went through
    // before one failed (every failure is logged).
    size_t writeEvents(ChannelWork& work, EventRecord* first, size_t count, OutputScratch& scratch);
    // Writer threads for a batch of `size` events when `threadCount` are allowed;
    // `share` receives the events each one takes (from the front of the batch).
    static unsigned writerThreadCount(size_t size, int32_t threadCount, size_t& share);

private:
    class Position;
    // Writes one batch; how many of its events went out, in batch order, before
    // the first that failed. Written by this thread alone, the position moves
    // and is checkpointed after each reader batch, so that a crash repeats at
    // most one of them.
    size_t writeBatch(ChannelWork& work, EventBatch& batch, OutputScratch& scratch, Position& position);
    bool giveUpOn(ChannelWork& work, const EventRecord& event);

    WinEventMon& monitor_;
    const std::atomic<bool>& stop_;
};

}  // namespace skorva
