#include "monitor/Dispatcher.h"

#include <algorithm>

#include "monitor/WinEventMon.h"
#include "platform/Clock.h"
#include "platform/Logger.h"

namespace skorva {

namespace {

constexpr DWORD kDispatchTimeoutMs = 500;
constexpr uint32_t kAvailabilitySleepMs = 500;
constexpr uint32_t kRetrySleepMs = 2000;
// A refused channel waits at least this before it is opened again, doubling
// with each refusal up to the most.
constexpr uint32_t kMinRefusedPauseMs = 1000;
constexpr uint32_t kMaxRefusedPauseMs = 600000;

}  // namespace

const ChannelWork* Dispatcher::workOf(const WinEventLogChannel* channel) const {
    for (const auto& w : work_)
        if (w->channel == channel) return w.get();
    return nullptr;
}

void Dispatcher::prepareWork(const ChannelMap& channels) {
    work_.clear();
    for (const auto& entry : channels) {
        auto w = std::make_unique<ChannelWork>();
        w->overlapped.work = w.get();
        w->monitor = &monitor_;
        w->channel = entry.second.get();
        work_.push_back(std::move(w));
    }
    if (!workerIdle_) workerIdle_.reset(::CreateEventW(nullptr, FALSE, FALSE, nullptr));
    if (!neverSet_) neverSet_.reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
}

void Dispatcher::workerDone() {
    if (--activeWorkers_ == 0 && workerIdle_) ::SetEvent(workerIdle_.get());
}

void Dispatcher::postCompletion(ChannelWork& work) {
    if (!::PostQueuedCompletionStatus(port_.get(), 0, 0, &work.overlapped.overlapped))
        LOG_ERROR("%s: Failed to post completion for channel %s. Error = %d", "WinEventMon::postCompletion",
                  work.channel->channelName().c_str(), static_cast<int>(::GetLastError()));
}

bool Dispatcher::run(const ChannelMap& channels) {
    static const char* const fn = "WinEventMon::start";
    port_.reset(::CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0));
    if (!port_) return false;
    prepareWork(channels);

    long outstanding = 0;
    for (auto& w : work_) {
        ++activeWorkers_;
        if (!::QueueUserWorkItem(&WinEventMon::ProcessChannelWorker, w.get(), 0)) {
            LOG_ERROR("%s: Failed initial refresh for channel %s. Error = %d", fn, w->channel->channelName().c_str(),
                      static_cast<int>(::GetLastError()));
            workerDone();
            break;
        }
        ++outstanding;
    }
    if (outstanding == 0) return true;

    while (!stop_.load() && outstanding > 0) {
        DWORD bytes = 0;
        ULONG_PTR key = 0;
        OVERLAPPED* packet = nullptr;
        if (!::GetQueuedCompletionStatus(port_.get(), &bytes, &key, &packet, kDispatchTimeoutMs) || !packet)
            continue;
        if (stop_.load()) break;
        ChannelWork& w = *reinterpret_cast<WorkOverlapped*>(packet)->work;
        w.wait.reset();
        LOG_DEBUG("%s: Attempt to wait on channel %s", fn, w.channel->channelName().c_str());
        --outstanding;
        if (!w.enabled) continue;
        const Open open = w.refused ? Open::Refused : makeAvailable(w);
        if (open == Open::Dropped) {
            w.enabled = false;
            continue;
        }
        if (open == Open::Refused ? armRetry(w) : armWait(w)) ++outstanding;
    }

    if (stop_.load()) {
        LOG_DEBUG("%s: Shutting down. Attempt to cancel all waits", fn);
        // Each release waits for a callback in progress: no pass outlives this.
        for (auto& w : work_) w->wait.reset();
    }
    while (activeWorkers_.load() > 0) ::WaitForSingleObject(workerIdle_.get(), 100);
    return true;
}

// A channel whose subscription is open and sound is left as it is: re-opening it
// would resume from the checkpoint file, which lags behind the events already
// written whenever checkpoints are deferred or suppressed.
Dispatcher::Open Dispatcher::makeAvailable(ChannelWork& w) {
    WinEventLogChannel& channel = *w.channel;
    const uint64_t limit = 2 * channel.settings().channelWaitSeconds;
    uint64_t attempts = 0;
    while (!(channel.subscriptionReady() && channel.channelState())) {
        if (stop_.load()) return Open::Dropped;
        if (channel.initialized()) channel.uninit();
        const bool opened = channel.init();
        if (opened && channel.subscriptionReady()) break;
        if (!channel.channelMissing()) return opened ? Open::Opened : Open::Refused;
        if (attempts >= limit) {
            reportUnavailable(channel, limit, attempts);
            return Open::Dropped;
        }
        sleepMs(kAvailabilitySleepMs);
        ++attempts;
    }
    return Open::Opened;
}

bool Dispatcher::armWait(ChannelWork& w) {
    static const char* const fn = "WinEventMon::start";
    WinEventLogChannel& channel = *w.channel;
    if (!channel.subscriptionReady()) {
        LOG_ERROR("%s: Failed to Wait on channel %s. Channel is not initialized", fn, channel.channelName().c_str());
        return false;
    }
    const ULONG timeout = static_cast<ULONG>(channel.settings().threadWaitMs);
    if (!::RegisterWaitForSingleObject(w.wait.put(), channel.notifyEvent(), &WinEventMon::ProcessChannelWaitWorker,
                                       &w, timeout, WT_EXECUTEONLYONCE)) {
        LOG_ERROR("%s: Failed to Wait on channel %s. Error = %d", fn, channel.channelName().c_str(),
                  static_cast<int>(::GetLastError()));
        return false;
    }
    w.waitSetUp = true;
    LOG_DEBUG("%s: Wait on channel %s", fn, channel.channelName().c_str());
    return true;
}

// A channel that could not be opened, and not for being missing (its wait time
// decides that), is opened again by a new first pass after a pause: from its
// wait timeout (at least a second), doubling with each refusal up to ten
// minutes. What refused it (a collector subscription that did not fit, say) may
// be put right without a restart, and a lasting refusal does not flood the log.
bool Dispatcher::armRetry(ChannelWork& w) {
    static const char* const fn = "WinEventMon::start";
    WinEventLogChannel& channel = *w.channel;
    const int32_t waitMs = channel.settings().threadWaitMs;
    uint32_t pause = w.retryDelayMs ? 2 * w.retryDelayMs : static_cast<uint32_t>(waitMs > 0 ? waitMs : 0);
    pause = std::min(std::max(pause, kMinRefusedPauseMs), kMaxRefusedPauseMs);
    w.retryDelayMs = pause;
    w.refused = true;
    if (!::RegisterWaitForSingleObject(w.wait.put(), neverSet_.get(), &WinEventMon::ProcessChannelWaitWorker, &w,
                                       pause, WT_EXECUTEONLYONCE)) {
        LOG_ERROR("%s: Failed to Wait on channel %s. Error = %d", fn, channel.channelName().c_str(),
                  static_cast<int>(::GetLastError()));
        return false;
    }
    LOG_INFO("%s: Channel %s could not be opened; it is tried again in %u ms", fn, channel.channelName().c_str(),
             static_cast<unsigned>(pause));
    return true;
}

// Opens a channel for its first pass, waiting up to channel_wait_time for one
// that is missing (reported when it does not come).
Dispatcher::Open Dispatcher::openFirstPass(ChannelWork& w) {
    WinEventLogChannel& channel = *w.channel;
    const uint64_t limit = 2 * channel.settings().channelWaitSeconds;
    for (uint64_t attempts = 0;; ++attempts) {
        if (stop_.load()) return Open::Dropped;
        if (channel.init()) return Open::Opened;
        if (!channel.channelMissing()) return Open::Refused;
        if (attempts >= limit) {
            reportUnavailable(channel, limit, attempts);
            return Open::Dropped;
        }
        sleepMs(kAvailabilitySleepMs);
    }
}

void Dispatcher::reportUnavailable(const WinEventLogChannel& channel, uint64_t limit, uint64_t attempts) const {
    static const char* const fn = "WinEventMon::start";
    if (limit != 0)
        LOG_ERROR("%s: Channel %s failed to become available in %d ms.", fn, channel.channelName().c_str(),
                  static_cast<int>(attempts * kAvailabilitySleepMs));
    else
        LOG_ERROR("%s: channel_wait_time has the default value of 0 and channel %s failed to become "
                  "available. Consider changing channel_wait_time in inputs.conf.",
                  fn, channel.channelName().c_str());
}

// The first pass reads what the channel holds. The newest-first reading is done
// here, on the thread that made its query, and is not over until the query
// said so: a reset or an error re-opens it after the records already sent, and
// a stop leaves it for the next run.
void Dispatcher::firstPass(ChannelWork& w) {
    static const char* const fn = "WinEventMon::ProcessChannelWorker";
    WinEventLogChannel& channel = *w.channel;
    struct Done {
        Dispatcher& d;
        ~Done() { d.workerDone(); }
    } done{*this};

    LOG_DEBUG("%s: Refresh channel", fn);
    if (stop_.load()) return;
    Open open = openFirstPass(w);
    while (open == Open::Opened) {
        LOG_INFO("%s: Processing existing Windows Event Log '%s'", fn, channel.channelName().c_str());
        const uint64_t before = w.total.load();
        ::ResetEvent(channel.notifyEvent());
        monitor_.processLogChannel(w);
        if (firstPassOver(w)) break;
        // The newest-first reading goes on where it stopped.
        if (stop_.load()) return;
        if (w.total.load() == before) sleepMs(kRetrySleepMs);  // no progress: not in a tight loop
        open = openFirstPass(w);
    }
    if (open == Open::Dropped) return;
    // A refused channel is handed back to the dispatcher, which pauses it.
    w.refused = open == Open::Refused;
    if (!w.refused) w.retryDelayMs = 0;
    postCompletion(w);
}

bool Dispatcher::firstPassOver(ChannelWork& w) {
    static const char* const fn = "WinEventMon::ProcessChannelWorker";
    WinEventLogChannel& channel = *w.channel;
    const char* name = channel.channelName().c_str();
    if (!channel.channelState()) {
        channel.uninit();
        LOG_INFO("%s: It seems like the Windows Event Log channel '%s' has been reset", fn, name);
        if (channel.reversePhaseOpen()) return false;
        if (!stop_.load()) channel.init();
        return true;
    }
    if (channel.readingReverse()) {
        if (!channel.reverseComplete()) {
            channel.uninit();  // the query is closed on its own thread
            return false;
        }
        channel.endReversePhase();
        LOG_INFO("%s: Finished processing existing Windows Event Log '%s' in reverse chronological order: "
                 "total_events='%llu' with empty_msg='%llu'.",
                 fn, name, static_cast<unsigned long long>(w.total.load()),
                 static_cast<unsigned long long>(w.emptyMsg.load()));
        return true;
    }
    LOG_INFO("%s: Finished processing existing Windows Event Log '%s': total_events='%llu' with empty_msg='%llu'.",
             fn, name, static_cast<unsigned long long>(w.total.load()),
             static_cast<unsigned long long>(w.emptyMsg.load()));
    return true;
}

void Dispatcher::signalled(ChannelWork& w) {
    if (w.refused) {
        ++activeWorkers_;  // firstPass counts itself done
        firstPass(w);
        return;
    }
    WinEventLogChannel& channel = *w.channel;
    LOG_INFO("%s: Wait signaled. processing channel %s", "WinEventMon::ProcessChannelWaitWorker",
             channel.channelName().c_str());
    ::ResetEvent(channel.notifyEvent());
    if (!stop_.load()) monitor_.processLogChannel(w);
    postCompletion(w);
}

}  // namespace skorva
