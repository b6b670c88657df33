// One pass over a channel: the next batch is read on a reader thread while the
// current one is written, large batches are split over writer threads, and the
// position is checkpointed only once a whole batch is out, so a crash repeats
// at most one batch.
#include "monitor/PassPipeline.h"

#include <memory>
#include <utility>
#include <vector>

#include "monitor/WinEventMon.h"
#include "platform/Logger.h"

namespace skorva {

namespace {

constexpr size_t kMinEventsPerThread = 100;
constexpr unsigned kWriteAttempts = 3;  // an event that fails this often is skipped
constexpr size_t kBlockBytes = 256 * 1024;  // a block of events is written once it holds this much
const char kProcess[] = "WinEventMon::processLogChannel";

struct ReaderJob {
    WinEventLogChannel* channel;
    EventBatch* batch;
    DWORD exitCode;
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

void readBatchJob(void* param) noexcept {
    ReaderJob& job = *static_cast<ReaderJob*>(param);
    job.exitCode = readBatch(job);
}

// Reads the batches of one pass: on the channel's reader thread, so that the
// next batch is read while the current one is written; or, for a query, on
// the calling thread, which alone may use it.
class BatchReader {
public:
    BatchReader(WinEventLogChannel& channel, JobThread& thread, bool onCallingThread)
        : job_{&channel, nullptr, 1}, thread_(thread), inline_(onCallingThread) {}
    ~BatchReader() { thread_.wait(); }
    BatchReader(const BatchReader&) = delete;
    BatchReader& operator=(const BatchReader&) = delete;

    bool start(EventBatch& batch) {
        job_.batch = &batch;
        job_.exitCode = 1;
        return inline_ || thread_.start(&readBatchJob, &job_);
    }
    // The exit code of the read started last.
    DWORD finish() {
        if (inline_) return readBatch(job_);
        thread_.wait();
        return job_.exitCode;
    }

private:
    ReaderJob job_;
    JobThread& thread_;
    bool inline_;
};

struct WriterSlice {
    PassPipeline* pipeline;
    ChannelWork* work;
    EventRecord* first;
    size_t count;
    size_t written;  // events written before the first that failed
    JobThread* thread;
};

void writeSlice(void* param) noexcept {
    WriterSlice& slice = *static_cast<WriterSlice*>(param);
    OutputScratch scratch;
    slice.written = slice.pipeline->writeEvents(*slice.work, slice.first, slice.count, scratch);
}

}  // namespace

// The newest event written in this pass: the position reading resumes after,
// checkpointed after each batch.
class PassPipeline::Position {
public:
    explicit Position(WinEventLogChannel& channel) : channel_(channel) {}
    void advance(EventRecord& event) {
        // Advanced to this event already (its handle taken): the position is there.
        if (any_ && !event.handle && event.recordNumber == record_) return;
        last_ = std::move(event.handle);  // none for a legacy channel: the record number is its position
        record_ = event.recordNumber;
        any_ = true;
        channel_.markWritten(last_.get(), record_);
    }
    void checkpoint() const {
        if (channel_.settings().suppressCheckpoint || !any_) return;
        if (!channel_.checkPoint(last_.get(), record_, false))
            LOG_ERROR("%s: Failed to checkpoint for channel='%s'", kProcess, channel_.channelName().c_str());
    }
    void finish() {
        if (!any_) return;
        checkpoint();
        last_.reset();
        any_ = false;
    }

private:
    WinEventLogChannel& channel_;
    UniqueEvtHandle last_;
    uint64_t record_ = 0;
    bool any_ = false;  // an event was written in this pass
};

unsigned PassPipeline::writerThreadCount(size_t size, int32_t threadCount, size_t& share) {
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

void PassPipeline::run(ChannelWork& work) {
    static const char* const fn = kProcess;
    WinEventLogChannel& channel = *work.channel;
    const char* name = channel.channelName().c_str();
    LOG_DEBUG("%s: Process channel %s", fn, name);
    if (!channel.initialized()) {
        LOG_ERROR("%s: Process channel %s but channel is not initialized", fn, name);
        return;
    }
    EventBatch* reading = &work.batches[0];
    EventBatch* current = &work.batches[1];
    BatchReader reader(channel, work.reader, channel.readingReverse());
    if (!reader.start(*reading)) {
        LOG_ERROR("%s: Could not create reading thread 0x%08x", fn, static_cast<unsigned>(::GetLastError()));
        return;
    }
    Position position(channel);
    uint64_t retrieved = 0;
    OutputScratch scratch;
    bool more = true;
    bool readAhead = true;  // a read was started and not yet finished
    while (more) {
        const DWORD exitCode = reader.finish();
        readAhead = false;
        std::swap(reading, current);
        if (exitCode != 0) break;
        // Stopping: the batch in hand is the last one of this pass.
        more = channel.eventsPending() && !stop_.load();
        if (more && !reader.start(*reading)) {
            // What was read already still goes out and is checkpointed.
            LOG_ERROR("%s: Could not create reader thread 0x%08x", fn, static_cast<unsigned>(::GetLastError()));
            more = false;
        }
        readAhead = more;

        EventBatch& batch = *current;
        const size_t size = batch.size();
        LOG_INFO("%s: Process channel %s. Current batch has %llu events", fn, name,
                 static_cast<unsigned long long>(size));
        // Written in batch order up to the first event that failed: the position
        // never passes an event that did not go out.
        size_t written = writeBatch(work, batch, scratch, position);
        const bool failed = written < size;
        if (failed && monitor_.outputBroken()) {
            // Nothing more can be written: the position stays at the last event that was.
            if (written > 0) position.advance(batch[written - 1]);
            position.checkpoint();
            break;
        }
        if (failed && giveUpOn(work, batch[written])) ++written;
        if (written > 0) position.advance(batch[written - 1]);
        position.checkpoint();
        retrieved += size;
        work.total += size;
        if (failed) {
            // The rest is read again once the channel is opened after the last event written.
            channel.setUpdated();
            break;
        }
    }
    if (readAhead) reader.finish();  // a batch read ahead of a failure is read again later
    position.finish();
    // Idle channels hold no records.
    reading->release();
    current->release();
    channel.cleanMetadataHandleCache(false);  // publishers unused for a while are let go
    LOG_DEBUG("%s: Retrieved='%llu' events, total='%llu', empty_msg='%llu' from Windows Event Log='%s'", fn,
              static_cast<unsigned long long>(retrieved), static_cast<unsigned long long>(work.total.load()),
              static_cast<unsigned long long>(work.emptyMsg.load()), name);
}

size_t PassPipeline::writeBatch(ChannelWork& work, EventBatch& batch, OutputScratch& scratch, Position& position) {
    const size_t size = batch.size();
    size_t share = 0;
    const unsigned planned = writerThreadCount(size, work.channel->settings().threadCount, share);
    std::vector<WriterSlice> writers;
    writers.reserve(planned);  // no slice moves while its thread runs
    while (work.writers.size() < planned) work.writers.push_back(std::make_unique<JobThread>());
    size_t taken = 0;
    for (unsigned i = 0; i < planned; ++i) {
        WriterSlice& slice =
            writers.emplace_back(WriterSlice{this, &work, batch.data() + taken, share, 0, work.writers[i].get()});
        if (!slice.thread->start(&writeSlice, &slice)) {
            LOG_ERROR("%s: Could not create writer thread(%d) total threads=%d 0x%08x", kProcess, static_cast<int>(i),
                      static_cast<int>(planned), static_cast<unsigned>(::GetLastError()));
            writers.pop_back();
            break;
        }
        taken += share;
    }
    size_t written = taken;
    if (writers.empty()) {
        const size_t step = std::max<size_t>(work.channel->batchSize(), 1);
        while (written < size) {
            const size_t n = std::min(step, size - written);
            const size_t ok = writeEvents(work, batch.data() + written, n, scratch);
            written += ok;
            if (ok < n) break;
            position.advance(batch[written - 1]);
            position.checkpoint();
        }
    } else {
        written += writeEvents(work, batch.data() + taken, size - taken, scratch);
    }
    for (WriterSlice& slice : writers) slice.thread->wait();
    size_t sliceStart = 0;
    for (const WriterSlice& slice : writers) {
        if (slice.written < slice.count) {
            written = sliceStart + slice.written;
            break;
        }
        sliceStart += slice.count;
    }
    for (size_t i = 0; i < writers.size(); ++i) LOG_DEBUG("%s: closing thread handle", kProcess);
    return written;
}

size_t PassPipeline::writeEvents(ChannelWork& work, EventRecord* first, size_t count, OutputScratch& scratch) {
    // Events go out in blocks; only those of a block written count as written.
    size_t flushed = 0;
    const auto flush = [&](size_t upTo) {
        if (!monitor_.flushOutput(scratch)) return false;
        flushed = upTo;
        return true;
    };
    for (size_t i = 0; i < count; ++i) {
        const char* reason = "unknown error";
        try {
            monitor_.processEvent(work, first[i], scratch);
            if (scratch.block.size() >= kBlockBytes && !flush(i + 1)) return flushed;
            continue;
        } catch (const std::exception& e) {
            reason = e.what();
        } catch (...) {
        }
        LOG_ERROR("%s: Failed to write event rec_id=%llu of channel='%s': '%s'; it is read again after the last event "
                  "written",
                  kProcess, static_cast<unsigned long long>(first[i].recordNumber),
                  work.channel->channelName().c_str(), reason);
        flush(i);
        return flushed;
    }
    flush(count);
    return flushed;
}

// An event that fails to be written again and again is given up, so that it
// cannot hold its channel back for good.
bool PassPipeline::giveUpOn(ChannelWork& work, const EventRecord& event) {
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

}  // namespace skorva
