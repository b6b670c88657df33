#include "monitor/EventOutput.h"

#include <mutex>

#include "platform/Logger.h"
#include "platform/Strings.h"

namespace skorva {

void EventOutput::write(const ModinputEvent& record) {
    std::lock_guard<CriticalSection> lock(lock_);
    if (!writer_) writer_ = std::make_unique<EventStreamWriter>(out_);
    if (!writer_->writeEvent(record) && !failed_) {
        failed_ = true;
        LOG_ERROR("%s: Failed to write event to output", "WinEventMon::processEvent");
    }
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
