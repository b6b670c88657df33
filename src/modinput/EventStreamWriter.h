#pragma once
// Writes events to standard output as the daemon's XML stream:
//   <stream>\n<event stanza="...">\n<time>..</time>\n<data>..</data>\n...</event>\n ... </stream>\n
// "<stream>" goes out with the first block, "</stream>" when the writer is
// destroyed after at least one. Events are formatted by appendEvent, on any
// thread, and written in blocks of whole events; writing is not thread-safe:
// the caller serialises.

#include <cstdio>
#include <string>
#include <string_view>

#include "modinput/StreamEscape.h"

namespace skorva {

struct ModinputEvent {
    bool unbroken = false;
    std::string data;  // UTF-8
    std::string source;
    std::string sourcetype;
    std::string host;
    std::string index;
    std::string stanza;
    std::string time;
    bool done = false;
};

class EventStreamWriter {
public:
    // Writes to `out` (stdout by default), switched to binary mode meanwhile.
    explicit EventStreamWriter(FILE* out = stdout);
    ~EventStreamWriter();
    EventStreamWriter(const EventStreamWriter&) = delete;
    EventStreamWriter& operator=(const EventStreamWriter&) = delete;

    // Appends one event, as the stream carries it, to `out`.
    static void appendEvent(std::string& out, const ModinputEvent& event);
    // Writes whole events made by appendEvent; false when the output could not
    // be written (the daemon went away).
    bool writeBlock(std::string_view events);

private:
    bool writeAll(const char* data, size_t size);

    FILE* out_;
    int fd_ = -1;
    int savedMode_ = -1;
    bool started_ = false;
};

}  // namespace skorva
