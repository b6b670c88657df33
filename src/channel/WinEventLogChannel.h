#pragma once
// The reader of one event log channel through the modern event log API.
// Members by concern, each implemented in its own source file:
//   ChannelEventFilter.cpp      includeEventWithEvtcodeMessage
//   ChannelCheckpointing.cpp    checkPoint, saveBookMark, getBookMark, deleteCheckpointFile
//   directory/WinLookupAdObjCache.cpp  the directory-object cache

#include <cstdint>
#include <string>
#include <vector>

#include "channel/WinEventLogChannelBase.h"
#include "directory/AdObjBlacklistMemo.h"
#include "directory/WinLookupAdObjCache.h"
#include "checkpoint/WELCheckPointBase.h"

namespace skorva {

class WinEventLogChannel : public WinEventLogChannelBase {
public:
    using WinLookupAdObjCache = ::skorva::WinLookupAdObjCache;

    WinEventLogChannel(std::string channelName, ChannelSettings settings);
    ~WinEventLogChannel() override;

    // ---- Reading (ChannelReading.cpp)
    // Opens the channel: a newest-first query while the start is "newest" and
    // that phase is not over, otherwise a subscription after the last event sent.
    bool init();
    // Closes the result handle, render context and notify event.
    void uninit();
    // Appends the events read in this call (bounded, about 3000 at most).
    void getEventsNew(EventBatch& records);
    bool initialized() const { return initialized_; }
    // False once the result handle went bad ("updated"): the worker re-opens.
    bool channelState() const { return channelState_; }
    // Marks the channel "updated": it is re-opened after the last event sent.
    void setUpdated() { channelState_ = false; }
    // The channel did not exist at the last open or read.
    bool channelMissing() const { return channelMissing_; }
    // A subscription (not a query) is open.
    bool subscriptionReady() const { return initialized_ && subscribed_; }
    // The last read filled its batches: more events may be waiting now.
    bool eventsPending() const { return eventsPending_; }
    HANDLE notifyEvent() const { return notifyEvent_.get(); }
    // The newest-first query of the existing events is open. A query belongs to
    // the thread that made it: it is read and closed there.
    bool readingReverse() const { return initialized_ && !subscribed_ && reversePhase_; }
    // The newest-first reading of the existing events has not ended yet (it ends
    // only once its query reported no more items).
    bool reversePhaseOpen() const { return startFromNewest_ && reverseState_ != ReverseState::Done; }
    // The newest-first query reported no more items.
    bool reverseComplete() const { return reverseComplete_; }
    // Ends the newest-first phase: its newest record becomes the position, the
    // query is closed; the next init subscribes after it.
    void endReversePhase();
    // The batch size in use (batch_size, 1 when outside 1..1000, halved while
    // the service refuses batches that large).
    uint32_t batchSize() const { return batchSize_; }
    // The events up to `event` are out: reading resumes after it whenever the
    // channel is opened again in this run.
    void markWritten(EVT_HANDLE event, uint64_t recordNumber);

    bool queryEvtChannel(const std::wstring& name, bool forward, bool fromFile);
    bool subscribeToEvtChannel(const std::wstring& name);
    // Handles the failure of EvtNext (GetLastError() still holds it); returns anyRead.
    bool handleGetEventsError(bool anyRead, uint32_t index, uint32_t count);
    // Drops the record of slot `index`, closes the later slots, marks the channel "updated".
    void resetChannel(EventBatch& records, uint32_t index, uint32_t count);

    // ---- Filter on a message-bearing key, once the message is formatted.
    bool includeEventWithEvtcodeMessage(const std::string& key, const std::string& value) const;

    // ---- Checkpoints
    bool checkPoint(EVT_HANDLE event, uint64_t recordNumber, bool force);
    bool saveBookMark(EVT_HANDLE event, const std::wstring& suffix);
    // A bookmark handle restored from the checkpoint file (suffix: "" or "reverse"),
    // or an empty owner when there is no usable checkpoint; `recordId` receives
    // the record it names.
    UniqueEvtHandle getBookMark(const std::wstring& suffix = std::wstring(), uint64_t* recordId = nullptr);
    bool deleteCheckpointFile();
    const std::wstring& checkpointFilePath() const { return checkpointFilePath_; }
    // Set by the reader while it reads newest first.
    void setReversePhase(bool on) { reversePhase_ = on; }
    // True while a sent event waits for the checkpoint interval to be written.
    bool hasPendingCheckpoint() const { return pendingBookmark_.valid() || pendingLegacy_; }
    // The legacy reader's position, written as a checkpoint string.
    CheckpointMap& checkpointMap() { return checkpointMap_; }

    // ---- Directory-object cache and blacklist memo
    WinLookupAdObjCache& adObjCache() { return adObjCache_; }
    AdObjBlacklistMemo& adObjBlacklistMemo() { return adObjBlacklistMemo_; }

protected:
    // Reading state
    UniqueEvtHandle resultHandle_;
    UniqueHandle notifyEvent_;
    bool initialized_ = false;
    bool channelState_ = false;
    bool channelMissing_ = false;
    bool subscribed_ = false;
    bool eventsPending_ = false;
    bool startFromNewest_ = false;
    uint32_t batchSize_ = 1;
    uint32_t batchLimit_ = 1000;          // lowered while EvtNext refuses larger batches
    std::vector<EVT_HANDLE> eventSlots_;  // EvtNext's array, one slot per batch entry
    std::vector<uint8_t> values_;         // rendered system values, reused
    DWORD valuesSize_ = 0;
    std::string sidMessage_;              // narrow message for SID translation, reused

    // The last event sent: every re-open resumes after it. Restored from the
    // checkpoint file at the first open, then kept by markWritten.
    UniqueEvtHandle position_;
    uint64_t positionId_ = 0;
    bool positionLoaded_ = false;   // the checkpoint file was consulted
    bool positionFromRun_ = false;  // an event was sent in this run

    // Newest-first phase (start_from "newest"): the newest record when the
    // phase began (the anchor, also kept in the "reverse" file) and, while its
    // query is read, which records are already out.
    enum class ReverseState { Unknown, Open, Done };
    ReverseState reverseState_ = ReverseState::Unknown;
    bool reversePhase_ = false;      // the query is open
    bool reverseComplete_ = false;   // the query reported no more items
    UniqueEvtHandle anchor_;
    uint64_t anchorId_ = 0;
    bool anchorSaved_ = false;       // the "reverse" file holds the anchor
    bool guardActive_ = false;       // records from `guardId_` up are out already
    uint64_t guardId_ = 0;
    bool guardInclusive_ = false;    // the record `guardId_` itself is not out yet

    enum class BatchEnd { Full, Short, Stop };
    BatchEnd readBatch(EventBatch& records, uint32_t count);
    bool readEvent(EventBatch& records, uint32_t index, uint32_t count);
    bool openModern(const char* fn);
    void loadPosition();
    void quarantineUnreadable(const std::wstring& path);
    bool reversePhaseEndedEarlier() const;
    bool collectorSubscriptionsAccepted() const;
    void closeSlots(uint32_t from, uint32_t count);
    void logNoEvents(const char* fn, DWORD error) const;
    // True when the newest-first reading already sent this record.
    bool alreadySent(uint64_t recordId) const {
        return guardActive_ && (guardInclusive_ ? recordId > guardId_ : recordId >= guardId_);
    }

    // Checkpoint state
    std::wstring checkpointFilePath_;
    uint64_t nextCheckpointDue_ = 0;  // tickNow() time
    // The newest sent event not yet written, kept as the channel's own bookmark
    // (the caller keeps ownership of its event handles), and its record number.
    UniqueEvtHandle pendingBookmark_;
    uint64_t pendingRecordNumber_ = 0;
    bool pendingLegacy_ = false;
    CheckpointMap checkpointMap_;
    std::vector<wchar_t> bookmarkRender_;  // reused for every bookmark rendered
    std::string bookmarkText_;
    void initCheckpointState();
    // Writes the destructor's last checkpoint when one is pending.
    void finalCheckpoint();
    bool usesLegacyCheckpoints() const;
    bool legacyCheckPoint(uint64_t recordNumber, bool force);
    // Makes sure the "reverse" file holds the anchor before the main checkpoint
    // moves during the newest-first phase; false when it could not be written.
    bool saveAnchor(uint64_t recordNumber);
    UniqueEvtHandle bookmarkFor(EVT_HANDLE event);
    bool writeBookmark(EVT_HANDLE bookmark, const std::wstring& suffix);
    std::wstring checkpointPathFor(const std::wstring& suffix) const;
    void ensureCheckpointDirectory(const char* fn) const;

    // Directory-object cache state (settings from the stanza the channel is made with)
    WinLookupAdObjCache adObjCache_{
        [this](const std::wstring& object, std::wstring& out, DWORD offered, DWORD wanted) {
            return transADObject(object, out, offered, wanted);
        },
        settings_.adCache};
    AdObjBlacklistMemo adObjBlacklistMemo_;
};

}  // namespace skorva
