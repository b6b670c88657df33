#pragma once
// The monitor's output: the event stream on standard output (or another file),
// written one whole event at a time under the output lock.

#include <atomic>
#include <cstdio>
#include <memory>
#include <string>

#include "channel/ClassicText.h"
#include "channel/EventRecord.h"
#include "modinput/EventStreamWriter.h"
#include "platform/Handles.h"

namespace skorva {

class EventOutput {
public:
    // Output goes to `out` instead of standard output (set before the first event).
    void setOutput(FILE* out) { out_ = out; }
    // Writes one event; false when the stream cannot take it. The first
    // failure is reported; from then on the output counts as broken.
    bool write(const ModinputEvent& record);
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
