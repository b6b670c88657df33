#include "monitor/EventOutput.h"

#include <cerrno>
#include <mutex>

#include "platform/Logger.h"
#include "platform/Strings.h"

namespace skorva {

bool EventOutput::write(const ModinputEvent& record) {
    std::lock_guard<CriticalSection> lock(lock_);
    if (broken_) return false;
    if (!writer_) writer_ = std::make_unique<EventStreamWriter>(out_);
    if (writer_->writeEvent(record)) return true;
    broken_ = true;
    LOG_ERROR("%s: Failed to write event to output (errno=%d): the daemon no longer reads the event stream; stopping "
              "without checkpointing past the last event written",
              "WinEventMon::processEvent", errno);
    return false;
}

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

}  // namespace skorva
