#pragma once
// A channel read through the classic event log API (advapi32): for classic logs
// on systems without the modern API, or with use_old_eventlog_api. Records come
// from ReadEventLogW, forwards after the last record sent or, for start_from
// "newest", backwards from the newest one first; new ones are noticed through
// NotifyChangeEventLog on the notify event. The position is a record number,
// kept in a checkpoint string.

#include <cstdint>
#include <string>
#include <vector>

#include "channel/ChannelReader.h"
#include "channel/ClassicFields.h"
#include "channel/EventLogRecordParser.h"
#include "channel/EventRecord.h"
#include "channel/LegacyMessageFiles.h"
#include "checkpoint/CheckpointPolicy.h"
#include "config/ChannelSettings.h"
#include "directory/SidTextTranslator.h"
#include "platform/Handles.h"

namespace skorva {

class LegacyReader : public ChannelReader {
public:
    LegacyReader(const std::string& channelName, const std::wstring& channelNameW, const ChannelSettings& settings,
                 LegacyMessageFiles& messages, SidTextTranslator& sids, CheckpointPolicy& checkpoints);
    LegacyReader(const LegacyReader&) = delete;
    LegacyReader& operator=(const LegacyReader&) = delete;

    bool prepare(const char* fn) override;
    bool open(const char* fn) override { return initOld(fn); }
    void opened() override;
    void uninit() override;
    void getEvents(EventBatch& records) override { getEventsOld(records); }
    void markWritten(EVT_HANDLE event, uint64_t recordNumber) override;
    void endReversePhase() override;

    bool initialized() const override { return initialized_; }
    bool channelState() const override { return channelState_; }
    void setUpdated() override { channelState_ = false; }
    bool channelMissing() const override { return channelMissing_; }
    bool subscriptionReady() const override { return initialized_ && !reverse_; }
    bool eventsPending() const override { return eventsPending_; }
    HANDLE notifyEvent() const override { return notifyEvent_.get(); }
    bool readingReverse() const override { return initialized_ && reverse_; }
    bool reversePhaseOpen() const override { return startFromNewest_ && !checkpoints_.phaseDone(); }
    bool reverseComplete() const override { return reverseComplete_; }
    uint32_t batchSize() const override { return batchSize_; }

    // Opens the log where reading resumes.
    bool initOld(const char* fn);
    // Appends the events read in this call (bounded like the modern reader's).
    void getEventsOld(EventBatch& records);
    // The events of one read's records; returns how many records it held.
    size_t parseEventLogRecords(const uint8_t* buffer, DWORD bytes, EventBatch& records);
    // The log's number of records and its oldest record number; both throw
    // SkorvaException when the API fails.
    DWORD updateNumberOfRecords();
    DWORD updateOldestRecord();
    // The record's message (and its SIDs translated, with evt_resolve_ad_obj).
    void getEventMsg(const EventLogRecordView& view, EventRecord& record);

private:
    enum class ReadResult { Read, Retry, End, Stop };

    // Opens the log and asks for its change notification.
    bool openLog(const char* fn);
    void loadPosition();
    void startReading(DWORD oldest, DWORD count);
    // Places the next read at `next_` when the log holds it; false when there
    // is nothing to read now.
    bool positionForRead();
    ReadResult readOnce();
    ReadResult readFailed(DWORD error, DWORD needed);
    void skipRecord(const char* why);
    void addRecord(const EventLogRecordView& view, EventRecord& record);
    FieldValue fieldValue(ClassicField field, const EventLogRecordView& view, EventRecord& record,
                          std::wstring_view& value, std::wstring& scratch);
    // The record is not one sent already (or skipped) in the direction read.
    bool wanted(uint32_t recordNumber) const {
        return recordNumber != 0 && (reverse_ ? recordNumber <= next_ : recordNumber >= next_);
    }
    // Reading goes on after `recordNumber`; backwards, record 1 is the last.
    void passed(uint32_t recordNumber) {
        if (recordNumber == 0) return;
        next_ = reverse_ ? recordNumber - 1 : recordNumber + 1;
        if (reverse_ && next_ == 0) reverseComplete_ = true;
    }

    const std::string& channelName_;
    const std::wstring& channelNameW_;
    const ChannelSettings& settings_;
    LegacyMessageFiles& messages_;
    SidTextTranslator& sids_;
    CheckpointPolicy& checkpoints_;

    std::wstring registryKey_;  // the log's key below HKEY_LOCAL_MACHINE
    UniqueEventLog log_;
    UniqueHandle notifyEvent_;
    bool initialized_ = false;
    bool channelState_ = false;
    bool channelMissing_ = false;
    bool eventsPending_ = false;
    bool startFromNewest_ = false;
    uint32_t batchSize_ = 1;

    std::vector<uint8_t> buffer_;  // ReadEventLogW's, reused
    DWORD bytesRead_ = 0;
    EventLogRecordView view_;      // reused for every record
    UserFields user_;
    std::wstring fieldText_;
    std::wstring source_;
    EventRecord rendered_;  // the event being rendered, reused
    std::string text_;      // its text as it goes out, made here first

    // Where reading goes on: the next record wanted (forward, 0: the oldest the
    // log holds; backwards, 0: none left), and whether the next read must seek there.
    uint32_t next_ = 0;
    bool seekNeeded_ = true;
    bool seekRefused_ = false;  // this log refuses seeks: read sequentially, skip what is not wanted

    // The last record sent (going backwards: the oldest sent) and, for the
    // newest-first phase, the newest record when it began (the anchor).
    uint64_t position_ = 0;
    bool positionKnown_ = false;
    bool positionLoaded_ = false;
    bool positionFromRun_ = false;
    uint64_t anchor_ = 0;
    bool reverse_ = false;
    bool reverseComplete_ = false;
};

}  // namespace skorva
