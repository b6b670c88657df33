#pragma once
// When a channel's reading position reaches its checkpoint file, and the
// bookmarks to and from its files: the main checkpoint and, while the existing
// records are read newest first, the "reverse" one that holds where that phase
// began (the anchor). The anchor is on disk before the main checkpoint first
// moves, so a later run never takes a phase cut short for a finished one.

#include <cstdint>
#include <string>

#include "checkpoint/WELCheckPointBase.h"
#include "config/ChannelSettings.h"
#include "eventlog/Bookmark.h"

namespace skorva {

class CheckpointPolicy {
public:
    // `settings` belong to the channel and outlive the policy.
    CheckpointPolicy(const std::string& channelName, const std::wstring& channelNameW,
                     const ChannelSettings& settings);
    CheckpointPolicy(const CheckpointPolicy&) = delete;
    CheckpointPolicy& operator=(const CheckpointPolicy&) = delete;

    // The newest sent event is written when the interval has passed (at once
    // with `force` or an interval of 0); until then it is kept pending.
    bool checkPoint(EVT_HANDLE event, uint64_t recordNumber, bool force);
    bool saveBookMark(EVT_HANDLE event, const std::wstring& suffix);
    // The bookmark a checkpoint file holds (suffix "" or "reverse"); an empty
    // one when there is no usable checkpoint. `recordId` receives the record it names.
    Bookmark getBookMark(const std::wstring& suffix = std::wstring(), uint64_t* recordId = nullptr);
    bool deleteCheckpointFile();
    // The destructor's last checkpoint, when one is pending.
    void finalCheckpoint();

    const std::wstring& checkpointFilePath() const { return checkpointFilePath_; }
    std::wstring checkpointPathFor(const std::wstring& suffix) const;
    bool hasPendingCheckpoint() const { return pendingBookmark_.valid() || pendingLegacy_; }
    // The legacy reader's position, written as a checkpoint string.
    CheckpointMap& checkpointMap() { return checkpointMap_; }
    // The channel is read through the classic API: its checkpoints are
    // checkpoint strings, not bookmarks.
    void setLegacy(bool on) { legacy_ = on; }
    // A legacy checkpoint file's pairs (suffix "" or "reverse"). A bookmark
    // left by the modern reader gives its record as "record_id": the record
    // numbers are the same. False when there is no usable file.
    bool readLegacyCheckpoint(const std::wstring& suffix, CheckpointMap& out) const;
    // Set while the newest-first query is read (a legacy checkpoint then goes
    // to the "reverse" file).
    void setReversePhase(bool on) { readingReverse_ = on; }

    // ---- The newest-first phase (start_from "newest")
    // Reads the files as the last run left them, once: an unreadable one is set
    // aside; with `newestFirst`, whether the phase is still open and its anchor.
    void loadFiles(bool newestFirst);
    // The phase is known to go on from an earlier run (or to begin now), or
    // to have ended in this run or an earlier one.
    bool phaseOpen() const { return phase_ == Phase::Open; }
    bool phaseDone() const { return phase_ == Phase::Done; }
    // The first record read newest first becomes the anchor.
    void noteAnchor(EVT_HANDLE event, uint64_t recordId);
    EVT_HANDLE anchor() const { return anchor_.get(); }
    uint64_t anchorId() const { return anchorId_; }
    // Ends the phase: the anchor becomes the main checkpoint and the "reverse"
    // file goes. Returns the anchor (empty when none was seen) and its record.
    Bookmark endPhase(uint64_t& anchorId);
    // The same for a legacy channel: `anchorId` becomes the main checkpoint.
    void endLegacyPhase(uint64_t anchorId);

private:
    bool usesLegacyCheckpoints() const;
    bool legacyCheckPoint(uint64_t recordNumber, bool force);
    void keepPending(EVT_HANDLE event, uint64_t recordNumber);
    // Makes sure the "reverse" file holds the anchor before the main checkpoint
    // moves during the newest-first phase; false when it could not be written.
    bool saveAnchor(uint64_t recordNumber);
    Bookmark bookmarkFor(EVT_HANDLE event);
    bool writeBookmark(const Bookmark& bookmark, const std::wstring& suffix);
    bool phaseEndedEarlier() const;
    bool legacyBookmarkText(const std::string& text, bool reverse, std::string& out) const;
    void quarantineUnreadable(const std::wstring& path);
    void ensureCheckpointDirectory(const char* fn) const;

    const std::string& channelName_;
    const std::wstring& channelNameW_;
    const ChannelSettings& settings_;
    std::wstring checkpointFilePath_;
    uint64_t nextCheckpointDue_ = 0;  // tickNow() time
    // The newest sent event not yet written, kept as the channel's own bookmark
    // (the caller keeps ownership of its event handles), and its record number.
    Bookmark pendingBookmark_;
    uint64_t pendingRecordNumber_ = 0;
    bool pendingLegacy_ = false;
    CheckpointMap checkpointMap_;
    std::string bookmarkText_;  // reused for every bookmark written
    bool readingReverse_ = false;
    bool legacy_ = false;

    enum class Phase { Unknown, Open, Done };
    Phase phase_ = Phase::Unknown;
    Bookmark anchor_;
    uint64_t anchorId_ = 0;
    bool anchorSaved_ = false;  // the "reverse" file holds the anchor
};

}  // namespace skorva
