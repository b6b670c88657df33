#pragma once
// The monitor's part of one channel: its place in the dispatch loop, its
// counters and the batches its passes reuse.

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "channel/EventRecord.h"
#include "modinput/EventStreamWriter.h"
#include "platform/Handles.h"
#include "platform/JobThread.h"

namespace skorva {

class WinEventMon;
class WinEventLogChannel;
struct ChannelWork;

// What a completion packet carries: its address leads back to the channel.
struct WorkOverlapped {
    OVERLAPPED overlapped;
    ChannelWork* work;
};

struct ChannelWork {
    WorkOverlapped overlapped = {};
    WinEventMon* monitor = nullptr;
    WinEventLogChannel* channel = nullptr;
    UniqueRegisteredWait wait;
    bool waitSetUp = false;
    bool enabled = true;
    // The last open failed, and not for a missing channel: a new first pass
    // opens it again once retryDelayMs is over.
    bool refused = false;
    uint32_t retryDelayMs = 0;
    std::atomic<uint64_t> total{0};
    std::atomic<uint64_t> emptyMsg{0};
    uint64_t failingRecord = 0;  // the event that failed to be written last, and how often
    unsigned failures = 0;
    // Reused by every pass: the batch being written and the one being read,
    // the thread batches are read on and the writer threads (use_threads).
    EventBatch batches[2];
    JobThread reader;
    std::vector<std::unique_ptr<JobThread>> writers;
};

// Per-thread output scratch: reused for every event the thread writes. Events
// are formatted into `block` outside the output lock and written together.
struct OutputScratch {
    EventEnvelope envelope;
    std::string block;
};

}  // namespace skorva
