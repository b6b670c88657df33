#pragma once
// The monitor's run: first passes on the system thread pool, then one-shot
// waits on each channel's notification event, re-armed by the dispatch loop
// only, so that a channel never has two passes at once and needs no lock.

#include <windows.h>

#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "monitor/ChannelWork.h"
#include "platform/Handles.h"

namespace skorva {

class Dispatcher {
public:
    using ChannelMap = std::map<std::string, std::unique_ptr<WinEventLogChannel>>;

    explicit Dispatcher(WinEventMon& monitor) : monitor_(monitor) {}

    // Reads every channel, then follows each until stop(); blocks the caller.
    bool run(const ChannelMap& channels);
    // Raises the stop flag only; callable from any thread.
    void stop() { stop_.exchange(true); }
    const std::atomic<bool>& stopFlag() const { return stop_; }
    // The channel's state in the run (null before run() or when not configured).
    const ChannelWork* workOf(const WinEventLogChannel* channel) const;
    // Forgets the channels' states (before the channels go).
    void clear() { work_.clear(); }

    // A channel's first pass (reads what it holds, newest first where asked),
    // and a pass after its notification event was set (or, for a refused
    // channel, after its pause: a new first pass).
    void firstPass(ChannelWork& work);
    void signalled(ChannelWork& work);

private:
    // What opening a channel came to: open, refused (tried again later), or
    // dropped (stopping, or missing beyond its wait time).
    enum class Open { Opened, Refused, Dropped };

    void prepareWork(const ChannelMap& channels);
    // Re-opens a channel that has no usable subscription.
    Open makeAvailable(ChannelWork& work);
    Open openFirstPass(ChannelWork& work);
    void reportUnavailable(const WinEventLogChannel& channel, uint64_t limit, uint64_t attempts) const;
    bool armWait(ChannelWork& work);
    bool armRetry(ChannelWork& work);
    // After a pass: whether the first pass is over (else the newest-first
    // reading goes on where it stopped).
    bool firstPassOver(ChannelWork& work);
    void postCompletion(ChannelWork& work);
    void workerDone();

    WinEventMon& monitor_;
    std::vector<std::unique_ptr<ChannelWork>> work_;
    UniqueHandle port_;
    std::atomic<bool> stop_{false};
    // Pool work items and passes not yet finished: the channels outlive them.
    std::atomic<long> activeWorkers_{0};
    UniqueHandle workerIdle_;
    UniqueHandle neverSet_;  // what a refused channel's pause waits on: only its time-out ends it
};

}  // namespace skorva
