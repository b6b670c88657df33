#pragma once
// The reader of one event log channel through the modern event log API.
// Members by concern, each implemented in its own source file:
//   ChannelEventFilter.cpp      includeEventWithEvtcodeMessage
//   ChannelCheckpointing.cpp    checkPoint, saveBookMark, getBookMark, deleteCheckpointFile
//   directory/WinLookupAdObjCache.cpp  the directory-object cache

#include <cstdint>
#include <string>

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
