// The reading side of a channel: opening it as a query or a subscription,
// fetching batches with EvtNext, turning each event into a record, and the
// recovery from read errors.
//
// start_from "newest": init opens a newest-first query and marks the reverse
// phase (the first event checkpointed in it is also bookmarked under
// "reverse"); the reader keeps a bookmark of the query's first event, the
// newest record at its start. When the monitor has read the query to its end it
// calls endReversePhase, which writes that bookmark as the main checkpoint and
// removes the "reverse" file; every later init subscribes after it. Records
// that arrived meanwhile are read forward once, and nothing that existed is
// read twice. A later run knows the phase is over from a main checkpoint
// without a "reverse" one.
#include <algorithm>
#include <utility>

#include "channel/WinEventLogAPIInitializer.h"
#include "channel/WinEventLogChannel.h"
#include "checkpoint/WELCheckPointBase.h"
#include "platform/Clock.h"
#include "platform/Logger.h"
#include "platform/Paths.h"
#include "platform/Strings.h"

namespace skorva {

namespace {

constexpr DWORD kMissingChannelPauseMs = 20000;  // a removed channel is not polled in a tight loop
constexpr uint64_t kSlowTranslationMs = 10;
constexpr size_t kEventIdValue = 4;  // position of EventID in the render context

// Closes `handle` now; the error of a failed EvtClose, else 0.
DWORD closeNow(UniqueEvtHandle& handle) {
    const EVT_HANDLE raw = handle.release();
    const auto close = evtApi().EvtClose;
    if (!raw || !close || close(raw)) return 0;
    return ::GetLastError();
}

}  // namespace

bool WinEventLogChannel::init() {
    static const char* const fn = "WinEventLogChannel::init";
    LOG_DEBUG("%s: Initialize Event Log channel '%S'.", fn, channelNameW_.c_str());
    LOG_DEBUG("%s: eventFormat = %s", fn, settings_.wecEventFormat.c_str());

    if (WinEventLogAPIInitializer::isEcApiAvailable() && !collectorSubscriptionsAccepted()) {
        LOG_ERROR("%s: Invalid config or enumLocalWECSubscriptions failure for channel = %s", fn,
                  channelName_.c_str());
        uninit();
        return false;
    }
    renderContext_.reset();
    // Binding to a domain controller for evt_resolve_ad_obj comes with the
    // directory translation (a later stage); SIDs are translated locally.

    notifyEvent_.reset(::CreateEventA(nullptr, TRUE, FALSE, nullptr));
    if (!notifyEvent_) {
        LOG_ERROR("%s: Failed to create notify event handler: (%lu)", fn, ::GetLastError());
        uninit();
        return false;
    }
    LOG_DEBUG("%s: Creating notify event handler: (%lu)", fn, ::GetLastError());

    batchSize_ = settings_.batchSize >= 1 && settings_.batchSize <= 1000 ? static_cast<uint32_t>(settings_.batchSize) : 1;
    eventSlots_.assign(batchSize_, nullptr);
    startFromNewest_ = settings_.startFrom == "newest";
    // An unusable file is reported, not fatal: getBookMark then finds no bookmark.
    if (!checkpointFilePath_.empty() && pathExists(checkpointFilePath_) &&
        !WELCheckPointBase::validateCheckpointStr(checkpointFilePath_))
        LOG_ERROR("%s: Failed to checkpoint for channel='%s'", fn, channelName_.c_str());

    if (settings_.useOldApi || !WinEventLogAPIInitializer::isEvtApiAvailable()) {
        LOG_INFO("%s: Initializing Windows Event Log Api for XP", fn);
        LOG_ERROR("%s: The legacy event log reader is not available in this build; channel '%s' is not read", fn,
                  channelName_.c_str());
        uninit();
        return false;
    }
    if (!openModern(fn)) {
        uninit();
        return false;
    }

    channelMissing_ = false;
    channelState_ = true;
    initialized_ = true;
    LOG_INFO("%s: Successfully Initialized channel %s", fn, channelName_.c_str());
    return true;
}

// The event collector subscription check is built by a later stage; until
// then every channel passes it.
bool WinEventLogChannel::collectorSubscriptionsAccepted() const { return true; }

bool WinEventLogChannel::openModern(const char* fn) {
    channelMissing_ = false;
    if (startFromNewest_ && !reverseDone_ && !reversePhaseEndedEarlier()) {
        reverseNewest_.reset();
        if (!queryEvtChannel(channelNameW_, false, false)) {
            LOG_ERROR("%s: Init failed, unable to query Windows Event Log channel.", fn);
            return false;
        }
        setReversePhase(true);
    } else if (!subscribeToEvtChannel(channelNameW_)) {
        LOG_ERROR("%s: Init failed, unable to subscribe to Windows Event Log channel '%s': errorCode=%lu", fn,
                  channelName_.c_str(), ::GetLastError());
        return false;
    }
    if (!setRenderContext()) {
        LOG_ERROR("%s: Init failed, unable to set render context for Windows Event Log channel'%s'.", fn,
                  channelName_.c_str());
        return false;
    }
    return true;
}

bool WinEventLogChannel::reversePhaseEndedEarlier() const {
    return !checkpointFilePath_.empty() && pathExists(checkpointFilePath_) &&
           !pathExists(checkpointPathFor(L"reverse"));
}

bool WinEventLogChannel::queryEvtChannel(const std::wstring& name, bool forward, bool fromFile) {
    static const char* const fn = "WinEventLogChannel::queryEvtChannel";
    LOG_DEBUG("%s Query channel %S", fn, name.c_str());
    subscribed_ = false;
    const DWORD flags = (fromFile ? EvtQueryFilePath : EvtQueryChannelPath) |
                        (forward ? EvtQueryForwardDirection : EvtQueryReverseDirection);
    resultHandle_.reset(evtApi().EvtQuery(nullptr, name.c_str(), L"*", flags));
    if (!resultHandle_) {
        const DWORD error = ::GetLastError();
        channelMissing_ = error == ERROR_EVT_CHANNEL_NOT_FOUND;
        LOG_ERROR("%s: Failed to query Windows Event Log channel=%S", fn, name.c_str());
        ::SetLastError(error);
        return false;
    }
    // A file is positioned at its own bookmark, a channel after the reverse one.
    const UniqueEvtHandle bookmark = getBookMark(fromFile ? std::wstring() : std::wstring(L"reverse"));
    const bool haveReverse = !fromFile && bookmark.valid();
    if (!evtApi().EvtSeek(resultHandle_.get(), haveReverse ? 1 : 0, bookmark.get(), 0,
                          fromFile ? EvtSeekRelativeToBookmark : EvtSeekRelativeToFirst) &&
        haveReverse)
        LOG_ERROR("%s: Unable to set seek position to the given bookmark", fn);
    return true;
}

bool WinEventLogChannel::subscribeToEvtChannel(const std::wstring& name) {
    static const char* const fn = "WinEventLogChannel::subscribeToEvtChannel";
    LOG_DEBUG("%s: Subscribe to channel %S", fn, name.c_str());
    // Right after the newest-first phase the start is that phase's newest record,
    // whatever current_only says: the records before it have just been read.
    UniqueEvtHandle checkpoint;
    EVT_HANDLE bookmark = startAfter_.get();
    if (!bookmark && !settings_.currentOnly) {
        checkpoint = getBookMark();
        bookmark = checkpoint.get();
    }
    const DWORD flags = bookmark                 ? EvtSubscribeStartAfterBookmark
                        : settings_.currentOnly ? EvtSubscribeToFutureEvents
                                                : EvtSubscribeStartAtOldestRecord;
    resultHandle_.reset(evtApi().EvtSubscribe(nullptr, notifyEvent_.get(), name.c_str(), L"*", bookmark, nullptr,
                                              nullptr, flags));
    const std::string narrowName = narrow(name);
    if (!resultHandle_) {
        const DWORD error = ::GetLastError();
        channelMissing_ = error == ERROR_EVT_CHANNEL_NOT_FOUND;
        subscribed_ = false;
        LOG_ERROR("%s: Could not subscribe to Windows Event Log channel '%s'", fn, narrowName.c_str());
        ::SetLastError(error);
        return false;
    }
    startAfter_.reset();
    subscribed_ = true;
    LOG_INFO("%s: Subscribed to Windows Event Log channel '%s'", fn, narrowName.c_str());
    return true;
}

void WinEventLogChannel::endReversePhase() {
    static const char* const fn = "WinEventLogChannel::endReversePhase";
    setReversePhase(false);
    reverseDone_ = true;
    // Neither the oldest record read backwards nor a "reverse" bookmark still to
    // be written may reach the files after this.
    pendingBookmark_.reset();
    firstReverseBookmark_.reset();
    // The newest record this query started at, or the file's when it gave no event.
    UniqueEvtHandle newest = reverseNewest_ ? std::move(reverseNewest_) : getBookMark(L"reverse");
    if (newest && !checkpointFilePath_.empty() && !settings_.suppressCheckpoint) {
        if (!writeBookmark(newest.get(), std::wstring())) {
            // The "reverse" file stays, so a restart reads the phase again rather than skip it.
            LOG_ERROR("%s: Failed to checkpoint for channel='%s'", fn, channelName_.c_str());
        } else {
            const std::wstring reversePath = checkpointPathFor(L"reverse");
            if (pathExists(reversePath) && !::DeleteFileW(longPath(reversePath).c_str()))
                LOG_WARN("%s: Failed to remove checkpoint_file='%s' for channel='%s', error=%lu", fn,
                         narrow(reversePath).c_str(), channelName_.c_str(), ::GetLastError());
        }
    }
    startAfter_ = std::move(newest);
    uninit();
}

void WinEventLogChannel::uninit() {
    LOG_DEBUG("Uninitializing Windows Event Log channel '%s'", channelName_.c_str());
    if (const DWORD error = closeNow(resultHandle_))
        LOG_WARN("Failed to close handle for channel '%s' errorcode = %x", channelName_.c_str(),
                 static_cast<unsigned>(error));
    if (const DWORD error = closeNow(renderContext_))
        LOG_WARN("Failed to close renderContext for channel '%s' errorcode = %x", channelName_.c_str(),
                 static_cast<unsigned>(error));
    notifyEvent_.reset();
    // The domain-controller binding is released here once it exists (a later stage).
    initialized_ = false;
    subscribed_ = false;
    eventsPending_ = false;
    LOG_INFO("channel '%s' is un-initialized", channelName_.c_str());
}

void WinEventLogChannel::getEventsNew(EventBatch& records) {
    static const char* const fn = "WinEventLogChannel::getEventsNew";
    eventsPending_ = false;
    if (!initialized_) return;
    // A deliberate bound on the work of one call: about 3000 events.
    const uint32_t passLimit = (1001 / batchSize_) * 3;
    records.reserve(records.size() + static_cast<size_t>(passLimit + 1) * batchSize_);
    bool anyRead = false;
    for (uint32_t pass = 0;; ++pass) {
        DWORD returned = 0;
        // EvtNext waits only for a result set's own work: at the end of a query
        // or with nothing waiting on a subscription it reports no more items.
        if (!evtApi().EvtNext(resultHandle_.get(), batchSize_, eventSlots_.data(), INFINITE, 0, &returned)) {
            handleGetEventsError(anyRead, 0, returned);
            return;
        }
        LOG_INFO("%s: read %d events", fn, static_cast<int>(returned));
        anyRead = true;
        const BatchEnd end = readBatch(records, returned);
        closeSlots(0, returned);  // those no record took
        if (end != BatchEnd::Full) return;
        if (pass == passLimit) {
            eventsPending_ = true;
            return;
        }
    }
}

WinEventLogChannel::BatchEnd WinEventLogChannel::readBatch(EventBatch& records, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i)
        if (!readEvent(records, i, count)) return BatchEnd::Stop;
    return count < batchSize_ ? BatchEnd::Short : BatchEnd::Full;
}

// False when the rest of this call is given up.
bool WinEventLogChannel::readEvent(EventBatch& records, uint32_t index, uint32_t count) {
    static const char* const fn = "WinEventLogChannel::getEventsNew";
    EventRecord& record = records.emplace_back();
    record.handle.reset(std::exchange(eventSlots_[index], nullptr));

    if (reversePhase_ && !reverseNewest_) reverseNewest_ = bookmarkFor(record.handle.get());

    // A rendering error drops the event; 122 and 6 also end this call.
    const auto goesOnAfter = [&](DWORD error) {
        if (error == ERROR_INVALID_HANDLE) {
            resetChannel(records, index, count);
        } else {
            records.pop_back();
            if (error != ERROR_INSUFFICIENT_BUFFER) return true;
        }
        std::vector<uint8_t>().swap(values_);
        valuesSize_ = 0;
        return false;
    };

    DWORD error = renderEvent(record, values_, valuesSize_);
    if (error) return goesOnAfter(error);
    const auto* values = reinterpret_cast<const EVT_VARIANT*>(values_.data());
    if (values[kEventIdValue].Type == EvtVarTypeUInt16) {
        record.eventCode = values[kEventIdValue].UInt16Val;
        if (!includeEvent(record.eventCode)) {
            records.pop_back();
            return true;
        }
    }
    if (settings_.renderXml && (error = renderEventAsXml(record)) != 0) return goesOnAfter(error);

    error = setEventProperties(values, record);
    if (error) {
        LOG_ERROR("Failed to set properties for event; EventRecordID=%llu channel=\"%s\" error=%lu",
                  static_cast<unsigned long long>(record.recordNumber), channelName_.c_str(), error);
        if (error == ERROR_INVALID_HANDLE) {
            resetChannel(records, index, count);
            return false;
        }
    }

    // Directory-object translation of the message (evt_resolve_ad_obj) belongs
    // here; it comes with a later stage.
    if (settings_.resolveAdObj) {
        LOG_INFO("%s (%d): translating SID", fn, 1070);
        const uint64_t started = tickNow();
        narrowInto(record.message, sidMessage_);
        translateSidLocally(sidMessage_, record.xml);
        // With XML only the XML is translated and the message is left as it was.
        if (record.xml.empty()) widenInto(sidMessage_, record.message);
        const uint64_t took = tickNow() - started;
        if (took > kSlowTranslationMs)
            LOG_INFO("%s: translateSidLocally took=%llu msec", fn, static_cast<unsigned long long>(took));
    }
    if (!settings_.renderXml) record.addField(L"Message", record.message, settings_.excludedFields);
    return true;
}

bool WinEventLogChannel::handleGetEventsError(bool anyRead, uint32_t index, uint32_t count) {
    static const char* const fn = "WinEventLogChannelBase::handleGetEventsError";
    const DWORD error = ::GetLastError();
    switch (error) {
    case ERROR_NO_MORE_ITEMS:
        break;
    case ERROR_EVT_CHANNEL_NOT_FOUND:
        channelMissing_ = true;
        sleepMs(kMissingChannelPauseMs);
        [[fallthrough]];
    case ERROR_INVALID_HANDLE:
        LOG_INFO("%s: Unable to get Windows event logs, channel='%s', Error=(0x%x)", fn, channelName_.c_str(),
                 static_cast<unsigned>(error));
        LOG_INFO("%s: Setting the '%s' channel state to updated", fn, channelName_.c_str());
        channelState_ = false;
        break;
    default:
        LOG_DEBUG("%s: EventNext returned no events for Windows Event Log channel='%s', Error=(0x%x). Try reducing "
                  "'batch_size' config value in inputs.conf. Current batch_size = %ld",
                  fn, channelName_.c_str(), static_cast<unsigned>(error), static_cast<long>(batchSize_));
        break;
    }
    // Slots no record took are closed whatever was read before: they would leak.
    closeSlots(index, count);
    return anyRead;
}

void WinEventLogChannel::resetChannel(EventBatch& records, uint32_t index, uint32_t count) {
    closeSlots(index + 1, count);
    if (!records.empty()) records.pop_back();
    LOG_INFO("%s: Setting the '%s' channel state to updated", "WinEventLogChannelBase::resetChannel",
             channelName_.c_str());
    channelState_ = false;
}

void WinEventLogChannel::closeSlots(uint32_t from, uint32_t count) {
    const auto close = evtApi().EvtClose;
    const uint32_t end = std::min<uint32_t>(count, static_cast<uint32_t>(eventSlots_.size()));
    for (uint32_t i = from; i < end; ++i)
        if (EVT_HANDLE h = std::exchange(eventSlots_[i], nullptr); h && close) close(h);
}

}  // namespace skorva
