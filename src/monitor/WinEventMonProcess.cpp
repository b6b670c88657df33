// One pass over a channel: the next batch is read on a reader thread while the
// current one is written, large batches are split over writer threads, and the
// position is checkpointed only once a whole batch is out, so a crash repeats
// at most one batch.
#include <cstdio>
#include <mutex>

#include "monitor/WinEventMon.h"
#include "platform/Logger.h"
#include "platform/Strings.h"

namespace skorva {

namespace {

constexpr size_t kMinEventsPerThread = 100;
constexpr unsigned kWriteAttempts = 3;  // an event that fails this often is skipped
const char kProcess[] = "WinEventMon::processLogChannel";

struct ReaderJob {
    WinEventLogChannel* channel;
    EventBatch* batch;
};

// Non-zero when nothing could be read because the channel went bad. A failure
// while reading loses the partly read batch and makes the channel "updated":
// it is opened again after the last event sent, so the batch is read again.
DWORD readBatch(ReaderJob& job) noexcept {
    const char* reason = "unknown error";
    try {
        // The batch still holds events written two reads ago: they are closed
        // here, on the thread that made them, and their records refilled.
        job.batch->clear();
        job.channel->getEventsNew(*job.batch);
        return job.batch->empty() && !job.channel->channelState() ? 1 : 0;
    } catch (const std::exception& e) {
        reason = e.what();
    } catch (...) {
    }
    LOG_ERROR("%s: Failed to read channel='%s': '%s'; it is read again after the last event sent", kProcess,
              job.channel->channelName().c_str(), reason);
    job.batch->clear();
    job.channel->setUpdated();
    return 1;
}

DWORD WINAPI readBatchThread(void* param) { return readBatch(*static_cast<ReaderJob*>(param)); }

// Reads the batches of one pass: each on a thread of its own, so that the next
// batch is read while the current one is written; or, for a query, on the
// calling thread, which alone may use it.
class BatchReader {
public:
    BatchReader(WinEventLogChannel& channel, bool onCallingThread)
        : job_{&channel, nullptr}, inline_(onCallingThread) {}
    ~BatchReader() {
        if (thread_) ::WaitForSingleObject(thread_.get(), INFINITE);
    }
    BatchReader(const BatchReader&) = delete;
    BatchReader& operator=(const BatchReader&) = delete;

    bool start(EventBatch& batch) {
        job_.batch = &batch;
        if (inline_) return true;
        thread_.reset(::CreateThread(nullptr, 0, &readBatchThread, &job_, 0, nullptr));
        return thread_.valid();
    }
    // The exit code of the read started last.
    DWORD finish() {
        if (inline_) return readBatch(job_);
        ::WaitForSingleObject(thread_.get(), INFINITE);
        DWORD exitCode = 1;
        ::GetExitCodeThread(thread_.get(), &exitCode);
        thread_.reset();
        return exitCode;
    }

private:
    ReaderJob job_;
    bool inline_;
    UniqueHandle thread_;
};

struct WriterSlice {
    WinEventMon* monitor;
    WinEventMon::ChannelWork* work;
    EventRecord* first;
    size_t count;
    size_t written;  // events written before the first that failed
    UniqueHandle thread;
};

DWORD WINAPI writeSlice(void* param) {
    WriterSlice& slice = *static_cast<WriterSlice*>(param);
    WinEventMon::OutputScratch scratch;
    slice.written = slice.monitor->writeEvents(*slice.work, slice.first, slice.count, scratch);
    return 0;
}

// The classic text: "key=value" per field, "$"-keys by their value alone, each
// value ended by a line feed, the whole trimmed.
void classicText(const EventFields& fields, std::string& out) {
    out.clear();
    for (const auto [key, value] : fields) {
        if (!key.empty() && key[0] != L'$') {
            appendNarrow(key, out);
            out += '=';
        }
        appendNarrow(value, out);
        if (value.empty() || value.back() != L'\n') out += '\n';
    }
    size_t end = out.size();
    while (end > 0 && isSpace(out[end - 1])) --end;
    out.resize(end);
    size_t begin = 0;
    while (begin < out.size() && isSpace(out[begin])) ++begin;
    out.erase(0, begin);
}

}  // namespace

unsigned WinEventMon::writerThreadCount(size_t size, int32_t threadCount, size_t& share) {
    share = 0;
    if (threadCount <= 0) return 0;
    // The calling thread counts as one: d writer threads plus it share the batch.
    int32_t d = threadCount;
    while (d > 0) {
        const size_t perThread = size / static_cast<size_t>(d);
        --d;
        if (perThread >= kMinEventsPerThread) break;
    }
    if (d > 0) share = size / static_cast<size_t>(d + 1);
    return static_cast<unsigned>(d);
}

void WinEventMon::processLogChannel(ChannelWork& work) {
    static const char* const fn = kProcess;
    WinEventLogChannel& channel = *work.channel;
    const ChannelSettings& settings = channel.settings();
    const char* name = channel.channelName().c_str();
    LOG_DEBUG("%s: Process channel %s", fn, name);
    if (!channel.initialized()) {
        LOG_ERROR("%s: Process channel %s but channel is not initialized", fn, name);
        return;
    }

    EventBatch* reading = &work.batches[0];
    EventBatch* current = &work.batches[1];
    BatchReader reader(channel, channel.readingReverse());
    if (!reader.start(*reading)) {
        LOG_ERROR("%s: Could not create reading thread 0x%08x", fn, static_cast<unsigned>(::GetLastError()));
        return;
    }

    UniqueEvtHandle lastEvent;  // the newest event written: the position to resume after
    uint64_t lastRecord = 0;
    uint64_t retrieved = 0;
    OutputScratch scratch;
    std::vector<WriterSlice> writers;
    writers.reserve(settings.threadCount > 0 ? static_cast<size_t>(settings.threadCount) : 0);
    std::vector<HANDLE> writerHandles;
    writerHandles.reserve(writers.capacity());
    const auto checkpoint = [&] {
        if (settings.suppressCheckpoint || !lastEvent) return;
        if (!channel.checkPoint(lastEvent.get(), lastRecord, false))
            LOG_ERROR("%s: Failed to checkpoint for channel='%s'", fn, name);
    };

    bool last = false;
    bool readAhead = true;  // a read was started and not yet finished
    while (!last) {
        const DWORD exitCode = reader.finish();
        readAhead = false;
        std::swap(reading, current);
        if (exitCode != 0) break;

        // Stopping: the batch in hand is the last one of this pass.
        if (channel.eventsPending() && !stop_.load()) {
            if (reader.start(*reading)) {
                readAhead = true;
            } else {
                // What was read already still goes out and is checkpointed.
                LOG_ERROR("%s: Could not create reader thread 0x%08x", fn, static_cast<unsigned>(::GetLastError()));
                last = true;
            }
        } else {
            last = true;
        }

        EventBatch& batch = *current;
        const size_t size = batch.size();
        LOG_INFO("%s: Process channel %s. Current batch has %llu events", fn, name,
                 static_cast<unsigned long long>(size));

        size_t share = 0;
        const unsigned planned = writerThreadCount(size, settings.threadCount, share);
        size_t taken = 0;
        for (unsigned i = 0; i < planned; ++i) {
            writers.push_back(WriterSlice{this, &work, batch.data() + taken, share, 0, UniqueHandle()});
            WriterSlice& slice = writers.back();
            slice.thread.reset(::CreateThread(nullptr, 0, &writeSlice, &slice, 0, nullptr));
            if (!slice.thread) {
                LOG_ERROR("%s: Could not create writer thread(%d) total threads=%d 0x%08x", fn, static_cast<int>(i),
                          static_cast<int>(planned), static_cast<unsigned>(::GetLastError()));
                writers.pop_back();
                break;
            }
            writerHandles.push_back(slice.thread.get());
            taken += share;
        }

        const size_t ownWritten = taken + writeEvents(work, batch.data() + taken, size - taken, scratch);
        if (!writerHandles.empty())
            ::WaitForMultipleObjects(static_cast<DWORD>(writerHandles.size()), writerHandles.data(), TRUE, INFINITE);
        // Written in batch order up to the first event that failed: the position
        // never passes an event that did not go out.
        size_t written = ownWritten;
        size_t sliceStart = 0;
        for (const WriterSlice& slice : writers) {
            if (slice.written < slice.count) {
                written = sliceStart + slice.written;
                break;
            }
            sliceStart += slice.count;
        }
        const bool failed = written < size;
        if (failed && giveUpOn(work, batch[written])) ++written;
        if (written > 0) {
            lastEvent = std::move(batch[written - 1].handle);
            lastRecord = batch[written - 1].recordNumber;
            channel.markWritten(lastEvent.get(), lastRecord);
        }

        checkpoint();
        retrieved += size;
        work.total += size;
        for (WriterSlice& slice : writers) {
            LOG_DEBUG("%s: closing thread handle", fn);
            slice.thread.reset();
        }
        writers.clear();
        writerHandles.clear();
        if (failed) {
            // The rest is read again once the channel is opened after the last event written.
            channel.setUpdated();
            break;
        }
    }
    if (readAhead) reader.finish();  // a batch read ahead of a failure is read again later

    if (lastEvent) {
        checkpoint();
        lastEvent.reset();
    }
    // Idle channels hold no records.
    reading->release();
    current->release();
    channel.cleanMetadataHandleCache(false);  // publishers unused for a while are let go
    LOG_DEBUG("%s: Retrieved='%llu' events, total='%llu', empty_msg='%llu' from Windows Event Log='%s'", fn,
              static_cast<unsigned long long>(retrieved), static_cast<unsigned long long>(work.total.load()),
              static_cast<unsigned long long>(work.emptyMsg.load()), name);
}

size_t WinEventMon::writeEvents(ChannelWork& work, EventRecord* first, size_t count, OutputScratch& scratch) {
    for (size_t i = 0; i < count; ++i) {
        const char* reason = "unknown error";
        try {
            processEvent(work, first[i], scratch);
            continue;
        } catch (const std::exception& e) {
            reason = e.what();
        } catch (...) {
        }
        LOG_ERROR("%s: Failed to write event rec_id=%llu of channel='%s': '%s'; it is read again after the last event "
                  "written",
                  kProcess, static_cast<unsigned long long>(first[i].recordNumber),
                  work.channel->channelName().c_str(), reason);
        return i;
    }
    return count;
}

// An event that fails to be written again and again is given up, so that it
// cannot hold its channel back for good.
bool WinEventMon::giveUpOn(ChannelWork& work, const EventRecord& event) {
    if (work.failingRecord != event.recordNumber) {
        work.failingRecord = event.recordNumber;
        work.failures = 0;
    }
    if (++work.failures < kWriteAttempts) return false;
    LOG_ERROR("%s: Event rec_id=%llu of channel='%s' failed to be written %u times and is skipped", kProcess,
              static_cast<unsigned long long>(event.recordNumber), work.channel->channelName().c_str(),
              kWriteAttempts);
    work.failures = 0;
    return true;
}

bool WinEventMon::processEvent(ChannelWork& work, EventRecord& event, OutputScratch& scratch) {
    const WinEventLogChannel& channel = *work.channel;
    const ChannelSettings& settings = channel.settings();
    if (event.xml.empty() && event.message.empty()) ++work.emptyMsg;

    ModinputEvent& record = scratch.record;
    if (!event.xml.empty())
        narrowInto(event.xml, record.data);
    else
        classicText(event.fields, record.data);

    if (!include_event(record.data, settings.stanzaName)) return false;
    if (settings.filters.onMessage && !includeMessageKeys(channel, scratch)) return false;

    char time[24];
    snprintf(time, sizeof time, "%llu", static_cast<unsigned long long>(event.time));
    record.time = time;
    record.stanza = settings.stanzaName;
    record.index = settings.index;
    record.source = settings.source;
    record.sourcetype = settings.sourceType;
    writeEvent(record);
    return true;
}

// The message is part of the event's text by now: the rules are decided as on
// any other event, rule by rule ("Object Type" is read from the message).
bool WinEventMon::includeMessageKeys(const WinEventLogChannel& channel, OutputScratch& scratch) const {
    static const char* const fn = "WinEventMon::includeMessageKeys";
    const ChannelSettings& settings = channel.settings();
    LOG_DEBUG("%s: Whitelist/Blacklist Processing for stanza: %s", fn, settings.stanzaName.c_str());
    return settings.filters.admitsText(scratch.record.data, settings.renderXml, fn);
}

void WinEventMon::writeEvent(const ModinputEvent& record) {
    std::lock_guard<CriticalSection> lock(outputLock_);
    if (!writer_) writer_ = std::make_unique<EventStreamWriter>(output_);
    if (!writer_->writeEvent(record) && !outputFailed_) {
        outputFailed_ = true;
        LOG_ERROR("%s: Failed to write event to output", "WinEventMon::processEvent");
    }
}

}  // namespace skorva
