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

    // ---- Directory-object cache and blacklist memo
    WinLookupAdObjCache& adObjCache() { return adObjCache_; }
    AdObjBlacklistMemo& adObjBlacklistMemo() { return adObjBlacklistMemo_; }

protected:
    // Checkpoint state
    std::wstring checkpointFilePath_;

    // Directory-object cache state (settings from the stanza the channel is made with)
    WinLookupAdObjCache adObjCache_{*this, settings_.adCache};
    AdObjBlacklistMemo adObjBlacklistMemo_;
};

}  // namespace skorva
