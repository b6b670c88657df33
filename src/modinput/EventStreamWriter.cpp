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

void appendElement(std::string& out, const char* name, const std::string& value) {
    if (value.empty()) return;
    out += '<';
    out += name;
    out += '>';
    appendEscaped(out, value);
    out += "</";
    out += name;
    out += ">\n";
}

}  // namespace

void EventStreamWriter::appendEvent(std::string& out, const ModinputEvent& event) {
    out += "<event";
    if (event.unbroken) out += " unbroken=\"1\"";
    if (!event.stanza.empty()) {
        out += " stanza=\"";
        appendEscaped(out, event.stanza);
        out += '"';
    }
    out += ">\n";
    appendElement(out, "time", event.time);
    if (!event.data.empty()) {
        out += "<data>";
        appendEscaped(out, event.data);
        out += "</data>\n";
    }
    appendElement(out, "source", event.source);
    appendElement(out, "sourcetype", event.sourcetype);
    appendElement(out, "host", event.host);
    appendElement(out, "index", event.index);
    if (event.done) out += "<done/>\n";
    out += "</event>\n";
}

bool EventStreamWriter::writeBlock(std::string_view events) {
    if (!started_) {
        started_ = true;
        if (!writeAll("<stream>\n", 9)) return false;
    }
    return writeAll(events.data(), events.size());
}

}  // namespace skorva
