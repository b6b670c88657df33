#include "monitor/EventOutput.h"

#include <cerrno>
#include <mutex>

#include "platform/Logger.h"

namespace skorva {

bool EventOutput::write(std::string_view events) {
    std::lock_guard<CriticalSection> lock(lock_);
    if (broken_) return false;
    if (!writer_) writer_ = std::make_unique<EventStreamWriter>(out_);
    if (writer_->writeBlock(events)) return true;
    broken_ = true;
    LOG_ERROR("%s: Failed to write event to output (errno=%d): the daemon no longer reads the event stream; stopping "
              "without checkpointing past the last event written",
              "WinEventMon::processEvent", errno);
    return false;
}

}  // namespace skorva
