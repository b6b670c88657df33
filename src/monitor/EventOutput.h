#pragma once
// The monitor's output: the event stream on standard output (or another file),
// written a block of whole events at a time under the output lock.

#include <atomic>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include "channel/ClassicText.h"
#include "channel/EventRecord.h"
#include "modinput/EventStreamWriter.h"
#include "platform/Handles.h"

namespace skorva {

class EventOutput {
public:
    // Output goes to `out` instead of standard output (set before the first event).
    void setOutput(FILE* out) { out_ = out; }
    // Writes whole events (EventStreamWriter::appendEvent); false when the
    // stream cannot take them. The first failure is reported; from then on the
    // output counts as broken.
    bool write(std::string_view events);
    // The daemon no longer reads the stream (it closed it, or it is gone).
    bool broken() const { return broken_.load(); }
    // Ends the stream ("</stream>" when it was begun).
    void close() { writer_.reset(); }

private:
    CriticalSection lock_;
    FILE* out_ = stdout;
    std::unique_ptr<EventStreamWriter> writer_;
    std::atomic<bool> broken_{false};
};

}  // namespace skorva
