#include "modinput/EventStreamWriter.h"

#include <fcntl.h>
#include <io.h>

namespace skorva {

EventStreamWriter::EventStreamWriter(FILE* out) : out_(out) {
    // Blocks go straight to the descriptor, one write each: the C library's
    // buffering would split them (or, on a console, write byte by byte).
    fflush(out_);
    fd_ = _fileno(out_);
    if (fd_ >= 0) savedMode_ = _setmode(fd_, _O_BINARY);
}

EventStreamWriter::~EventStreamWriter() {
    if (started_) writeAll("</stream>\n", 10);
    if (savedMode_ != -1) _setmode(fd_, savedMode_);
}

bool EventStreamWriter::writeAll(const char* data, size_t size) {
    if (fd_ < 0) return false;
    while (size > 0) {
        const unsigned chunk = size > (1u << 30) ? (1u << 30) : static_cast<unsigned>(size);
        const int written = _write(fd_, data, chunk);
        if (written <= 0) return false;
        data += written;
        size -= static_cast<size_t>(written);
    }
    return true;
}

namespace {

void appendElement(std::string& out, std::string_view name, const std::string& value) {
    if (value.empty()) return;
    out.append("<").append(name).append(">");
    appendEscaped(out, value);
    out.append("</").append(name).append(">\n");
}

}  // namespace

void EventEnvelope::set(const std::string& stanzaName, const std::string& sourceName, const std::string& type,
                        const std::string& indexName) {
    stanza = stanzaName;
    source = sourceName;
    sourcetype = type;
    index = indexName;
    head = "<event";
    if (!stanza.empty()) {
        head += " stanza=\"";
        appendEscaped(head, stanza);
        head += '"';
    }
    head += ">\n";
    tail.clear();
    appendElement(tail, "source", source);
    appendElement(tail, "sourcetype", sourcetype);
    appendElement(tail, "index", index);
    tail += "</event>\n";
}

void EventStreamWriter::appendEvent(std::string& out, const EventEnvelope& envelope, std::string_view time,
                                    std::string_view data) {
    out += envelope.head;
    if (!time.empty()) out.append("<time>").append(time).append("</time>\n");
    if (!data.empty()) {
        out += "<data>";
        appendEscaped(out, data);
        out += "</data>\n";
    }
    out += envelope.tail;
}

bool EventStreamWriter::writeBlock(std::string_view events) {
    if (!started_) {
        started_ = true;
        if (!writeAll("<stream>\n", 9)) return false;
    }
    return writeAll(events.data(), events.size());
}

}  // namespace skorva
