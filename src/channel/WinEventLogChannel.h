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
    // that phase is not over, otherwise a subscription after the checkpoint.
    bool init();
    // Closes the result handle, render context and notify event.
    void uninit();
    // Appends the events read in this call (bounded, about 3000 at most).
    void getEventsNew(EventBatch& records);
    bool initialized() const { return initialized_; }
    // False once the result handle went bad ("updated"): the worker re-opens.
    bool channelState() const { return channelState_; }
    // The channel did not exist at the last open or read.
    bool channelMissing() const { return channelMissing_; }
    // A subscription (not a query) is open.
    bool subscriptionReady() const { return initialized_ && subscribed_; }
    // The last read filled its batches: more events may be waiting now.
    bool eventsPending() const { return eventsPending_; }
    HANDLE notifyEvent() const { return notifyEvent_.get(); }
    // The newest-first reading of the existing events is in progress.
    bool readingReverse() const { return initialized_ && !subscribed_ && startFromNewest_; }
    // Ends the newest-first phase: closes the query; the next init subscribes.
    void endReversePhase();
    // The batch size in use (batch_size, 1 when outside 1..1000).
    uint32_t batchSize() const { return batchSize_; }

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
    // or an empty owner when there is no usable checkpoint.
    UniqueEvtHandle getBookMark(const std::wstring& suffix = std::wstring());
    bool deleteCheckpointFile();
    const std::wstring& checkpointFilePath() const { return checkpointFilePath_; }
    // Set by the reader while it reads newest first: the first event checkpointed
    // in that phase is also bookmarked under the suffix "reverse".
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
    bool reverseDone_ = false;       // the newest-first phase ended in this run
    UniqueEvtHandle reverseNewest_;  // bookmark of the first event read in that phase
    UniqueEvtHandle startAfter_;     // where the first subscription after that phase starts
    uint32_t batchSize_ = 1;
    std::vector<EVT_HANDLE> eventSlots_;  // EvtNext's array, one slot per batch entry
    std::vector<uint8_t> values_;         // rendered system values, reused
    DWORD valuesSize_ = 0;
    std::string sidMessage_;              // narrow message for SID translation, reused
    enum class BatchEnd { Full, Short, Stop };
    BatchEnd readBatch(EventBatch& records, uint32_t count);
    bool readEvent(EventBatch& records, uint32_t index, uint32_t count);
    bool openModern(const char* fn);
    bool reversePhaseEndedEarlier() const;
    bool collectorSubscriptionsAccepted() const;
    void closeSlots(uint32_t from, uint32_t count);

    // Checkpoint state
    std::wstring checkpointFilePath_;
    uint64_t nextCheckpointDue_ = 0;  // tickNow() time
    // The newest sent event not yet written, kept as the channel's own bookmark
    // (the caller keeps ownership of its event handles), and its record number.
    UniqueEvtHandle pendingBookmark_;
    uint64_t pendingRecordNumber_ = 0;
    bool pendingLegacy_ = false;
    bool reversePhase_ = false;
    bool reverseBookmarkSaved_ = false;
    UniqueEvtHandle firstReverseBookmark_;  // captured, not yet written
    uint64_t firstReverseRecordNumber_ = 0;
    CheckpointMap checkpointMap_;
    std::vector<wchar_t> bookmarkRender_;  // reused for every bookmark rendered
    std::string bookmarkText_;
    void initCheckpointState();
    // Writes the destructor's last checkpoint when one is pending.
    void finalCheckpoint();
    bool usesLegacyCheckpoints() const;
    bool legacyCheckPoint(uint64_t recordNumber, bool force);
    UniqueEvtHandle bookmarkFor(EVT_HANDLE event);
    bool writeBookmark(EVT_HANDLE bookmark, const std::wstring& suffix);
    std::wstring checkpointPathFor(const std::wstring& suffix) const;
    void ensureCheckpointDirectory(const char* fn) const;

    // Directory-object cache state (settings from the stanza the channel is made with)
    WinLookupAdObjCache adObjCache_{*this, settings_.adCache};
    AdObjBlacklistMemo adObjBlacklistMemo_;
};

}  // namespace skorva
