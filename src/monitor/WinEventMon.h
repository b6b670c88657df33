#pragma once
// The event log monitor: the channels known to the system, one reader per
// configured stanza, and the whitelist/blacklist decision for their events.
// The work is done by units of its own behind these names: the channel
// catalog, the stanza reader, the dispatcher (the run and its waits), the pass
// pipeline and the output.

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "channel/WinEventLogChannel.h"
#include "modinput/InputConfig.h"
#include "monitor/ChannelCatalog.h"
#include "monitor/ChannelWork.h"
#include "monitor/Dispatcher.h"
#include "monitor/EventOutput.h"
#include "monitor/PassPipeline.h"
#include "monitor/StanzaReader.h"

namespace skorva {

class WinEventMon {
public:
    // Lower-cased channel name to its reader.
    using ChannelMap = std::map<std::string, std::unique_ptr<WinEventLogChannel>>;
    using KnownChannelMap = ChannelCatalog::KnownChannelMap;
    using ChannelWork = ::skorva::ChannelWork;
    using WorkOverlapped = ::skorva::WorkOverlapped;
    using OutputScratch = ::skorva::OutputScratch;

    // `checkpointDir` empty: defaultCheckpointDirectory().
    explicit WinEventMon(std::wstring checkpointDir = std::wstring());
    virtual ~WinEventMon();
    WinEventMon(const WinEventMon&) = delete;
    WinEventMon& operator=(const WinEventMon&) = delete;

    // ---- Channel enumeration: fills the known-channel map. False only when no
    // listing could be started at all; channels found before a failure stay.
    bool enumEvtLogChannels() { return catalog_.enumerate(); }
    const KnownChannelMap& knownChannels() const { return catalog_.known(); }
    KnownChannelMap& knownChannels() { return catalog_.known(); }

    // ---- Configuration: one channel per accepted stanza. True when some stanza
    // other than "default" and not disabled was present.
    bool configure(const std::map<std::string, Stanza>& stanzas);
    const ChannelMap& channels() const { return channels_; }
    // By channel name, any case; null when not configured.
    WinEventLogChannel* findChannel(std::string_view channelName) const;
    // The process-wide SID cache settings, from the first configured stanza.
    SidCacheSettings sidCacheSettings() const { return stanzaReader_.sidCacheSettings(); }
    const std::wstring& checkpointDirectory() const { return checkpointDir_; }

    // ---- Whitelist/blacklist rules on the rendered text of one event of the
    // stanza's channel (classic key=value text or XML, as the channel renders).
    // `tokenRules`: what the rules naming directory-object tokens decided on the
    // event before its objects were translated.
    bool include_event(std::string_view text, const std::string& stanzaName,
                       TokenRules tokenRules = TokenRules::Undecided) const;

    // The channel name a stanza name carries: after "://", else after ":".
    static std::string channelFromStanza(const std::string& stanzaName);

    // ---- Lifecycle and channel workers
    // Enumerates the system's channels, then configures from standard input.
    bool init();
    // Reads every channel, then follows it until stop(); blocks the caller.
    bool start();
    // Raises the stop flag only; callable from any thread.
    void stop();
    bool stopping() const { return dispatcher_.stopFlag().load(); }

    static DWORD WINAPI ProcessChannelWorker(void* work);
    static void CALLBACK ProcessChannelWaitWorker(void* work, BOOLEAN timedOut);
    // One pass over a channel: batches read, filtered, written and checkpointed.
    void processLogChannel(ChannelWork& work) { pipeline_.run(work); }
    // Filters one event and adds it to the scratch's block; false when excluded.
    virtual bool processEvent(ChannelWork& work, EventRecord& event, OutputScratch& scratch);
    // Writes the scratch's block under the output lock, in one write; false when
    // the stream could not take it (the run then stops).
    bool flushOutput(OutputScratch& scratch);
    // The daemon stopped reading the stream: no event can be written any more.
    bool outputBroken() const { return output_.broken(); }
    static unsigned writerThreadCount(size_t size, int32_t threadCount, size_t& share) {
        return PassPipeline::writerThreadCount(size, threadCount, share);
    }

    // The channel's monitor state (null before start() or when not configured).
    const ChannelWork* channelWork(std::string_view channelName) const {
        return dispatcher_.workOf(findChannel(channelName));
    }
    // Output goes to `out` instead of standard output (set before the first event).
    void setOutput(FILE* out) { output_.setOutput(out); }

protected:
    // Vista or later: decides whether XML rendering is possible.
    virtual bool systemIsVistaOrLater() const;

private:
    // The rules of a channel whose filters wait for the formatted message.
    bool includeMessageKeys(const WinEventLogChannel& channel, std::string_view text, TokenRules tokenRules) const;

    std::wstring checkpointDir_;
    ChannelCatalog catalog_;
    StanzaReader stanzaReader_{checkpointDir_};
    ChannelMap channels_;
    // Stanza name to its channel: the per-event look-up needs no string built.
    std::map<std::string, WinEventLogChannel*, std::less<>> stanzaChannels_;
    EventOutput output_;
    Dispatcher dispatcher_{*this};
    PassPipeline pipeline_{*this, dispatcher_.stopFlag()};
};

}  // namespace skorva
