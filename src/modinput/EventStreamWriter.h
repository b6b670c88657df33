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

// What every event of one stanza carries besides its time and text, escaped
// once: the opening tag and the elements after the data.
struct EventEnvelope {
    std::string stanza, source, sourcetype, index;  // as given, to tell whether it still fits
    std::string head;                                // <event stanza="...">\n
    std::string tail;                                // <source>...</source>\n ... </event>\n

    bool fits(const std::string& stanzaName, const std::string& sourceName, const std::string& type,
              const std::string& indexName) const {
        return !head.empty() && stanza == stanzaName && source == sourceName && sourcetype == type &&
               index == indexName;
    }
    // Remakes head and tail for these values.
    void set(const std::string& stanzaName, const std::string& sourceName, const std::string& type,
             const std::string& indexName);
};

class EventStreamWriter {
public:
    // Writes to `out` (stdout by default), switched to binary mode meanwhile.
    explicit EventStreamWriter(FILE* out = stdout);
    ~EventStreamWriter();
    EventStreamWriter(const EventStreamWriter&) = delete;
    EventStreamWriter& operator=(const EventStreamWriter&) = delete;

    // Appends one event, as the stream carries it, to `out`: `time` as it is
    // (digits), `data` (UTF-8) escaped.
    static void appendEvent(std::string& out, const EventEnvelope& envelope, std::string_view time,
                            std::string_view data);
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
