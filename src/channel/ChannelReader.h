#pragma once
// What the channel facade asks of a reader, whichever API it reads through:
// the modern event log API (ModernReader) or the classic one (LegacyReader).

#include <windows.h>

#include <cstdint>

#include "channel/EventRecord.h"

namespace skorva {

class ChannelReader {
public:
    virtual ~ChannelReader() = default;

    // Before opening: the notify event, the batch size, and (once) the position
    // the checkpoint files hold. False when the channel cannot be prepared.
    virtual bool prepare(const char* fn) = 0;
    // Opens the channel where reading resumes.
    virtual bool open(const char* fn) = 0;
    // Marks the channel open and sound.
    virtual void opened() = 0;
    virtual void uninit() = 0;
    // Appends the events read in this call (bounded, about 3000 at most).
    virtual void getEvents(EventBatch& records) = 0;
    // The events up to this one are out: reading resumes after it.
    virtual void markWritten(EVT_HANDLE event, uint64_t recordNumber) = 0;
    // Ends the newest-first phase: its newest record becomes the position.
    virtual void endReversePhase() = 0;

    virtual bool initialized() const = 0;
    virtual bool channelState() const = 0;
    virtual void setUpdated() = 0;
    virtual bool channelMissing() const = 0;
    // Reading forward: new records signal the notify event.
    virtual bool subscriptionReady() const = 0;
    virtual bool eventsPending() const = 0;
    virtual HANDLE notifyEvent() const = 0;
    virtual bool readingReverse() const = 0;
    virtual bool reversePhaseOpen() const = 0;
    virtual bool reverseComplete() const = 0;
    virtual uint32_t batchSize() const = 0;
};

}  // namespace skorva
