#pragma once
// A channel's message formatting: the texts EvtFormatMessage gives for an event
// (message, level, task, opcode, keywords, provider), with the fallbacks when a
// publisher's resources are missing, and the cache of publisher-metadata
// handles behind them. Used by one pass at a time: no lock.

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "channel/EventRecord.h"
#include "channel/WinEventMetadataHandle.h"
#include "eventlog/BufferGrowth.h"

namespace skorva {

// No message id: the text is the event's own (by the format flag).
inline constexpr DWORD kNoMessageId = static_cast<DWORD>(-1);

class MessageFormatter {
public:
    // A cached handle unused this long is closed, at sweeps at most this often.
    static constexpr uint64_t kIdleMs = 10000;
    static constexpr uint64_t kSweepIntervalMs = 2000;

    explicit MessageFormatter(const std::string& channelName);
    MessageFormatter(const MessageFormatter&) = delete;
    MessageFormatter& operator=(const MessageFormatter&) = delete;

    // The publisher's metadata handle, opened once and kept while it is used;
    // null when the publisher cannot be opened (remembered too).
    EVT_HANDLE getPublisherMetadata(const std::wstring& publisher);
    // Closes the handles unused for a while (all with `force`), at most every 2 s.
    void cleanMetadataHandleCache(bool force);

    // One text of `event` (or of `messageId`) into `out`; false when none could be had.
    bool formatMessageByFlag(EVT_HANDLE metadata, EVT_HANDLE event, DWORD flag, DWORD messageId, std::wstring& out);
    // The error of the last formatMessageByFlag call (0 when it succeeded).
    DWORD lastFormatError() const { return lastFormatError_; }
    // The event message into record.message, with the system's text of the
    // error appended when none could be had (then false).
    bool formatEventMessage(EVT_HANDLE metadata, EventRecord& record);
    // A new event: whether it carries its own rendering information is not known yet.
    void beginEvent() { preRendered_ = false; }
    // The channel's events are rendered at their source (an event collector
    // subscription delivers them so): their message is their own text or none,
    // never one pieced together from their data.
    void setPreRendered(bool on) { channelPreRendered_ = on; }
    bool preRendered() const { return channelPreRendered_; }

private:
    enum class Next { Retry, GiveUp, Fallback };

    // One EvtFormatMessage call, the buffer grown as the service asks.
    SizedCall formatOnce(EVT_HANDLE metadata, EVT_HANDLE event, DWORD flag, DWORD messageId, unsigned& growths);
    // What a failed call leads to: another try (without the publisher, or
    // after a transient service failure), giving up, or the fallbacks.
    Next afterFailure(DWORD error, EVT_HANDLE& metadata, EVT_HANDLE event, DWORD flag, bool parameterRetry,
                      unsigned& attempts);
    // The text a failed call left in the buffer, else the event's own data.
    bool fallback(EVT_HANDLE offeredMetadata, EVT_HANDLE event, DWORD flag, const SizedCall& call, std::wstring& out);
    // Builds the message from the event's own string data (placeholder fallback).
    bool placeholderMessage(EVT_HANDLE event, std::wstring& out, DWORD& dataCount);
    // The characters of the last answer: never past the buffer, whatever the service says.
    DWORD visibleChars(DWORD used) const { return used != 0 && used < formatChars_ ? used : formatChars_; }

    struct PublisherEntry {
        PublisherEntry(EVT_HANDLE h, uint64_t t) : handle(h), lastUse(t) {}
        WinEventMetadataHandle handle;
        uint64_t lastUse;
    };

    const std::string& channelName_;
    std::map<std::wstring, PublisherEntry> publisherCache_;
    uint64_t lastMetadataSweep_ = 0;
    std::vector<wchar_t> formatBuffer_;  // reused by every call, grown once a text does not fit
    DWORD formatChars_;
    DWORD lastFormatError_ = 0;
    bool preRendered_ = false;            // this event's own rendering information answered
    bool channelPreRendered_ = false;
    UniqueEvtHandle userRenderContext_;   // the event's data values
    std::vector<uint8_t> userValues_;
    DWORD userValuesSize_ = 0;
};

}  // namespace skorva
