// The reading side of a channel through the classic event log API.
//
// Reading forward resumes after the last record sent (the position), kept in
// memory as it goes and restored from the checkpoint string at the first open.
// A log cleared or wrapped meanwhile shows as an oldest record past the
// position (or, where a clear restarts the numbering, a newest record before
// it): what is left is read from the oldest record, and the operator is told
// which records were lost.
//
// start_from "newest": the records are read backwards from the newest one when
// the phase began (the anchor), kept with the oldest record sent in the
// "reverse" checkpoint. When the oldest record is reached the anchor becomes
// the main checkpoint and the records after it are read forward.
//
// ReadEventLogW returns whole records only; each one is checked against the
// buffer before anything of it is used (EventLogRecordParser).
#include "channel/LegacyReader.h"

#include <algorithm>
#include <cstddef>

#include "channel/ClassicText.h"
#include "channel/LegacyEventXml.h"
#include "channel/LocalTimestamp.h"
#include "eventlog/BufferGrowth.h"
#include "eventlog/WinEventLogAPIInitializer.h"
#include "platform/Logger.h"
#include "platform/SkorvaException.h"
#include "platform/Strings.h"

namespace skorva {

namespace {

// The parser's offsets are EVENTLOGRECORD's.
static_assert(sizeof(EVENTLOGRECORD) == 56 && offsetof(EVENTLOGRECORD, StringOffset) == 36 &&
              offsetof(EVENTLOGRECORD, DataOffset) == 52);
static_assert(sizeof(wchar_t) == sizeof(char16_t));

const char* const kGetEvents = "WinEventLogChannel::getEventsOld";
constexpr DWORD kFirstReadBytes = 0x10000;
// "The maximum size of this buffer is 0x7ffff bytes" (ReadEventLogW).
constexpr DWORD kMaxReadBytes = 0x7FFFF;
constexpr uint64_t kFileTimeUnixEpoch = 116444736000000000ull;
constexpr DWORD kMaxSidBytes = 68;  // SECURITY_MAX_SID_SIZE

std::wstring_view wideView(std::u16string_view s) {
    return std::wstring_view(reinterpret_cast<const wchar_t*>(s.data()), s.size());
}

// The names of the classic event types.
const wchar_t* eventTypeName(uint16_t type) {
    switch (type) {
    case kTypeSuccess: return L"Success";
    case kTypeError: return L"Error";
    case kTypeWarning: return L"Warning";
    case kTypeInformation: return L"Information";
    case kTypeAuditSuccess: return L"Success Audit";
    case kTypeAuditFailure: return L"Failure Audit";
    default: return nullptr;
    }
}

}  // namespace

LegacyReader::LegacyReader(const std::string& channelName, const std::wstring& channelNameW,
                           const ChannelSettings& settings, LegacyMessageFiles& messages, SidTextTranslator& sids,
                           CheckpointPolicy& checkpoints)
    : channelName_(channelName),
      channelNameW_(channelNameW),
      settings_(settings),
      messages_(messages),
      sids_(sids),
      checkpoints_(checkpoints) {}

bool LegacyReader::prepare(const char* fn) {
    notifyEvent_.reset(::CreateEventA(nullptr, TRUE, FALSE, nullptr));
    if (!notifyEvent_) {
        LOG_ERROR("%s: Failed to create notify event handler: (%lu)", fn, ::GetLastError());
        return false;
    }
    LOG_DEBUG("%s: Creating notify event handler: (%lu)", fn, ::GetLastError());
    batchSize_ = settings_.batchSize >= 1 && settings_.batchSize <= 1000 ? static_cast<uint32_t>(settings_.batchSize) : 1;
    startFromNewest_ = settings_.startFrom == "newest";
    registryKey_ = L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\" + channelNameW_;
    messages_.setLogKey(registryKey_);
    if (!positionLoaded_) loadPosition();
    return true;
}

// The checkpoint files as the last run left them. Done once: afterwards the
// position in memory is newer than any file.
void LegacyReader::loadPosition() {
    positionLoaded_ = true;
    if (checkpoints_.checkpointFilePath().empty()) return;
    checkpoints_.loadFiles(startFromNewest_);
    CheckpointMap map;
    const bool reverse = startFromNewest_ && checkpoints_.phaseOpen();
    if (reverse ? !checkpoints_.readLegacyCheckpoint(L"reverse", map)
                : settings_.currentOnly || !checkpoints_.readLegacyCheckpoint(std::wstring(), map))
        return;
    uint64_t id = 0;
    positionKnown_ = parseUInt64(map["record_id"], id) && id != 0;
    position_ = id;
    if (reverse && parseUInt64(map["newest_record_id"], id)) anchor_ = id;
}

bool LegacyReader::openLog(const char* fn) {
    log_.reset(legacyApi().OpenEventLogW(nullptr, channelNameW_.c_str()));
    seekNeeded_ = true;
    if (!log_) return false;
    // Pulsed by the service for each record written; a pulse while no wait is
    // registered is lost, so the wait's own timeout (thread_wait_time_msec)
    // also reads the channel.
    if (!legacyApi().NotifyChangeEventLog(log_.get(), notifyEvent_.get()))
        LOG_WARN("%s: No change notification for Windows Event Log channel '%s' (error %lu): new records are read "
                 "every thread_wait_time_msec",
                 fn, channelName_.c_str(), ::GetLastError());
    return true;
}

bool LegacyReader::initOld(const char* fn) {
    channelMissing_ = false;
    if (!WinEventLogAPIInitializer::isLegacyApiAvailable()) {
        LOG_ERROR("%s: Init failed, the legacy Windows Event Log api is not available for channel '%s'", fn,
                  channelName_.c_str());
        return false;
    }
    // For a name that is no classic log OpenEventLogW opens the Application log instead.
    UniqueHKey key;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, registryKey_.c_str(), 0, KEY_READ, key.put()) != ERROR_SUCCESS) {
        channelMissing_ = true;
        LOG_ERROR("%s: Init failed, Windows Event Log channel '%s' is not a classic event log: the old Windows Event "
                  "Log api cannot read it",
                  fn, channelName_.c_str());
        return false;
    }
    seekRefused_ = false;
    if (!openLog(fn)) {
        LOG_ERROR("%s: Init failed, unable to open Windows Event Log channel '%s': errorCode=%lu", fn,
                  channelName_.c_str(), ::GetLastError());
        return false;
    }
    try {
        startReading(updateOldestRecord(), updateNumberOfRecords());
    } catch (const SkorvaException& e) {
        LOG_ERROR("%s", e.what());
        return false;
    }
    // What already waits is read at once, without waiting for a record to be written.
    if (!reverse_) ::SetEvent(notifyEvent_.get());
    return true;
}

// Where this handle starts reading: backwards from the position or the anchor
// while the newest-first phase is open, else forward after the position.
void LegacyReader::startReading(DWORD oldest, DWORD count) {
    reverseComplete_ = false;
    reverse_ = reversePhaseOpen();
    checkpoints_.setReversePhase(reverse_);
    if (reverse_) {
        if (anchor_ == 0 && count) {
            anchor_ = static_cast<uint64_t>(oldest) + count - 1;
            checkpoints_.checkpointMap()["newest_record_id"] = std::to_string(anchor_);
        }
        next_ = static_cast<uint32_t>(positionKnown_ ? position_ - 1 : anchor_);
        reverseComplete_ = next_ == 0;
    } else if (positionKnown_) {
        next_ = static_cast<uint32_t>(position_ + 1);
    } else if (settings_.currentOnly && !positionFromRun_) {
        // Future records only: what the log holds now is passed over.
        next_ = count ? oldest + count : 0;
        position_ = count ? static_cast<uint64_t>(oldest) + count - 1 : 0;
        positionKnown_ = count != 0;
    } else {
        next_ = 0;
    }
}

DWORD LegacyReader::updateNumberOfRecords() {
    DWORD count = 0;
    if (!legacyApi().GetNumberOfEventLogRecords(log_.get(), &count))
        throw SkorvaException("%s: Failed to get the number of Windows Event Log records for channel: '%s' (%m)",
                              "WinEventLogChannelBase::updateNumberOfRecords", channelName_.c_str());
    return count;
}

DWORD LegacyReader::updateOldestRecord() {
    DWORD oldest = 0;
    if (!legacyApi().GetOldestEventLogRecord(log_.get(), &oldest))
        throw SkorvaException("%s: Failed to get oldest Windows Event Log record for channel: '%s' (%m)",
                              "WinEventLogChannelBase::updateOldestRecord", channelName_.c_str());
    return oldest;
}

void LegacyReader::opened() {
    channelMissing_ = false;
    channelState_ = true;
    initialized_ = true;
}

void LegacyReader::uninit() {
    LOG_DEBUG("Uninitializing Windows Event Log channel '%s'", channelName_.c_str());
    log_.reset();  // CloseEventLog
    notifyEvent_.reset();
    initialized_ = false;
    eventsPending_ = false;
    LOG_INFO("channel '%s' is un-initialized", channelName_.c_str());
}

void LegacyReader::markWritten(EVT_HANDLE, uint64_t recordNumber) {
    position_ = recordNumber;
    positionKnown_ = true;
    positionFromRun_ = true;
}

void LegacyReader::endReversePhase() {
    reverse_ = false;
    checkpoints_.endLegacyPhase(anchor_);
    position_ = anchor_;
    positionKnown_ = anchor_ != 0;
    positionFromRun_ = true;
    anchor_ = 0;
    uninit();
}

void LegacyReader::getEventsOld(EventBatch& records) {
    eventsPending_ = false;
    if (!initialized_) return;
    // The modern reader's bound on the work of one call: about 3000 records.
    const size_t limit = static_cast<size_t>((1001 / batchSize_) * 3 + 1) * batchSize_;
    records.reserve(records.size() + limit);
    if (buffer_.empty() && !growBuffer(buffer_, kFirstReadBytes)) return;
    size_t seen = 0;
    for (unsigned retries = 0; seen < limit;) {
        try {
            if (seekNeeded_ && !positionForRead()) return;
        } catch (const SkorvaException& e) {
            LOG_ERROR("%s", e.what());
            return;
        }
        switch (readOnce()) {
        case ReadResult::Read: seen += parseEventLogRecords(buffer_.data(), bytesRead_, records); break;
        case ReadResult::Retry:
            if (++retries > limit) return;  // a log that never lets itself be read is tried again next pass
            break;
        case ReadResult::End:
        case ReadResult::Stop: return;
        }
    }
    eventsPending_ = true;
}

bool LegacyReader::positionForRead() {
    const DWORD oldest = updateOldestRecord();
    const DWORD count = updateNumberOfRecords();
    if (count == 0 || oldest == 0) {
        if (reverse_) reverseComplete_ = true;
        return false;
    }
    const uint32_t newest = oldest + count - 1;
    if (reverse_) {
        next_ = std::min(next_, newest);
        if (next_ >= oldest) return true;
        if (next_ != 0)
            LOG_WARN("%s: Records %lu and older of Windows Event Log channel='%s' are gone (the log was cleared or has "
                     "wrapped) before they were read",
                     kGetEvents, static_cast<unsigned long>(next_), channelName_.c_str());
        reverseComplete_ = true;
        return false;
    }
    if (next_ > newest + 1) {
        LOG_WARN("%s: Windows Event Log channel='%s' holds records %lu to %lu only, older than the last record sent "
                 "(%lu): it was cleared and numbers its records anew; reading it from its oldest record",
                 kGetEvents, channelName_.c_str(), static_cast<unsigned long>(oldest),
                 static_cast<unsigned long>(newest), static_cast<unsigned long>(next_ - 1));
        next_ = oldest;
    } else if (next_ != 0 && next_ < oldest) {
        LOG_WARN("%s: Records %lu to %lu of Windows Event Log channel='%s' are gone (the log was cleared or has "
                 "wrapped) before they were read; reading on from its oldest record, %lu",
                 kGetEvents, static_cast<unsigned long>(next_), static_cast<unsigned long>(oldest - 1),
                 channelName_.c_str(), static_cast<unsigned long>(oldest));
        next_ = oldest;
    }
    if (next_ == 0) next_ = oldest;
    return next_ <= newest;
}

LegacyReader::ReadResult LegacyReader::readOnce() {
    const bool seek = seekNeeded_ && !seekRefused_;
    // Only a new handle reads sequentially from the start again.
    if (seekNeeded_ && seekRefused_ && !openLog(kGetEvents)) {
        LOG_INFO("%s: Unable to open Windows Event Log channel='%s' again, Error=(0x%x)", kGetEvents,
                 channelName_.c_str(), static_cast<unsigned>(::GetLastError()));
        channelState_ = false;
        return ReadResult::Stop;
    }
    // A direction always goes with the flag: the service refuses a read without one.
    const DWORD flags = (reverse_ ? EVENTLOG_BACKWARDS_READ : EVENTLOG_FORWARDS_READ) |
                        (seek ? EVENTLOG_SEEK_READ : EVENTLOG_SEQUENTIAL_READ);
    DWORD needed = 0;
    bytesRead_ = 0;
    if (legacyApi().ReadEventLogW(log_.get(), flags, seek ? next_ : 0, buffer_.data(),
                                  static_cast<DWORD>(buffer_.size()), &bytesRead_, &needed)) {
        seekNeeded_ = false;
        bytesRead_ = std::min<DWORD>(bytesRead_, static_cast<DWORD>(buffer_.size()));
        return bytesRead_ ? ReadResult::Read : ReadResult::End;
    }
    const DWORD error = ::GetLastError();
    if (error == ERROR_INVALID_PARAMETER && seek) {
        // Windows refuses seeks into large logs (KB 177199): read sequentially
        // from the start of this handle and pass over what is not wanted.
        LOG_WARN("%s: Windows Event Log channel='%s' refuses to seek to record %lu; it is read from its %s record "
                 "instead",
                 kGetEvents, channelName_.c_str(), static_cast<unsigned long>(next_), reverse_ ? "newest" : "oldest");
        seekRefused_ = true;
        return ReadResult::Retry;
    }
    return readFailed(error, needed);
}

LegacyReader::ReadResult LegacyReader::readFailed(DWORD error, DWORD needed) {
    switch (error) {
    case ERROR_INSUFFICIENT_BUFFER:
        if (needed > buffer_.size() && needed <= kMaxReadBytes && growBuffer(buffer_, needed)) return ReadResult::Retry;
        skipRecord("it is larger than a read can carry");
        return ReadResult::Retry;
    case ERROR_HANDLE_EOF:
        if (reverse_) reverseComplete_ = true;
        return ReadResult::End;
    case ERROR_EVENTLOG_FILE_CHANGED:
        // Cleared under the handle: only a new one reads on.
        LOG_WARN("%s: The Windows Event Log channel='%s' was cleared while it was read, Error=(0x%x); it is opened "
                 "again after the last event sent",
                 kGetEvents, channelName_.c_str(), static_cast<unsigned>(error));
        channelState_ = false;
        return ReadResult::Stop;
    case ERROR_INVALID_HANDLE:
        LOG_INFO("%s: Unable to get Windows event logs, channel='%s', Error=(0x%x)", kGetEvents, channelName_.c_str(),
                 static_cast<unsigned>(error));
        LOG_INFO("%s: Setting the '%s' channel state to updated", kGetEvents, channelName_.c_str());
        channelState_ = false;
        return ReadResult::Stop;
    default:
        LOG_DEBUG("%s: ReadEventLog returned no events for Windows Event Log channel='%s', Error=(0x%x)", kGetEvents,
                  channelName_.c_str(), static_cast<unsigned>(error));
        return ReadResult::Stop;
    }
}

// The record the next read would return cannot be had: it is passed over, and
// the operator told.
void LegacyReader::skipRecord(const char* why) {
    LOG_ERROR("%s: Record %lu of Windows Event Log channel='%s' is skipped: %s", kGetEvents,
              static_cast<unsigned long>(next_), channelName_.c_str(), why);
    passed(next_);
    seekNeeded_ = true;
}

size_t LegacyReader::parseEventLogRecords(const uint8_t* buffer, DWORD bytes, EventBatch& records) {
    EventLogRecordParser parser(buffer, bytes);
    size_t seen = 0;
    for (;;) {
        switch (parser.next(view_)) {
        case EventLogRecordParser::Result::End: return seen;
        case EventLogRecordParser::Result::Broken:
            // Nothing after it can be found in this buffer: read again from the
            // record after the last good one, or past this one if it came first.
            if (parser.recordOffset() == 0) {
                skipRecord("it is damaged (its length does not hold)");
            } else {
                LOG_WARN("%s: A damaged record of Windows Event Log channel='%s' ends a read: %s; reading again from "
                         "record %lu",
                         kGetEvents, channelName_.c_str(), parser.why(), static_cast<unsigned long>(next_));
                seekNeeded_ = true;
            }
            return seen + 1;
        case EventLogRecordParser::Result::Damaged:
            ++seen;
            if (!wanted(view_.recordNumber)) continue;
            LOG_ERROR("%s: Record %lu of Windows Event Log channel='%s' is skipped: it is damaged (%s)", kGetEvents,
                      static_cast<unsigned long>(view_.recordNumber), channelName_.c_str(), parser.why());
            passed(view_.recordNumber);
            continue;
        case EventLogRecordParser::Result::Record:
            ++seen;
            if (!wanted(view_.recordNumber)) continue;
            passed(view_.recordNumber);
            if (!settings_.filters.admitsCode(view_.eventCode(), "WinEventLogChannelBase::includeEvent", channelName_))
                continue;
            rendered_.reset();
            addRecord(view_, rendered_);
            finishRecord(rendered_, records, text_);
            continue;
        }
    }
}

void LegacyReader::addRecord(const EventLogRecordView& view, EventRecord& record) {
    record.eventCode = view.eventCode();
    record.recordNumber = view.recordNumber;
    record.time = view.timeGenerated;
    record.publisher.assign(wideView(view.source));
    if (settings_.renderXml) {
        renderLegacyEventXml(view, channelNameW_, record.xml);
    } else {
        addClassicFields(record, settings_, fieldText_,
                         [&](ClassicField field, std::wstring_view& value, std::wstring& scratch) {
                             return fieldValue(field, view, record, value, scratch);
                         });
    }
    getEventMsg(view, record);
    if (!settings_.renderXml) addMessageField(record, settings_);
}

FieldValue LegacyReader::fieldValue(ClassicField field, const EventLogRecordView& view, EventRecord& record,
                                    std::wstring_view& value, std::wstring& scratch) {
    const auto present = [&value](std::wstring_view text) {
        value = text;
        return FieldValue::Present;
    };
    switch (field) {
    case ClassicField::Timestamp: {
        const uint64_t fileTime = view.timeGenerated * 10000000ull + kFileTimeUnixEpoch;
        return formatLocalTimestamp(fileTime, scratch) ? present(scratch) : FieldValue::Absent;
    }
    case ClassicField::LogName: return present(channelNameW_);
    case ClassicField::EventCode: return present(decimalText(record.eventCode, scratch));
    case ClassicField::EventType: return present(decimalText(view.eventType, scratch));
    case ClassicField::ComputerName: return present(wideView(view.computer));
    case ClassicField::User: {
        // The SID is not aligned in the record.
        alignas(DWORD) BYTE sid[kMaxSidBytes];
        user_.clear();
        if (view.sidLength && view.sidLength <= sizeof sid) {
            std::copy(view.sid, view.sid + view.sidLength, sid);
            if (!user_.process(sid, settings_.resolveAdObj))
                LOG_DEBUG("%s: Unable to process sid for Windows Event Log='%s'; evtlog_id='%d';", kGetEvents,
                          channelName_.c_str(), static_cast<int>(record.eventCode));
        }
        return user_.value(field, value, scratch);
    }
    case ClassicField::Sid:
    case ClassicField::SidType: return user_.value(field, value, scratch);
    case ClassicField::SourceName: return present(record.publisher);
    case ClassicField::Type: {
        const wchar_t* name = eventTypeName(view.eventType);
        return name ? present(name) : FieldValue::Absent;
    }
    case ClassicField::RecordNumber: return present(decimalText(view.recordNumber, scratch));
    case ClassicField::Keywords:
        // The record knows the audit keywords only, through its type.
        if (view.eventType == kTypeAuditSuccess) return present(L"Audit Success");
        if (view.eventType == kTypeAuditFailure) return present(L"Audit Failure");
        return FieldValue::Absent;
    case ClassicField::TaskCategory:
        if (view.eventCategory == 0) return present(L"None");
        if (messages_.categoryName(record.publisher, view.eventCategory, scratch)) return present(scratch);
        return present(decimalText(view.eventCategory, scratch));
    default: return FieldValue::Absent;  // no opcode in a classic record
    }
}

void LegacyReader::getEventMsg(const EventLogRecordView& view, EventRecord& record) {
    static const char* const fn = "WinEventLogChannel::getEventMsg";
    if (!settings_.renderXml && !settings_.suppressText)
        messages_.formatEventMessage(record.publisher, view.eventId, view.strings, record.message);
    if (!settings_.resolveAdObj) return;
    LOG_DEBUG("%s (%d): translating SID (dummy)", fn, 1581);
    sids_.translate(record.message, record.xml, record.xmlText);
}

}  // namespace skorva
