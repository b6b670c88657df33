// The checkpoint side of a channel: when its reading position is written, and
// the conversion between event log bookmarks and the checkpoint file.
#include <algorithm>
#include <new>
#include <string_view>

#include "channel/WinEventLogChannel.h"
#include "checkpoint/CheckpointPath.h"
#include "checkpoint/WELCheckPoint.h"
#include "platform/Clock.h"
#include "platform/Logger.h"
#include "platform/Paths.h"
#include "platform/Strings.h"

namespace skorva {

namespace {

// The record a bookmark names ("... RecordId='386038' IsCurrent='true'/>"), the
// current one when it holds several; 0 when it names none.
uint64_t bookmarkRecordId(std::string_view text) {
    static constexpr std::string_view kKey = "RecordId='";
    uint64_t id = 0;
    for (size_t at = text.find(kKey); at != std::string_view::npos; at = text.find(kKey, at + 1)) {
        uint64_t value = 0;
        for (size_t i = at + kKey.size(); i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i)
            value = value * 10 + static_cast<uint64_t>(text[i] - '0');
        const size_t end = text.find("/>", at);
        const bool current = text.substr(at, end == std::string_view::npos ? text.npos : end - at).find("IsCurrent='true'") !=
                             std::string_view::npos;
        if (id == 0 || current) id = value;
    }
    return id;
}

}  // namespace

void WinEventLogChannel::initCheckpointState() {
    if (!settings_.checkpointDir.empty())
        checkpointFilePath_ = skorva::checkpointFilePath(settings_.checkpointDir, channelNameW_);
    nextCheckpointDue_ = addSaturating(tickNow(), settings_.checkpointIntervalMs);
    checkpointMap_ = {{"record_id", "0"}, {"channel", channelName_}};
}

std::wstring WinEventLogChannel::checkpointPathFor(const std::wstring& suffix) const {
    if (suffix.empty() || settings_.checkpointDir.empty()) return checkpointFilePath_;
    return skorva::checkpointFilePath(settings_.checkpointDir, channelNameW_, suffix);
}

bool WinEventLogChannel::usesLegacyCheckpoints() const {
    return settings_.useOldApi || evtApi().EvtCreateBookmark == nullptr;
}

void WinEventLogChannel::finalCheckpoint() {
    if (hasPendingCheckpoint() && !checkPoint(nullptr, pendingRecordNumber_, true))
        LOG_ERROR("%s: Failed to checkpoint for channel='%s'", "WinEventLogChannel::~WinEventLogChannel",
                  channelName_.c_str());
}

bool WinEventLogChannel::checkPoint(EVT_HANDLE event, uint64_t recordNumber, bool force) {
    static const char* const fn = "WinEventLogChannel::checkPoint";
    if (usesLegacyCheckpoints()) return legacyCheckPoint(recordNumber, force);

    const bool deferred = settings_.checkpointIntervalMs != 0 && !force;
    if (event && deferred) {
        // One bookmark follows the newest sent event until it is written.
        if (!pendingBookmark_) pendingBookmark_ = bookmarkFor(event);
        else if (!evtApi().EvtUpdateBookmark(pendingBookmark_.get(), event))
            LOG_ERROR("%s: Failed to update Windows Event Log bookmark, channel='%s'", fn, channelName_.c_str());
        if (pendingBookmark_) pendingRecordNumber_ = recordNumber;
    }

    const uint64_t now = tickNow();
    if (!force && now < nextCheckpointDue_) return true;

    const bool fromEvent = event != nullptr && !(deferred && pendingBookmark_);
    const uint64_t recId = fromEvent || !pendingBookmark_ ? recordNumber : pendingRecordNumber_;
    LOG_DEBUG("%s: Checkpointing for Windows Event Log channel='%s' at rec_id='%llu'", fn, channelName_.c_str(),
              static_cast<unsigned long long>(recId));
    if (!fromEvent && !pendingBookmark_) {
        LOG_DEBUG("%s: Checkpointing for Windows Event Log channel='%s' at rec_id='%llu' failed because evtHandle is NULL",
                  fn, channelName_.c_str(), static_cast<unsigned long long>(recId));
        return false;
    }
    // Without the anchor on disk a later run would take a main checkpoint inside
    // the phase for its end and never read the older records.
    if (!saveAnchor(recId)) return false;
    const bool saved = fromEvent ? saveBookMark(event, std::wstring()) : writeBookmark(pendingBookmark_.get(), std::wstring());
    if (!saved) {
        // Kept pending: the next due call retries with a newer event.
        LOG_DEBUG("%s: Failed to save bookmark for Windows Event Log channel='%s', rec_id='%llu'", fn,
                  channelName_.c_str(), static_cast<unsigned long long>(recId));
        return false;
    }
    nextCheckpointDue_ = addSaturating(now, settings_.checkpointIntervalMs);
    pendingBookmark_.reset();
    return true;
}

bool WinEventLogChannel::saveAnchor(uint64_t recordNumber) {
    if (reverseState_ != ReverseState::Open || anchorSaved_) return true;
    if (anchor_ && writeBookmark(anchor_.get(), L"reverse")) {
        anchorSaved_ = true;
        return true;
    }
    LOG_DEBUG("%s: Failed to save first event bookmark for channel='%s', rec_id='%llu'", "WinEventLogChannel::checkPoint",
              channelName_.c_str(), static_cast<unsigned long long>(recordNumber));
    return false;
}

bool WinEventLogChannel::legacyCheckPoint(uint64_t recordNumber, bool force) {
    checkpointMap_["record_id"] = std::to_string(recordNumber);
    pendingRecordNumber_ = recordNumber;
    pendingLegacy_ = true;
    const uint64_t now = tickNow();
    if (!force && now < nextCheckpointDue_) return true;
    LOG_DEBUG("%s: Checkpointing for Windows Event Log channel='%s' at rec_id='%llu'", "WinEventLogChannel::checkPoint",
              channelName_.c_str(), static_cast<unsigned long long>(recordNumber));
    std::string str;
    if (!WELCheckPoint::buildCheckpointStr(checkpointMap_, str)) return false;
    ensureCheckpointDirectory("WinEventLogChannel::checkPoint");
    if (!WELCheckPoint::saveCheckpointStr(checkpointPathFor(reversePhase_ ? L"reverse" : L""), str,
                                          settings_.checkpointSync))
        return false;
    nextCheckpointDue_ = addSaturating(now, settings_.checkpointIntervalMs);
    pendingLegacy_ = false;
    return true;
}

void WinEventLogChannel::ensureCheckpointDirectory(const char* fn) const {
    // A failure here shows up as the failed save that follows.
    if (!isDirectory(settings_.checkpointDir) && !createDirectories(settings_.checkpointDir))
        LOG_DEBUG("%s: Failed to create check point dir: '%s'", fn, narrow(settings_.checkpointDir).c_str());
}

UniqueEvtHandle WinEventLogChannel::bookmarkFor(EVT_HANDLE event) {
    static const char* const fn = "WinEventLogChannel::saveBookMark";
    UniqueEvtHandle bookmark(evtApi().EvtCreateBookmark(nullptr));
    if (!bookmark) {
        LOG_ERROR("%s: Failed to create Windows event log bookmark event, channel='%s'", fn, channelName_.c_str());
        return bookmark;
    }
    if (!evtApi().EvtUpdateBookmark(bookmark.get(), event)) {
        LOG_ERROR("%s: Failed to update Windows Event Log bookmark, channel='%s'", fn, channelName_.c_str());
        bookmark.reset();
    }
    return bookmark;
}

bool WinEventLogChannel::saveBookMark(EVT_HANDLE event, const std::wstring& suffix) {
    UniqueEvtHandle bookmark = bookmarkFor(event);
    return bookmark && writeBookmark(bookmark.get(), suffix);
}

bool WinEventLogChannel::writeBookmark(EVT_HANDLE bookmark, const std::wstring& suffix) {
    static const char* const fn = "WinEventLogChannel::saveBookMark";
    const auto render = evtApi().EvtRender;
    DWORD used = 0;
    DWORD count = 0;
    bool rendered = false;
    for (int attempt = 0; attempt < 2 && !rendered; ++attempt) {
        const DWORD bytes = static_cast<DWORD>(bookmarkRender_.size() * sizeof(wchar_t));
        rendered = render(nullptr, bookmark, EvtRenderBookmark, bytes, bookmarkRender_.data(), &used, &count) != FALSE;
        if (rendered) break;
        if (::GetLastError() != ERROR_INSUFFICIENT_BUFFER) break;
        try {
            bookmarkRender_.resize(used / sizeof(wchar_t) + 1);
        } catch (const std::bad_alloc&) {
            LOG_ERROR("%s: Failed to allocate buffer to store checkpoint", fn);
            return false;
        }
    }
    if (!rendered) {
        LOG_ERROR("%s: Failed to render Windows Event Log bookmark, channel='%s'", fn, channelName_.c_str());
        return false;
    }
    // Never past the buffer, whatever the service says it used.
    const size_t chars = std::min<size_t>(used / sizeof(wchar_t), bookmarkRender_.size());
    std::wstring_view text(bookmarkRender_.data(), chars);
    while (!text.empty() && text.back() == L'\0') text.remove_suffix(1);
    narrowInto(text, bookmarkText_);
    LOG_DEBUG("%s: Save bookmark with text %s", fn, bookmarkText_.c_str());

    ensureCheckpointDirectory(fn);
    const std::wstring path = checkpointPathFor(suffix);
    if (!WELCheckPoint::saveCheckpointStr(path, bookmarkText_, settings_.checkpointSync)) {
        LOG_ERROR("%s: Failed to save checkpoint_file='%s' for channel='%s'", fn, narrow(path).c_str(),
                  channelName_.c_str());
        return false;
    }
    return true;
}

UniqueEvtHandle WinEventLogChannel::getBookMark(const std::wstring& suffix, uint64_t* recordId) {
    static const char* const fn = "WinEventLogChannel::getBookMark";
    const std::wstring path = checkpointPathFor(suffix);
    if (path.empty() || !pathExists(path)) {
        LOG_INFO("%s: No checkpoint file available", fn);
        return UniqueEvtHandle();
    }
    std::string text;
    if (!WELCheckPoint::getCheckpointStr(path, text)) {
        LOG_WARN("%s: Failed to get checkpoint string from persistent storage file='%s'", fn, narrow(path).c_str());
        return UniqueEvtHandle();
    }
    UniqueEvtHandle bookmark;
    if (const auto create = evtApi().EvtCreateBookmark) bookmark.reset(create(widen(text).c_str()));
    if (!bookmark) LOG_INFO("%s Failed to create bookmark handle from checkpoint file: %s", fn, text.c_str());
    if (bookmark && recordId) *recordId = bookmarkRecordId(text);
    return bookmark;
}

bool WinEventLogChannel::deleteCheckpointFile() {
    static const char* const fn = "WinEventLogChannel::deleteCheckpointFile";
    LOG_INFO("%s: delete bookmark with text %s", fn, narrow(checkpointFilePath_).c_str());
    if (checkpointFilePath_.empty() || !::DeleteFileW(longPath(checkpointFilePath_).c_str())) {
        LOG_ERROR("%s: Failed to delete checkpoint file for Windows Event Log channel='%s' ", fn, channelName_.c_str());
        return false;
    }
    return true;
}

}  // namespace skorva
