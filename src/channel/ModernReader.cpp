// The reading side of a channel: opening it as a query or a subscription,
// fetching batches with EvtNext, turning each event into a record, and the
// recovery from read errors.
//
// Every re-open resumes after the last event sent (the position), kept in
// memory as it goes and restored from the checkpoint file at the first open.
//
// start_from "newest": the existing records are read newest first by a query,
// on the thread that made it, until it reports no more items. The newest
// record when that phase began (the anchor) goes to the "reverse" file before
// the main checkpoint first moves; the main checkpoint then follows the oldest
// record sent. A phase cut short (stop, reset, crash) resumes after that one,
// and records already sent are never sent again from the query. When the query
// is done the anchor becomes the main checkpoint, the "reverse" file goes, and
// the channel subscribes after the anchor: records that arrived meanwhile are
// read forward once. A later run knows the phase is over from a main
// checkpoint without a "reverse" one.
#include "channel/ModernReader.h"

#include <algorithm>
#include <atomic>
#include <stdexcept>
#include <utility>

#include "channel/ClassicFields.h"
#include "channel/ClassicText.h"
#include "platform/Clock.h"
#include "platform/Logger.h"
#include "platform/Strings.h"

namespace skorva {

namespace {

constexpr DWORD kMissingChannelPauseMs = 20000;  // a removed channel is not polled in a tight loop
constexpr uint64_t kSlowTranslationMs = 10;

// The record number of the channel's newest record; 0 when it has none or it
// cannot be read.
uint64_t newestRecordId(const std::wstring& channel) {
    const EvtApi& api = evtApi();
    UniqueEvtHandle query(api.EvtQuery(nullptr, channel.c_str(), L"*", EvtQueryChannelPath | EvtQueryReverseDirection));
    EVT_HANDLE raw = nullptr;
    DWORD got = 0;
    if (!query || !api.EvtNext(query.get(), 1, &raw, INFINITE, 0, &got) || got == 0) return 0;
    UniqueEvtHandle event(raw);
    LPCWSTR path = L"Event/System/EventRecordID";
    UniqueEvtHandle context(api.EvtCreateRenderContext(1, &path, EvtRenderContextValues));
    EVT_VARIANT value[2] = {};  // the value, with room for the service's padding
    DWORD used = 0, count = 0;
    if (!context || !api.EvtRender(context.get(), event.get(), EvtRenderEventValues, sizeof(value), value, &used, &count))
        return 0;
    return value[0].Type == EvtVarTypeUInt64 ? value[0].UInt64Val : 0;
}

}  // namespace

ModernReader::ModernReader(const std::string& channelName, const std::wstring& channelNameW,
                           const ChannelSettings& settings, EventRenderer& renderer, const MessageFormatter& formatter,
                           SidTextTranslator& sids, AdObjectStep& adObjects, CheckpointPolicy& checkpoints)
    : channelName_(channelName),
      channelNameW_(channelNameW),
      settings_(settings),
      renderer_(renderer),
      formatter_(formatter),
      sids_(sids),
      adObjects_(adObjects),
      checkpoints_(checkpoints),
      laneFormatter_(channelName),
      laneRenderer_(channelName, settings, laneFormatter_),
      worker_(renderer),
      laneWorker_(laneRenderer_) {}

bool ModernReader::prepare(const char* fn) {
    renderer_.closeRenderContext();
    laneRenderer_.closeRenderContext();

    notifyEvent_.reset(::CreateEventA(nullptr, TRUE, FALSE, nullptr));
    if (!notifyEvent_) {
        LOG_ERROR("%s: Failed to create notify event handler: (%lu)", fn, ::GetLastError());
        return false;
    }
    LOG_DEBUG("%s: Creating notify event handler: (%lu)", fn, ::GetLastError());

    const uint32_t configured =
        settings_.batchSize >= 1 && settings_.batchSize <= 1000 ? static_cast<uint32_t>(settings_.batchSize) : 1;
    batchSize_ = std::min(configured, batchLimit_);
    eventSlots_.assign(static_cast<size_t>(passLimit() + 1) * batchSize_, nullptr);
    startFromNewest_ = settings_.startFrom == "newest";
    if (!positionLoaded_) loadPosition();
    return true;
}

// The checkpoint files as the last run left them. Done once: afterwards the
// position in memory is newer than any file.
void ModernReader::loadPosition() {
    positionLoaded_ = true;
    if (checkpoints_.checkpointFilePath().empty()) return;
    checkpoints_.loadFiles(startFromNewest_);
    if (!settings_.currentOnly || checkpoints_.phaseOpen())
        position_ = checkpoints_.getBookMark(std::wstring(), &positionId_);
}

void ModernReader::opened() {
    channelMissing_ = false;
    channelState_ = true;
    initialized_ = true;
}

bool ModernReader::open(const char* fn) {
    channelMissing_ = false;
    if (reversePhaseOpen()) {
        if (!queryEvtChannel(channelNameW_, false, false)) {
            LOG_ERROR("%s: Init failed, unable to query Windows Event Log channel.", fn);
            return false;
        }
    } else if (!subscribeToEvtChannel(channelNameW_)) {
        LOG_ERROR("%s: Init failed, unable to subscribe to Windows Event Log channel '%s': errorCode=%lu", fn,
                  channelName_.c_str(), ::GetLastError());
        return false;
    }
    if (!renderer_.setRenderContext() || !laneRenderer_.setRenderContext()) {
        LOG_ERROR("%s: Init failed, unable to set render context for Windows Event Log channel'%s'.", fn,
                  channelName_.c_str());
        return false;
    }
    return true;
}

bool ModernReader::queryEvtChannel(const std::wstring& name, bool forward, bool fromFile) {
    static const char* const fn = "WinEventLogChannel::queryEvtChannel";
    LOG_DEBUG("%s Query channel %S", fn, name.c_str());
    subscribed_ = false;
    reverseComplete_ = false;
    guardActive_ = false;
    const DWORD flags = (fromFile ? EvtQueryFilePath : EvtQueryChannelPath) |
                        (forward ? EvtQueryForwardDirection : EvtQueryReverseDirection);
    resultHandle_.reset(evtApi().EvtQuery(nullptr, name.c_str(), L"*", flags));
    if (!resultHandle_) {
        channelMissing_ = ::GetLastError() == ERROR_EVT_CHANNEL_NOT_FOUND;
        LOG_ERROR("%s: Failed to query Windows Event Log channel=%S", fn, name.c_str());
        return false;
    }
    setReversePhase(!forward && !fromFile);
    if (fromFile) {
        const Bookmark bookmark = checkpoints_.getBookMark();
        if (bookmark) evtApi().EvtSeek(resultHandle_.get(), 0, bookmark.get(), 0, EvtSeekRelativeToBookmark);
        return true;
    }
    // Read on after the oldest record already sent, else from the anchor itself
    // (it may not have gone out), else from the newest record. Whatever the seek
    // lands on, records already sent are skipped by their id: a seek past the
    // end lands on the last record rather than nowhere.
    const bool afterPosition = position_.valid();
    EVT_HANDLE from = afterPosition ? position_.get() : checkpoints_.anchor();
    if (!from) return true;
    guardActive_ = true;
    guardId_ = afterPosition ? positionId_ : checkpoints_.anchorId();
    guardInclusive_ = !afterPosition;
    if (!evtApi().EvtSeek(resultHandle_.get(), afterPosition ? 1 : 0, from, 0, EvtSeekRelativeToBookmark))
        LOG_ERROR("%s: Unable to set seek position to the given bookmark", fn);
    return true;
}

bool ModernReader::subscribeToEvtChannel(const std::wstring& name) {
    static const char* const fn = "WinEventLogChannel::subscribeToEvtChannel";
    LOG_DEBUG("%s: Subscribe to channel %S", fn, name.c_str());
    // Record numbers go back only in a new log: one made again under the same
    // name while it was read or while the program was down.
    if (!removed_ && position_ && positionId_ != 0) {
        const uint64_t newest = newestRecordId(name);
        removed_ = newest != 0 && newest < positionId_;
    }
    // current_only skips what the last run left; within a run nothing is skipped.
    if (removed_ && position_) {
        // The channel was removed while it was read: the one there now is a new
        // log whose record numbers started again, and its records are all new.
        LOG_WARN("%s: Windows Event Log channel '%S' was removed and made again; reading it from its oldest record", fn,
                 name.c_str());
        position_ = Bookmark();
        positionFromRun_ = false;
    }
    removed_ = false;
    EVT_HANDLE bookmark = position_ && (positionFromRun_ || !settings_.currentOnly) ? position_.get() : nullptr;
    const DWORD flags = bookmark                 ? EvtSubscribeStartAfterBookmark
                        : settings_.currentOnly ? EvtSubscribeToFutureEvents
                                                : EvtSubscribeStartAtOldestRecord;
    const auto subscribe = [&](EVT_HANDLE after, DWORD how) {
        resultHandle_.reset(evtApi().EvtSubscribe(nullptr, notifyEvent_.get(), name.c_str(), L"*", after, nullptr,
                                                  nullptr, how));
        return resultHandle_.valid();
    };
    const std::string narrowName = narrow(name);
    bool ok = subscribe(bookmark, flags);
    if (!ok && bookmark && ::GetLastError() == ERROR_EVT_QUERY_RESULT_STALE) {
        // The records around the position were cleared away: all that is left is newer.
        LOG_WARN("%s: The records after the last event sent from Windows Event Log channel '%s' are gone (the log "
                 "was cleared or rolled over); reading it from its oldest record",
                 fn, narrowName.c_str());
        ok = subscribe(nullptr, EvtSubscribeStartAtOldestRecord);
    }
    if (!ok) {
        channelMissing_ = ::GetLastError() == ERROR_EVT_CHANNEL_NOT_FOUND;
        removed_ = removed_ || channelMissing_;
        subscribed_ = false;
        LOG_ERROR("%s: Could not subscribe to Windows Event Log channel '%s'", fn, narrowName.c_str());
        return false;
    }
    subscribed_ = true;
    setReversePhase(false);
    // The service signals only records written from now on: what already waits
    // is read at once, without waiting for a signal.
    ::SetEvent(notifyEvent_.get());
    LOG_INFO("%s: Subscribed to Windows Event Log channel '%s'", fn, narrowName.c_str());
    return true;
}

void ModernReader::endReversePhase() {
    setReversePhase(false);
    guardActive_ = false;
    uint64_t anchorId = 0;
    Bookmark anchor = checkpoints_.endPhase(anchorId);
    if (anchor) {
        position_ = std::move(anchor);
        positionId_ = anchorId;
        positionFromRun_ = true;
    }
    uninit();
}

void ModernReader::markWritten(EVT_HANDLE event, uint64_t recordNumber) {
    const EvtApi& api = evtApi();
    if (!event || !api.EvtCreateBookmark || !api.EvtUpdateBookmark) return;
    if (!position_) position_.create();
    if (!position_.update(event)) {
        LOG_ERROR("%s: Failed to update Windows Event Log bookmark, channel='%s'", "WinEventLogChannel::markWritten",
                  channelName_.c_str());
        return;
    }
    positionId_ = recordNumber;
    positionFromRun_ = true;
}

void ModernReader::uninit() {
    LOG_DEBUG("Uninitializing Windows Event Log channel '%s'", channelName_.c_str());
    if (const DWORD error = closeEvtHandleNow(resultHandle_))
        LOG_WARN("Failed to close handle for channel '%s' errorcode = %x", channelName_.c_str(),
                 static_cast<unsigned>(error));
    for (EventRenderer* renderer : {&renderer_, &laneRenderer_})
        if (const DWORD error = renderer->closeRenderContext())
            LOG_WARN("Failed to close renderContext for channel '%s' errorcode = %x", channelName_.c_str(),
                     static_cast<unsigned>(error));
    notifyEvent_.reset();
    initialized_ = false;
    subscribed_ = false;
    eventsPending_ = false;
    LOG_INFO("channel '%s' is un-initialized", channelName_.c_str());
}

void ModernReader::getEventsNew(EventBatch& records) {
    static const char* const fn = "WinEventLogChannel::getEventsNew";
    eventsPending_ = false;
    if (!initialized_) return;
    const uint32_t limit = passLimit();
    records.reserve(records.size() + static_cast<size_t>(limit + 1) * batchSize_);
    // Whatever no record took is closed, however this call ends: it would leak.
    struct SlotCloser {
        ModernReader& reader;
        uint32_t fetched = 0;
        ~SlotCloser() { reader.closeSlots(0, fetched); }
    } slots{*this};
    // The call's batches are fetched first and then rendered, so that the
    // rendering can be shared between two threads.
    bool anyRead = false;
    for (uint32_t pass = 0;; ++pass) {
        DWORD returned = 0;
        // EvtNext waits only for a result set's own work: at the end of a query
        // or with nothing waiting on a subscription it reports no more items.
        if (!evtApi().EvtNext(resultHandle_.get(), batchSize_, eventSlots_.data() + slots.fetched, INFINITE, 0,
                              &returned)) {
            handleGetEventsError(anyRead, slots.fetched, slots.fetched + returned);
            break;
        }
        LOG_INFO("%s: read %d events", fn, static_cast<int>(returned));
        anyRead = true;
        slots.fetched += std::min<uint32_t>(returned, batchSize_);
        // A short batch is not the end: the service caps a batch by size too.
        // Only "no more items" says that nothing waits.
        if (pass == limit) {
            eventsPending_ = true;
            break;
        }
    }
    readEvents(records, slots.fetched);
}

struct ModernReader::LaneJob {
    ModernReader* reader;
    EventBatch* out;
    uint32_t from;
    uint32_t to;
    bool holds;  // the records are handed over in chunks for this thread's directory step
    bool sound;
    bool threw;
    std::string failure;  // what was thrown, passed on to the calling thread
};

void ModernReader::laneJob(void* param) noexcept {
    LaneJob& job = *static_cast<LaneJob*>(param);
    ModernReader& reader = *job.reader;
    try {
        if (job.holds)
            reader.renderClaimedChunks(job.to);
        else
            job.sound = reader.readSpan(reader.laneWorker_, job.out, nullptr, job.from, job.to);
    } catch (const std::exception& e) {
        job.threw = true;
        job.failure = e.what();
    } catch (...) {
        job.threw = true;
        job.failure = "unknown error";
    }
    if (job.threw && job.holds) reader.handover_.abandon();
}

// The second thread's part with the directory step on: the chunks it claims,
// for the reader thread to finish.
void ModernReader::renderClaimedChunks(uint32_t count) {
    while (ChunkHandover::Chunk* chunk = handover_.claim())
        if (!renderChunk(laneWorker_, *chunk, count)) return;
}

// A claimed chunk into its buffer, published; false when it went bad.
bool ModernReader::renderChunk(Worker& worker, ChunkHandover::Chunk& chunk, uint32_t count) {
    const uint32_t from = chunk.from();
    const bool sound = readSpan(worker, nullptr, &chunk, from, std::min(from + ChunkHandover::kChunk, count));
    handover_.publish(chunk, !sound);
    return sound;
}

void ModernReader::readEvents(EventBatch& records, uint32_t count) {
    // Below this a second thread costs more than it saves. The newest-first
    // query stays on the thread that made it.
    constexpr uint32_t kLaneMinimum = 256;
    // A second thread only while a core is free for it: channels rendering at
    // once already share the cores, and more threads only contend.
    static const unsigned cores = [] {
        SYSTEM_INFO info = {};
        ::GetSystemInfo(&info);
        return static_cast<unsigned>(info.dwNumberOfProcessors);
    }();
    static std::atomic<unsigned> rendering{0};
    struct Rendering {
        unsigned now = ++rendering;
        ~Rendering() { --rendering; }
    } busy;
    // The directory look-ups and their caches are this thread's alone: with
    // them on, the second thread renders and formats chunks and hands them
    // over whole for the directory step and the SIDs here. Without them it
    // renders the second half into the batch's lane.
    const bool holds = settings_.resolveAdObj;
    LaneJob job{this, &records.lane(), count / 2, count, holds, true, false, std::string()};
    const bool shared = count >= kLaneMinimum && busy.now * 2 <= cores && !reversePhase_;
    if (shared) {
        laneFormatter_.setPreRendered(formatter_.preRendered());
        handover_.begin(count);
    }
    const bool laneRuns = shared && lane_.start(&laneJob, &job);
    // The lane's job is stopped and waited for however this thread's part
    // ends, and records it held and were not taken are closed.
    struct Join {
        ModernReader& reader;
        ~Join() {
            reader.handover_.cancel();
            reader.lane_.wait();
            reader.handover_.reset();
        }
    } join{*this};
    bool sound = true;
    if (!laneRuns) {
        sound = readSpan(worker_, &records, nullptr, 0, count);
    } else if (holds) {
        // Every chunk finished here in order; those nobody claimed yet are
        // rendered here too.
        for (uint32_t n = 0; sound && n < handover_.chunks();) {
            ChunkHandover::Chunk* chunk = nullptr;
            const ChunkHandover::Take take = handover_.take(n, chunk);
            if (take == ChunkHandover::Take::Gone) break;  // the lane threw
            if (take == ChunkHandover::Take::Help) {
                renderChunk(worker_, *chunk, count);
                continue;
            }
            if (take == ChunkHandover::Take::Own) {
                const uint32_t from = n * ChunkHandover::kChunk;
                sound = readSpan(worker_, &records, nullptr, from, std::min(from + ChunkHandover::kChunk, count));
            } else {
                for (size_t i = 0; i < chunk->count; ++i) finishEvent(chunk->records[i], records, worker_.text);
                sound = !chunk->bad;
                handover_.giveBack(*chunk);
            }
            ++n;
        }
        // Chunks after an event that could not be read are not kept: they
        // are read again once the channel is opened after the last event sent.
        handover_.cancel();
        lane_.wait();
        if (job.threw) throw std::runtime_error(job.failure);
    } else {
        sound = readSpan(worker_, &records, nullptr, 0, job.from);
        lane_.wait();
        if (job.threw) throw std::runtime_error(job.failure);
        // Records after an event that could not be read are not kept: they are
        // read again once the channel is opened after the last event sent.
        if (sound)
            records.joinLane();
        else
            records.dropLane();
        sound = sound && job.sound;
    }
    if (!sound) {
        eventsPending_ = false;
        resetChannel();
    }
}

bool ModernReader::readSpan(Worker& worker, EventBatch* out, ChunkHandover::Chunk* held, uint32_t from,
                            uint32_t to) {
    for (uint32_t i = from; i < to; ++i) {
        switch (renderEvent(worker, i)) {
        case Rendered::Bad: return false;
        case Rendered::Dropped: break;
        case Rendered::Kept:
            if (out) {
                finishEvent(worker.rendered, *out, worker.text);
            } else {
                held->hold(worker.rendered);
            }
            break;
        }
    }
    return true;
}

// Bad when the result set went bad: the rest is read again after the re-open.
ModernReader::Rendered ModernReader::renderEvent(Worker& worker, uint32_t index) {
    EventRecord& record = worker.rendered;
    record.reset();
    record.handle.reset(std::exchange(eventSlots_[index], nullptr));
    EventRenderer& renderer = worker.renderer;

    // A rendering error drops the event. An invalid handle also ends the
    // reading: the channel is opened again. A buffer the service keeps asking
    // more for is given back, and the events after it are read on: they were
    // fetched already, and would be lost.
    const auto goesOnAfter = [&](DWORD error) {
        record.reset();
        if (error == ERROR_INVALID_HANDLE) return Rendered::Bad;
        if (error == ERROR_INSUFFICIENT_BUFFER) {
            std::vector<uint8_t>().swap(worker.values);
            worker.valuesSize = 0;
        }
        return Rendered::Dropped;
    };

    DWORD error = renderer.renderEvent(record, worker.values, worker.valuesSize);
    if (error) return goesOnAfter(error);
    const auto* values = reinterpret_cast<const EVT_VARIANT*>(worker.values.data());
    if (!admitted(values, record)) {
        record.reset();
        return Rendered::Dropped;
    }
    if (settings_.renderXml && (error = renderer.renderEventAsXml(record)) != 0) return goesOnAfter(error);

    error = renderer.setEventProperties(values, record);
    if (error) {
        LOG_ERROR("Failed to set properties for event; EventRecordID=%llu channel=\"%s\" error=%lu",
                  static_cast<unsigned long long>(record.recordNumber), channelName_.c_str(), error);
        if (error == ERROR_INVALID_HANDLE) {
            record.reset();
            return Rendered::Bad;
        }
    }
    return Rendered::Kept;
}

// The directory step and the SIDs, then the record goes to `out` as it is sent.
void ModernReader::finishEvent(EventRecord& record, EventBatch& out, std::string& text) {
    if (settings_.resolveAdObj) {
        if (!adObjects_.apply(record)) {
            record.reset();
            return;
        }
        translateSids(record);
    }
    if (!settings_.renderXml) addMessageField(record, settings_);
    finishRecord(record, out, text);
}

// Records the newest-first reading sent already, and event codes the ranges
// exclude, are dropped before anything else is rendered.
bool ModernReader::admitted(const EVT_VARIANT* values, EventRecord& record) {
    const EVT_VARIANT& recordId = values[EventRenderer::kRecordId];
    if (reversePhase_ && recordId.Type == EvtVarTypeUInt64) {
        checkpoints_.noteAnchor(record.handle.get(), recordId.UInt64Val);
        if (alreadySent(recordId.UInt64Val)) return false;
    }
    const EVT_VARIANT& eventId = values[EventRenderer::kEventId];
    if (eventId.Type != EvtVarTypeUInt16) return true;
    record.eventCode = eventId.UInt16Val;
    return settings_.filters.admitsCode(record.eventCode, "WinEventLogChannelBase::includeEvent", channelName_);
}

void ModernReader::translateSids(EventRecord& record) {
    static const char* const fn = "WinEventLogChannel::getEventsNew";
    LOG_INFO("%s (%d): translating SID", fn, 1070);
    const uint64_t started = tickNow();
    sids_.translate(record.message, record.xml, record.xmlText);
    const uint64_t took = tickNow() - started;
    if (took > kSlowTranslationMs)
        LOG_INFO("%s: translateSidLocally took=%llu msec", fn, static_cast<unsigned long long>(took));
}

bool ModernReader::handleGetEventsError(bool anyRead, uint32_t index, uint32_t count) {
    static const char* const fn = "WinEventLogChannelBase::handleGetEventsError";
    const DWORD error = ::GetLastError();
    switch (error) {
    case ERROR_NO_MORE_ITEMS:
        if (!subscribed_) reverseComplete_ = true;
        break;
    case ERROR_INVALID_OPERATION:
        // What an idle subscription may answer instead of "no more items".
        if (subscribed_) break;
        logNoEvents(fn, error);
        break;
    case ERROR_EVT_CHANNEL_NOT_FOUND:
        channelMissing_ = true;
        removed_ = true;
        sleepMs(kMissingChannelPauseMs);
        [[fallthrough]];
    case ERROR_INVALID_HANDLE:
        LOG_INFO("%s: Unable to get Windows event logs, channel='%s', Error=(0x%x)", fn, channelName_.c_str(),
                 static_cast<unsigned>(error));
        LOG_INFO("%s: Setting the '%s' channel state to updated", fn, channelName_.c_str());
        channelState_ = false;
        break;
    case ERROR_EVT_QUERY_RESULT_STALE:
        // Cleared or rolled over under the handle: only a new one reads on.
        LOG_WARN("%s: The Windows Event Log channel='%s' was cleared or rolled over while it was read, Error=(0x%x); "
                 "it is opened again after the last event sent",
                 fn, channelName_.c_str(), static_cast<unsigned>(error));
        channelState_ = false;
        break;
    case RPC_S_INVALID_BOUND:
        // The batch was over what one call may carry, and the handle's position
        // has moved past it: re-open after the last event sent, with half the batch.
        logNoEvents(fn, error);
        if (batchSize_ > 1) batchLimit_ = batchSize_ / 2;
        LOG_WARN("%s: The batch of Windows Event Log channel='%s' was too large for the event log service, "
                 "Error=(0x%x); it is opened again after the last event sent with batch_size = %lu",
                 fn, channelName_.c_str(), static_cast<unsigned>(error), static_cast<unsigned long>(batchLimit_));
        channelState_ = false;
        break;
    default:
        logNoEvents(fn, error);
        break;
    }
    // Slots no record took are closed whatever was read before: they would leak.
    closeSlots(index, count);
    return anyRead;
}

void ModernReader::logNoEvents(const char* fn, DWORD error) const {
    LOG_DEBUG("%s: EventNext returned no events for Windows Event Log channel='%s', Error=(0x%x). Try reducing "
              "'batch_size' config value in inputs.conf. Current batch_size = %ld",
              fn, channelName_.c_str(), static_cast<unsigned>(error), static_cast<long>(batchSize_));
}

void ModernReader::resetChannel() {
    LOG_INFO("%s: Setting the '%s' channel state to updated", "WinEventLogChannelBase::resetChannel",
             channelName_.c_str());
    channelState_ = false;
}

void ModernReader::closeSlots(uint32_t from, uint32_t count) {
    const auto close = evtApi().EvtClose;
    const uint32_t end = std::min<uint32_t>(count, static_cast<uint32_t>(eventSlots_.size()));
    for (uint32_t i = from; i < end; ++i)
        if (EVT_HANDLE h = std::exchange(eventSlots_[i], nullptr); h && close) close(h);
}

}  // namespace skorva
