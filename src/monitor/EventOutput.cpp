#include "monitor/EventOutput.h"

#include <mutex>

#include "platform/Logger.h"

namespace skorva {

void EventOutput::write(const ModinputEvent& record) {
    std::lock_guard<CriticalSection> lock(lock_);
    if (!writer_) writer_ = std::make_unique<EventStreamWriter>(out_);
    if (!writer_->writeEvent(record) && !failed_) {
        failed_ = true;
        LOG_ERROR("%s: Failed to write event to output", "WinEventMon::processEvent");
    }
}

}  // namespace skorva
