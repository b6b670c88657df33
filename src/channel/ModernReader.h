#pragma once
// A channel read through the modern event log API: a newest-first query or a
// subscription, batches fetched with EvtNext and turned into records, and the
// recovery from read errors. Every re-open resumes after the last event sent
// (the position).

#include <cstdint>
#include <string>
#include <vector>

#include "channel/AdObjectStep.h"
#include "channel/ChannelReader.h"
#include "channel/ChunkHandover.h"
#include "channel/EventRecord.h"
#include "channel/EventRenderer.h"
#include "channel/MessageFormatter.h"
#include "checkpoint/CheckpointPolicy.h"
#include "config/ChannelSettings.h"
#include "directory/SidTextTranslator.h"
#include "eventlog/Bookmark.h"
#include "platform/Handles.h"
#include "platform/JobThread.h"

namespace skorva {

class ModernReader : public ChannelReader {
public:
    ModernReader(const std::string& channelName, const std::wstring& channelNameW, const ChannelSettings& settings,
                 EventRenderer& renderer, const MessageFormatter& formatter, SidTextTranslator& sids,
                 AdObjectStep& adObjects, CheckpointPolicy& checkpoints);
    ModernReader(const ModernReader&) = delete;
    ModernReader& operator=(const ModernReader&) = delete;

    // Before opening: the notify event, the batch size, and (once) the position
    // the checkpoint files hold. False when the notify event cannot be made.
    bool prepare(const char* fn) override;
    // Opens the query (newest first) or the subscription.
    bool open(const char* fn) override;
    // Marks the channel open and sound.
    void opened() override;
    void uninit() override;
    void getEventsNew(EventBatch& records);
    void getEvents(EventBatch& records) override { getEventsNew(records); }
    bool queryEvtChannel(const std::wstring& name, bool forward, bool fromFile);
    bool subscribeToEvtChannel(const std::wstring& name);
    // A deliberate bound on the work of one call: about 3000 events.
    uint32_t passLimit() const { return (1001 / batchSize_) * 3; }
    bool handleGetEventsError(bool anyRead, uint32_t index, uint32_t count);
    void resetChannel();
    void endReversePhase() override;
    void markWritten(EVT_HANDLE event, uint64_t recordNumber) override;
    void setReversePhase(bool on) {
        reversePhase_ = on;
        checkpoints_.setReversePhase(on);
    }

    bool initialized() const override { return initialized_; }
    bool channelState() const override { return channelState_; }
    void setUpdated() override { channelState_ = false; }
    bool channelMissing() const override { return channelMissing_; }
    void forgetMissing() { channelMissing_ = false; }
    bool subscriptionReady() const override { return initialized_ && subscribed_; }
    bool eventsPending() const override { return eventsPending_; }
    HANDLE notifyEvent() const override { return notifyEvent_.get(); }
    bool readingReverse() const override { return initialized_ && !subscribed_ && reversePhase_; }
    bool reversePhaseOpen() const override { return startFromNewest_ && !checkpoints_.phaseDone(); }
    bool reverseComplete() const override { return reverseComplete_; }
    uint32_t batchSize() const override { return batchSize_; }
    // Lets go of the publishers the second renderer has not used for a while (all with `force`).
    void cleanMetadataHandleCache(bool force) { laneFormatter_.cleanMetadataHandleCache(force); }

private:
    // What turns fetched events into records; one per thread that does it.
    struct Worker {
        explicit Worker(EventRenderer& r) : renderer(r) {}
        EventRenderer& renderer;
        std::vector<uint8_t> values;  // rendered system values, reused
        DWORD valuesSize = 0;
        EventRecord rendered;         // the event being rendered, reused
        std::string text;             // its text as it goes out, made here first
    };
    struct LaneJob;
    static void laneJob(void* param) noexcept;

    void renderClaimedChunks(uint32_t count);
    bool renderChunk(Worker& worker, ChunkHandover::Chunk& chunk, uint32_t count);

    enum class Rendered { Kept, Dropped, Bad };

    // Turns the `count` fetched events into records, shared with a second
    // thread when there are enough of them.
    void readEvents(EventBatch& records, uint32_t count);
    // Events [from, to) into `out`, or held whole in `held` without one; false
    // when one showed the result set gone bad: the rest is not read.
    bool readSpan(Worker& worker, EventBatch* out, ChunkHandover::Chunk* held, uint32_t from, uint32_t to);
    // Renders and formats one event into worker.rendered.
    Rendered renderEvent(Worker& worker, uint32_t index);
    void finishEvent(EventRecord& record, EventBatch& out, std::string& text);
    // False when the event is dropped before it is rendered further.
    bool admitted(const EVT_VARIANT* values, EventRecord& record);
    void translateSids(EventRecord& record);
    void loadPosition();
    void closeSlots(uint32_t from, uint32_t count);
    void logNoEvents(const char* fn, DWORD error) const;
    // True when the newest-first reading already sent this record.
    bool alreadySent(uint64_t recordId) const {
        return guardActive_ && (guardInclusive_ ? recordId > guardId_ : recordId >= guardId_);
    }

    const std::string& channelName_;
    const std::wstring& channelNameW_;
    const ChannelSettings& settings_;
    EventRenderer& renderer_;
    const MessageFormatter& formatter_;
    SidTextTranslator& sids_;
    AdObjectStep& adObjects_;
    CheckpointPolicy& checkpoints_;

    UniqueEvtHandle resultHandle_;
    UniqueHandle notifyEvent_;
    bool initialized_ = false;
    bool channelState_ = false;
    bool channelMissing_ = false;
    bool removed_ = false;  // the channel went missing while it was read: a new one may come
    bool subscribed_ = false;
    bool eventsPending_ = false;
    bool startFromNewest_ = false;
    uint32_t batchSize_ = 1;
    uint32_t batchLimit_ = 1000;          // lowered while EvtNext refuses larger batches
    std::vector<EVT_HANDLE> eventSlots_;  // the events one call fetched, in order
    // The second half of a call's events is rendered on another thread, with
    // a renderer and formatter (and publisher handles) of its own.
    MessageFormatter laneFormatter_;
    EventRenderer laneRenderer_;
    Worker worker_;
    Worker laneWorker_;
    ChunkHandover handover_;
    JobThread lane_;  // the thread it is rendered on, kept from call to call

    // The last event sent: every re-open resumes after it. Restored from the
    // checkpoint file at the first open, then kept by markWritten.
    Bookmark position_;
    uint64_t positionId_ = 0;
    bool positionLoaded_ = false;   // the checkpoint file was consulted
    bool positionFromRun_ = false;  // an event was sent in this run

    // While the newest-first query is read: which records are already out.
    bool reversePhase_ = false;      // the query is open
    bool reverseComplete_ = false;   // the query reported no more items
    bool guardActive_ = false;       // records from `guardId_` up are out already
    uint64_t guardId_ = 0;
    bool guardInclusive_ = false;    // the record `guardId_` itself is not out yet
};

}  // namespace skorva
