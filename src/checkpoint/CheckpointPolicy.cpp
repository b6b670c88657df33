#include "checkpoint/CheckpointPolicy.h"

#include <utility>

#include "checkpoint/CheckpointPath.h"
#include "checkpoint/WELCheckPoint.h"
#include "platform/Clock.h"
#include "platform/Logger.h"
#include "platform/Paths.h"
#include "platform/Strings.h"

namespace skorva {

namespace {
const char* const kCheckPoint = "WinEventLogChannel::checkPoint";
const char* const kSaveBookMark = "WinEventLogChannel::saveBookMark";
const char* const kInit = "WinEventLogChannel::init";
}  // namespace

CheckpointPolicy::CheckpointPolicy(const std::string& channelName, const std::wstring& channelNameW,
                                   const ChannelSettings& settings)
    : channelName_(channelName), channelNameW_(channelNameW), settings_(settings) {
    if (!settings_.checkpointDir.empty())
        checkpointFilePath_ = skorva::checkpointFilePath(settings_.checkpointDir, channelNameW_);
    nextCheckpointDue_ = addSaturating(tickNow(), settings_.checkpointIntervalMs);
    checkpointMap_ = {{"record_id", "0"}, {"channel", channelName_}};
}

std::wstring CheckpointPolicy::checkpointPathFor(const std::wstring& suffix) const {
    if (suffix.empty() || settings_.checkpointDir.empty()) return checkpointFilePath_;
    return skorva::checkpointFilePath(settings_.checkpointDir, channelNameW_, suffix);
}

bool CheckpointPolicy::usesLegacyCheckpoints() const { return legacy_; }

void CheckpointPolicy::finalCheckpoint() {
    if (hasPendingCheckpoint() && !checkPoint(nullptr, pendingRecordNumber_, true))
        LOG_ERROR("%s: Failed to checkpoint for channel='%s'", "WinEventLogChannel::~WinEventLogChannel",
                  channelName_.c_str());
}

bool CheckpointPolicy::checkPoint(EVT_HANDLE event, uint64_t recordNumber, bool force) {
    if (usesLegacyCheckpoints()) return legacyCheckPoint(recordNumber, force);

    const bool deferred = settings_.checkpointIntervalMs != 0 && !force;
    if (event && deferred) keepPending(event, recordNumber);

    const uint64_t now = tickNow();
    if (!force && now < nextCheckpointDue_) return true;

    const bool fromEvent = event != nullptr && !(deferred && pendingBookmark_);
    const uint64_t recId = fromEvent || !pendingBookmark_ ? recordNumber : pendingRecordNumber_;
    LOG_DEBUG("%s: Checkpointing for Windows Event Log channel='%s' at rec_id='%llu'", kCheckPoint,
              channelName_.c_str(), static_cast<unsigned long long>(recId));
    if (!fromEvent && !pendingBookmark_) {
        LOG_DEBUG("%s: Checkpointing for Windows Event Log channel='%s' at rec_id='%llu' failed because evtHandle is "
                  "NULL",
                  kCheckPoint, channelName_.c_str(), static_cast<unsigned long long>(recId));
        return false;
    }
    // Without the anchor on disk a later run would take a main checkpoint inside
    // the phase for its end and never read the older records.
    if (!saveAnchor(recId)) return false;
    const bool saved =
        fromEvent ? saveBookMark(event, std::wstring()) : writeBookmark(pendingBookmark_, std::wstring());
    if (!saved) {
        // Kept pending: the next due call retries with a newer event.
        LOG_DEBUG("%s: Failed to save bookmark for Windows Event Log channel='%s', rec_id='%llu'", kCheckPoint,
                  channelName_.c_str(), static_cast<unsigned long long>(recId));
        return false;
    }
    nextCheckpointDue_ = addSaturating(now, settings_.checkpointIntervalMs);
    pendingBookmark_.reset();
    return true;
}

// One bookmark follows the newest sent event until it is written.
void CheckpointPolicy::keepPending(EVT_HANDLE event, uint64_t recordNumber) {
    if (!pendingBookmark_)
        pendingBookmark_ = bookmarkFor(event);
    else if (!pendingBookmark_.update(event))
        LOG_ERROR("%s: Failed to update Windows Event Log bookmark, channel='%s'", kCheckPoint, channelName_.c_str());
    if (pendingBookmark_) pendingRecordNumber_ = recordNumber;
}

bool CheckpointPolicy::saveAnchor(uint64_t recordNumber) {
    if (phase_ != Phase::Open || anchorSaved_) return true;
    if (anchor_ && writeBookmark(anchor_, L"reverse")) {
        anchorSaved_ = true;
        return true;
    }
    LOG_DEBUG("%s: Failed to save first event bookmark for channel='%s', rec_id='%llu'", kCheckPoint,
              channelName_.c_str(), static_cast<unsigned long long>(recordNumber));
    return false;
}

bool CheckpointPolicy::legacyCheckPoint(uint64_t recordNumber, bool force) {
    checkpointMap_["record_id"] = std::to_string(recordNumber);
    pendingRecordNumber_ = recordNumber;
    pendingLegacy_ = true;
    const uint64_t now = tickNow();
    if (!force && now < nextCheckpointDue_) return true;
    LOG_DEBUG("%s: Checkpointing for Windows Event Log channel='%s' at rec_id='%llu'", kCheckPoint,
              channelName_.c_str(), static_cast<unsigned long long>(recordNumber));
    std::string str;
    if (!WELCheckPoint::buildCheckpointStr(checkpointMap_, str)) return false;
    ensureCheckpointDirectory(kCheckPoint);
    if (!WELCheckPoint::saveCheckpointStr(checkpointPathFor(readingReverse_ ? L"reverse" : L""), str,
                                          settings_.checkpointSync))
        return false;
    nextCheckpointDue_ = addSaturating(now, settings_.checkpointIntervalMs);
    pendingLegacy_ = false;
    return true;
}

void CheckpointPolicy::ensureCheckpointDirectory(const char* fn) const {
    // A failure here shows up as the failed save that follows.
    if (!isDirectory(settings_.checkpointDir) && !createDirectories(settings_.checkpointDir))
        LOG_DEBUG("%s: Failed to create check point dir: '%s'", fn, narrow(settings_.checkpointDir).c_str());
}

Bookmark CheckpointPolicy::bookmarkFor(EVT_HANDLE event) {
    Bookmark bookmark;
    if (!bookmark.create()) {
        LOG_ERROR("%s: Failed to create Windows event log bookmark event, channel='%s'", kSaveBookMark,
                  channelName_.c_str());
        return bookmark;
    }
    if (!bookmark.update(event)) {
        LOG_ERROR("%s: Failed to update Windows Event Log bookmark, channel='%s'", kSaveBookMark,
                  channelName_.c_str());
        bookmark.reset();
    }
    return bookmark;
}

bool CheckpointPolicy::saveBookMark(EVT_HANDLE event, const std::wstring& suffix) {
    const Bookmark bookmark = bookmarkFor(event);
    return bookmark && writeBookmark(bookmark, suffix);
}

bool CheckpointPolicy::writeBookmark(const Bookmark& bookmark, const std::wstring& suffix) {
    switch (bookmark.render(bookmarkText_)) {
    case Bookmark::Rendered::OutOfMemory:
        LOG_ERROR("%s: Failed to allocate buffer to store checkpoint", kSaveBookMark);
        return false;
    case Bookmark::Rendered::Failed:
        LOG_ERROR("%s: Failed to render Windows Event Log bookmark, channel='%s'", kSaveBookMark, channelName_.c_str());
        return false;
    case Bookmark::Rendered::Ok:
        break;
    }
    LOG_DEBUG("%s: Save bookmark with text %s", kSaveBookMark, bookmarkText_.c_str());
    ensureCheckpointDirectory(kSaveBookMark);
    const std::wstring path = checkpointPathFor(suffix);
    if (!WELCheckPoint::saveCheckpointStr(path, bookmarkText_, settings_.checkpointSync)) {
        LOG_ERROR("%s: Failed to save checkpoint_file='%s' for channel='%s'", kSaveBookMark, narrow(path).c_str(),
                  channelName_.c_str());
        return false;
    }
    return true;
}

Bookmark CheckpointPolicy::getBookMark(const std::wstring& suffix, uint64_t* recordId) {
    static const char* const fn = "WinEventLogChannel::getBookMark";
    const std::wstring path = checkpointPathFor(suffix);
    Bookmark bookmark;
    if (path.empty() || !pathExists(path)) {
        LOG_INFO("%s: No checkpoint file available", fn);
        return bookmark;
    }
    std::string text;
    if (!WELCheckPoint::getCheckpointStr(path, text)) {
        LOG_WARN("%s: Failed to get checkpoint string from persistent storage file='%s'", fn, narrow(path).c_str());
        return bookmark;
    }
    // A checkpoint string left by the classic reader names the same record.
    std::string converted;
    const std::string* used = &text;
    if (!bookmark.createFrom(text)) {
        if (legacyBookmarkText(text, suffix == L"reverse", converted) && bookmark.createFrom(converted))
            used = &converted;
        else
            LOG_INFO("%s Failed to create bookmark handle from checkpoint file: %s", fn, text.c_str());
    }
    if (bookmark && recordId) *recordId = Bookmark::recordIdOf(*used);
    return bookmark;
}

// The bookmark XML the service would have rendered for the record a legacy
// checkpoint string names (in the "reverse" file, where the phase began).
bool CheckpointPolicy::legacyBookmarkText(const std::string& text, bool reverse, std::string& out) const {
    CheckpointMap map;
    uint64_t id = 0;
    if (text.find('<') != std::string::npos || !WELCheckPoint::parseCheckpointStr(text, map) ||
        !parseUInt64(map[reverse ? "newest_record_id" : "record_id"], id) || id == 0)
        return false;
    out = "<BookmarkList>\r\n  <Bookmark Channel='" + channelName_ + "' RecordId='" + std::to_string(id) +
          "' IsCurrent='true'/>\r\n</BookmarkList>";
    return true;
}

bool CheckpointPolicy::deleteCheckpointFile() {
    static const char* const fn = "WinEventLogChannel::deleteCheckpointFile";
    LOG_INFO("%s: delete bookmark with text %s", fn, narrow(checkpointFilePath_).c_str());
    if (checkpointFilePath_.empty() || !::DeleteFileW(longPath(checkpointFilePath_).c_str())) {
        LOG_ERROR("%s: Failed to delete checkpoint file for Windows Event Log channel='%s' ", fn, channelName_.c_str());
        return false;
    }
    return true;
}

void CheckpointPolicy::loadFiles(bool newestFirst) {
    if (checkpointFilePath_.empty()) return;
    for (const wchar_t* suffix : {L"", L"reverse"}) {
        const std::wstring path = checkpointPathFor(suffix);
        CheckpointMap map;
        if (!pathExists(path) ||
            (legacy_ ? readLegacyCheckpoint(suffix, map) : WELCheckPointBase::validateCheckpointStr(path)))
            continue;
        LOG_ERROR("%s: Failed to checkpoint for channel='%s'", kInit, channelName_.c_str());
        quarantineUnreadable(path);
    }
    if (!newestFirst) return;
    phase_ = phaseEndedEarlier() ? Phase::Done : Phase::Open;
    if (phase_ != Phase::Open || legacy_) return;
    anchor_ = getBookMark(L"reverse", &anchorId_);
    anchorSaved_ = anchor_.valid();
}

// A file that is neither a bookmark nor a checkpoint string is set aside, not
// deleted: the operator may still want what it holds.
void CheckpointPolicy::quarantineUnreadable(const std::wstring& path) {
    const std::wstring kept = path + L".unreadable";
    if (::MoveFileExW(longPath(path).c_str(), longPath(kept).c_str(), MOVEFILE_REPLACE_EXISTING)) {
        LOG_ERROR("%s: Checkpoint file='%s' of channel='%s' cannot be read and is kept as '%s'; the channel starts as "
                  "its settings say, so events may be sent again",
                  kInit, narrow(path).c_str(), channelName_.c_str(), narrow(kept).c_str());
    } else {
        LOG_ERROR("%s: Checkpoint file='%s' of channel='%s' cannot be read nor moved aside (error=%lu); the channel "
                  "starts as its settings say, so events may be sent again",
                  kInit, narrow(path).c_str(), channelName_.c_str(), ::GetLastError());
    }
}

// A later run knows the phase is over from a main checkpoint without a "reverse" one.
bool CheckpointPolicy::phaseEndedEarlier() const {
    return !checkpointFilePath_.empty() && pathExists(checkpointFilePath_) &&
           !pathExists(checkpointPathFor(L"reverse"));
}

void CheckpointPolicy::noteAnchor(EVT_HANDLE event, uint64_t recordId) {
    if (anchor_) return;
    anchor_ = bookmarkFor(event);
    anchorId_ = recordId;
}

Bookmark CheckpointPolicy::endPhase(uint64_t& anchorId) {
    static const char* const fn = "WinEventLogChannel::endReversePhase";
    phase_ = Phase::Done;
    // The oldest record read backwards must not reach the file after this.
    pendingBookmark_.reset();
    if (anchor_ && !checkpointFilePath_.empty() && !settings_.suppressCheckpoint) {
        if (!writeBookmark(anchor_, std::wstring())) {
            // The "reverse" file stays, so a restart finishes the phase rather than skip it.
            LOG_ERROR("%s: Failed to checkpoint for channel='%s'", fn, channelName_.c_str());
        } else {
            const std::wstring reversePath = checkpointPathFor(L"reverse");
            if (pathExists(reversePath) && !::DeleteFileW(longPath(reversePath).c_str()))
                LOG_WARN("%s: Failed to remove checkpoint_file='%s' for channel='%s', error=%lu", fn,
                         narrow(reversePath).c_str(), channelName_.c_str(), ::GetLastError());
        }
    }
    anchorId = anchorId_;
    return std::move(anchor_);
}

bool CheckpointPolicy::readLegacyCheckpoint(const std::wstring& suffix, CheckpointMap& out) const {
    const std::wstring path = checkpointPathFor(suffix);
    std::string text;
    out.clear();
    if (path.empty() || !pathExists(path) || !WELCheckPoint::getCheckpointStr(path, text)) return false;
    if (WELCheckPoint::parseCheckpointStr(text, out) && out.count("record_id")) return true;
    out.clear();
    const uint64_t recordId = Bookmark::recordIdOf(text);
    if (recordId == 0) return false;
    out["record_id"] = std::to_string(recordId);
    return true;
}

void CheckpointPolicy::endLegacyPhase(uint64_t anchorId) {
    static const char* const fn = "WinEventLogChannel::endReversePhase";
    phase_ = Phase::Done;
    readingReverse_ = false;
    // The oldest record read backwards must not reach the main file after this.
    pendingLegacy_ = false;
    checkpointMap_.erase("newest_record_id");
    checkpointMap_["record_id"] = std::to_string(anchorId);
    if (checkpointFilePath_.empty() || settings_.suppressCheckpoint) return;
    std::string str;
    ensureCheckpointDirectory(fn);
    if (!WELCheckPoint::buildCheckpointStr(checkpointMap_, str) ||
        !WELCheckPoint::saveCheckpointStr(checkpointFilePath_, str, settings_.checkpointSync)) {
        // The "reverse" file stays, so a restart finishes the phase rather than skip it.
        LOG_ERROR("%s: Failed to checkpoint for channel='%s'", fn, channelName_.c_str());
        return;
    }
    const std::wstring reversePath = checkpointPathFor(L"reverse");
    if (pathExists(reversePath) && !::DeleteFileW(longPath(reversePath).c_str()))
        LOG_WARN("%s: Failed to remove checkpoint_file='%s' for channel='%s', error=%lu", fn,
                 narrow(reversePath).c_str(), channelName_.c_str(), ::GetLastError());
}

}  // namespace skorva
