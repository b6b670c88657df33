#pragma once
// The event log monitor: the channels known to the system, one reader per
// configured stanza, and the whitelist/blacklist decision for their events.
// Members by concern, each implemented in its own source file:
//   ChannelEnumeration.cpp   enumEvtLogChannels
//   WinEventMonConfigure.cpp configure
//   WinEventMonRun.cpp       init, start, stop and the channel workers
//   WinEventMonProcess.cpp   processLogChannel, processEvent

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "channel/WinEventLogChannel.h"
#include "modinput/EventStreamWriter.h"
#include "modinput/InputConfig.h"
#include "config/ChannelSettings.h"
#include "platform/Handles.h"

namespace skorva {

class WinEventMon {
public:
    // Lower-cased channel name to its reader.
    using ChannelMap = std::map<std::string, std::unique_ptr<WinEventLogChannel>>;
    // Look-up key (lower-cased name) to the name as the system spells it.
    using KnownChannelMap = std::map<std::string, std::string>;

    // `checkpointDir` empty: defaultCheckpointDirectory().
    explicit WinEventMon(std::wstring checkpointDir = std::wstring());
    virtual ~WinEventMon();
    WinEventMon(const WinEventMon&) = delete;
    WinEventMon& operator=(const WinEventMon&) = delete;

    // ---- Channel enumeration: fills the known-channel map. False only when no
    // listing could be started at all; channels found before a failure stay.
    bool enumEvtLogChannels();
    const KnownChannelMap& knownChannels() const { return knownChannels_; }
    KnownChannelMap& knownChannels() { return knownChannels_; }

    // ---- Configuration: one channel per accepted stanza. True when some stanza
    // other than "default" and not disabled was present.
    bool configure(const std::map<std::string, Stanza>& stanzas);
    const ChannelMap& channels() const { return channels_; }
    // By channel name, any case; null when not configured.
    WinEventLogChannel* findChannel(std::string_view channelName) const;
    // The process-wide SID cache settings, from the first configured stanza.
    SidCacheSettings sidCacheSettings() const { return sidCacheSettings_; }
    const std::wstring& checkpointDirectory() const { return checkpointDir_; }

    // ---- Whitelist/blacklist rules on the rendered text of one event of the
    // stanza's channel (classic key=value text or XML, as the channel renders).
    bool include_event(const std::string& text, const std::string& stanzaName) const;

    // The channel name a stanza name carries: after "://", else after ":".
    static std::string channelFromStanza(const std::string& stanzaName);

    // ---- Lifecycle and channel workers
    // The monitor's part of one channel: its place in the dispatch loop.
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
        std::atomic<uint64_t> total{0};
        std::atomic<uint64_t> emptyMsg{0};
        uint64_t failingRecord = 0;  // the event that failed to be written last, and how often
        unsigned failures = 0;
        // Reused by every pass: the batch being written and the one being read.
        EventBatch batches[2];
    };
    // Per-thread output scratch: reused for every event the thread writes.
    struct OutputScratch {
        ModinputEvent record;
    };

    // Enumerates the system's channels, then configures from standard input.
    bool init();
    // Reads every channel, then follows it until stop(); blocks the caller.
    bool start();
    // Raises the stop flag only; callable from any thread.
    void stop();
    bool stopping() const { return stop_.load(); }

    static DWORD WINAPI ProcessChannelWorker(void* work);
    static void CALLBACK ProcessChannelWaitWorker(void* work, BOOLEAN timedOut);
    // One pass over a channel: batches read, filtered, written and checkpointed.
    void processLogChannel(ChannelWork& work);
    // Filters one event and writes it under the output lock; false when excluded.
    virtual bool processEvent(ChannelWork& work, EventRecord& event, OutputScratch& scratch);
    // processEvent for `count` events in order; returns how many went through
    // before one failed (every failure is logged).
    size_t writeEvents(ChannelWork& work, EventRecord* first, size_t count, OutputScratch& scratch);
    // Writer threads for a batch of `size` events when `threadCount` are allowed;
    // `share` receives the events each one takes (from the front of the batch).
    static unsigned writerThreadCount(size_t size, int32_t threadCount, size_t& share);

    // The channel's monitor state (null before start() or when not configured).
    const ChannelWork* channelWork(std::string_view channelName) const;
    // Output goes to `out` instead of standard output (set before the first event).
    void setOutput(FILE* out) { output_ = out; }

protected:
    // Vista or later: decides whether XML rendering is possible.
    virtual bool systemIsVistaOrLater() const;

private:
    bool enumRegistryChannels();
    bool enumApiChannels();
    // Reads one stanza's settings into `s`; `channel` is the system's spelling,
    // `written` the stanza's.
    void readSettings(const Stanza& stanza, const std::string& channel, const std::string& written, bool vista,
                      ChannelSettings& s);

    std::wstring checkpointDir_;
    KnownChannelMap knownChannels_;
    ChannelMap channels_;
    // Stanza name to its channel: the per-event look-up needs no string built.
    std::map<std::string, WinEventLogChannel*, std::less<>> stanzaChannels_;
    SidCacheSettings sidCacheSettings_;
    bool sidCacheRead_ = false;

    // Lifecycle state
    void prepareWork();
    // Re-opens a channel that has no usable subscription; false once given up.
    bool makeAvailable(ChannelWork& work);
    bool openFirstPass(ChannelWork& work);
    void reportUnavailable(const WinEventLogChannel& channel, uint64_t limit, uint64_t attempts) const;
    bool armWait(ChannelWork& work);
    bool giveUpOn(ChannelWork& work, const EventRecord& event);
    // The rules of a channel whose filters wait for the formatted message.
    bool includeMessageKeys(const WinEventLogChannel& channel, OutputScratch& scratch) const;
    void postCompletion(ChannelWork& work);
    void workerDone();
    void writeEvent(const ModinputEvent& record);

    std::vector<std::unique_ptr<ChannelWork>> work_;
    UniqueHandle port_;
    std::atomic<bool> stop_{false};
    // Pool work items and passes not yet finished: the channels outlive them.
    std::atomic<long> activeWorkers_{0};
    UniqueHandle workerIdle_;
    CriticalSection outputLock_;
    FILE* output_ = stdout;
    std::unique_ptr<EventStreamWriter> writer_;
    bool outputFailed_ = false;  // reported once
};

}  // namespace skorva
