#pragma once
// The reader of one event log channel. The work is done by units of its own
// behind these names: the modern reader (ModernReader) or, for classic logs read
// through the classic API, the legacy reader (LegacyReader), both behind the
// ChannelReader interface; the checkpoint policy (checkpoint/CheckpointPolicy);
// the directory step (AdObjectStep) with the directory-object cache, the name
// insertion and the blacklist memo (directory/).

#include <cstdint>
#include <string>

#include "channel/AdObjectStep.h"
#include "channel/LegacyReader.h"
#include "channel/ModernReader.h"
#include "channel/WinEventLogChannelBase.h"
#include "checkpoint/CheckpointPolicy.h"
#include "directory/AdObjBlacklistMemo.h"
#include "directory/AdObjectNames.h"
#include "directory/WinLookupAdObjCache.h"

namespace skorva {

class WinEventLogChannel : public WinEventLogChannelBase {
public:
    using WinLookupAdObjCache = ::skorva::WinLookupAdObjCache;

    WinEventLogChannel(std::string channelName, ChannelSettings settings);
    ~WinEventLogChannel() override;

    // ---- Reading
    // Opens the channel: with the modern API a newest-first query while the
    // start is "newest" and that phase is not over, otherwise a subscription
    // after the last event sent; with the classic API (use_old_eventlog_api, or
    // no modern API on the system) the log, read backwards or forwards alike.
    bool init();
    // Closes the handles and the notify event, and lets the domain controller
    // binding go.
    void uninit();
    // Appends the events read in this call (bounded, about 3000 at most).
    void getEventsNew(EventBatch& records) { active_->getEvents(records); }
    // Also lets go of the reader's second set of publisher handles.
    void cleanMetadataHandleCache(bool force) {
        WinEventLogChannelBase::cleanMetadataHandleCache(force);
        reader_.cleanMetadataHandleCache(force);
    }
    bool initialized() const { return active_->initialized(); }
    // False once the result handle went bad ("updated"): the worker re-opens.
    bool channelState() const { return active_->channelState(); }
    // Marks the channel "updated": it is re-opened after the last event sent.
    void setUpdated() { active_->setUpdated(); }
    // The channel did not exist at the last open or read.
    bool channelMissing() const { return active_->channelMissing(); }
    // The channel is read forward: new records signal the notify event.
    bool subscriptionReady() const { return active_->subscriptionReady(); }
    // The last read filled its batches: more events may be waiting now.
    bool eventsPending() const { return active_->eventsPending(); }
    HANDLE notifyEvent() const { return active_->notifyEvent(); }
    // The newest-first reading of the existing events is open. A query belongs
    // to the thread that made it: it is read and closed there.
    bool readingReverse() const { return active_->readingReverse(); }
    // The newest-first reading of the existing events has not ended yet (it ends
    // only once it reached the oldest record).
    bool reversePhaseOpen() const { return active_->reversePhaseOpen(); }
    // The newest-first reading reached the oldest record.
    bool reverseComplete() const { return active_->reverseComplete(); }
    // Ends the newest-first phase: its newest record becomes the position, the
    // channel is closed; the next init reads forward after it.
    void endReversePhase() { active_->endReversePhase(); }
    // The batch size in use (batch_size, 1 when outside 1..1000, halved while
    // the service refuses batches that large).
    uint32_t batchSize() const { return active_->batchSize(); }
    // The events up to `event` (the record `recordNumber`) are out: reading
    // resumes after it whenever the channel is opened again in this run.
    void markWritten(EVT_HANDLE event, uint64_t recordNumber) { active_->markWritten(event, recordNumber); }
    // The channel is read through the classic API.
    bool legacy() const { return active_ == &legacy_; }

    bool queryEvtChannel(const std::wstring& name, bool forward, bool fromFile) {
        return reader_.queryEvtChannel(name, forward, fromFile);
    }
    bool subscribeToEvtChannel(const std::wstring& name) { return reader_.subscribeToEvtChannel(name); }
    // Handles the failure of EvtNext (GetLastError() still holds it); returns anyRead.
    bool handleGetEventsError(bool anyRead, uint32_t index, uint32_t count) {
        return reader_.handleGetEventsError(anyRead, index, count);
    }
    // Set by the reader while it reads newest first.
    void setReversePhase(bool on) { reader_.setReversePhase(on); }

    // ---- Filter on one message-bearing value alone (FilterSet::admitsValue).
    // The product decides message keys rule by rule on the whole event once
    // the message is formatted (WinEventMon::processEvent); this is the check
    // for a caller that holds the value alone.
    bool includeEventWithEvtcodeMessage(const std::string& key, const std::string& value) const;

    // ---- Checkpoints
    bool checkPoint(EVT_HANDLE event, uint64_t recordNumber, bool force) {
        return checkpoints_.checkPoint(event, recordNumber, force);
    }
    bool saveBookMark(EVT_HANDLE event, const std::wstring& suffix) { return checkpoints_.saveBookMark(event, suffix); }
    // A bookmark restored from the checkpoint file (suffix: "" or "reverse"),
    // or an empty one when there is no usable checkpoint; `recordId` receives
    // the record it names.
    Bookmark getBookMark(const std::wstring& suffix = std::wstring(), uint64_t* recordId = nullptr) {
        return checkpoints_.getBookMark(suffix, recordId);
    }
    bool deleteCheckpointFile() { return checkpoints_.deleteCheckpointFile(); }
    const std::wstring& checkpointFilePath() const { return checkpoints_.checkpointFilePath(); }
    // True while a sent event waits for the checkpoint interval to be written.
    bool hasPendingCheckpoint() const { return checkpoints_.hasPendingCheckpoint(); }
    // The legacy reader's position, written as a checkpoint string.
    CheckpointMap& checkpointMap() { return checkpoints_.checkpointMap(); }

    // ---- Directory objects
    WinLookupAdObjCache& adObjCache() { return adObjCache_; }
    AdObjBlacklistMemo& adObjBlacklistMemo() { return adObjBlacklistMemo_; }

private:
    // Binds to the domain controller for evt_resolve_ad_obj, with its timing lines.
    void bindDomainController(const char* fn);

    CheckpointPolicy checkpoints_{channelName_, channelNameW_, settings_};
    // Settings from the stanza the channel is made with.
    WinLookupAdObjCache adObjCache_{
        [this](const std::wstring& object, std::wstring& out, DWORD offered, DWORD wanted) {
            return transADObject(object, out, offered, wanted);
        },
        settings_.adCache};
    AdObjBlacklistMemo adObjBlacklistMemo_;
    AdObjectNames adNames_{settings_, adObjCache_, adObjBlacklistMemo_};
    AdObjectStep adObjects_{settings_, adNames_, adObjBlacklistMemo_};
    ModernReader reader_{channelName_, channelNameW_, settings_, renderer_,
                         formatter_,   sids_,         adObjects_, checkpoints_};
    LegacyReader legacy_{channelName_, channelNameW_, settings_, messageFiles_, sids_, checkpoints_};
    ChannelReader* active_ = &reader_;  // chosen by init()
};

}  // namespace skorva
