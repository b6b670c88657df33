// One pass over a channel: the next batch is read on a reader thread while the
// current one is written, large batches are split over writer threads, and the
// position is checkpointed only once a whole batch is out, so a crash repeats
// at most one batch.
#include <cstdio>
#include <mutex>

#include "monitor/EventTextLookup.h"
#include "monitor/WinEventMon.h"
#include "platform/Logger.h"
#include "platform/Strings.h"

namespace skorva {

namespace {

constexpr size_t kMinEventsPerThread = 100;

struct ReaderJob {
    WinEventLogChannel* channel;
    EventBatch* batch;
};

// Non-zero when nothing could be read because the channel went bad.
DWORD WINAPI readBatch(void* param) {
    ReaderJob& job = *static_cast<ReaderJob*>(param);
    try {
        // The batch still holds events written two reads ago: they are closed
        // here, on the thread that made them, and their records refilled.
        job.batch->clear();
        job.channel->getEventsNew(*job.batch);
    } catch (...) {
        return 1;
    }
    return job.batch->empty() && !job.channel->channelState() ? 1 : 0;
}

struct WriterSlice {
    WinEventMon* monitor;
    WinEventMon::ChannelWork* work;
    EventRecord* first;
    size_t count;
    UniqueHandle thread;
};

DWORD WINAPI writeSlice(void* param) {
    WriterSlice& slice = *static_cast<WriterSlice*>(param);
    try {
        WinEventMon::OutputScratch scratch;
        for (size_t i = 0; i < slice.count; ++i) slice.monitor->processEvent(*slice.work, slice.first[i], scratch);
    } catch (...) {
        return 1;
    }
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
    static const char* const fn = "WinEventMon::processLogChannel";
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
    ReaderJob job{&channel, reading};
    UniqueHandle reader(::CreateThread(nullptr, 0, &readBatch, &job, 0, nullptr));
    if (!reader) {
        LOG_ERROR("%s: Could not create reading thread 0x%08x", fn, static_cast<unsigned>(::GetLastError()));
        return;
    }

    UniqueEvtHandle lastEvent;  // the newest event written by this thread: the checkpoint position
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
    while (!last) {
        ::WaitForSingleObject(reader.get(), INFINITE);
        DWORD exitCode = 1;
        ::GetExitCodeThread(reader.get(), &exitCode);
        reader.reset();
        std::swap(reading, current);
        if (exitCode != 0) break;

        // Stopping: the batch in hand is the last one of this pass.
        if (channel.eventsPending() && !stop_.load()) {
            job.batch = reading;
            reader.reset(::CreateThread(nullptr, 0, &readBatch, &job, 0, nullptr));
            if (!reader) {
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
            writers.push_back(WriterSlice{this, &work, batch.data() + taken, share, UniqueHandle()});
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

        for (size_t i = taken; i < size; ++i) processEvent(work, batch[i], scratch);
        // The last event of the batch is the position to resume after; the
        // others are closed when the reader reuses their records.
        if (size > taken) {
            lastEvent = std::move(batch[size - 1].handle);
            lastRecord = batch[size - 1].recordNumber;
        }
        if (!writerHandles.empty())
            ::WaitForMultipleObjects(static_cast<DWORD>(writerHandles.size()), writerHandles.data(), TRUE, INFINITE);

        checkpoint();
        retrieved += size;
        work.total += size;
        for (WriterSlice& slice : writers) {
            LOG_DEBUG("%s: closing thread handle", fn);
            slice.thread.reset();
        }
        writers.clear();
        writerHandles.clear();
    }

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
    if (settings.filterOnMessage && !includeMessageKeys(channel, scratch)) return false;

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

// The rules on message-bearing keys, one key at a time, on the event's own text
// (the message is formatted by now). A whitelisted key the event lacks excludes
// it; a blacklisted one it lacks never drops it.
bool WinEventMon::includeMessageKeys(const WinEventLogChannel& channel, OutputScratch& scratch) const {
    const ChannelSettings& settings = channel.settings();
    const std::string& text = scratch.record.data;
    for (const FilterList* list : {&settings.whitelist, &settings.blacklist}) {
        const bool white = list == &settings.whitelist;
        for (const auto& entry : list->messageKeyRules) {
            const std::string& key = entry.first;
            // A key on both lists was decided with both when the whitelist went by.
            if (!white && settings.whitelist.messageKeyRules.count(key)) continue;
            std::string_view value;
            if (!lookupEventValue(text, settings.renderXml, key, value)) {
                if (white) return false;
                continue;
            }
            scratch.value.assign(value.data(), value.size());
            if (!channel.includeEventWithEvtcodeMessage(key, scratch.value)) return false;
        }
    }
    return true;
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
