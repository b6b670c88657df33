#include "modinput/EventStreamWriter.h"

#include <fcntl.h>
#include <io.h>

namespace skorva {

EventStreamWriter::EventStreamWriter(FILE* out) : out_(out) {
    // Events go straight to the descriptor, one write each: the C library's
    // buffering would split them (or, on a console, write byte by byte).
    fflush(out_);
    fd_ = _fileno(out_);
    if (fd_ >= 0) savedMode_ = _setmode(fd_, _O_BINARY);
    buffer_.reserve(4096);
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

void EventStreamWriter::appendElement(const char* name, const std::string& value) {
    if (value.empty()) return;
    buffer_ += '<';
    buffer_ += name;
    buffer_ += '>';
    appendEscaped(buffer_, value);
    buffer_ += "</";
    buffer_ += name;
    buffer_ += ">\n";
}

bool EventStreamWriter::writeEvent(const ModinputEvent& event) {
    buffer_.clear();
    if (!started_) buffer_ += "<stream>\n";
    buffer_ += "<event";
    if (event.unbroken) buffer_ += " unbroken=\"1\"";
    if (!event.stanza.empty()) {
        buffer_ += " stanza=\"";
        appendEscaped(buffer_, event.stanza);
        buffer_ += '"';
    }
    buffer_ += ">\n";
    appendElement("time", event.time);
    if (!event.data.empty()) {
        buffer_ += "<data>";
        appendEscaped(buffer_, event.data);
        buffer_ += "</data>\n";
    }
    appendElement("source", event.source);
    appendElement("sourcetype", event.sourcetype);
    appendElement("host", event.host);
    appendElement("index", event.index);
    if (event.done) buffer_ += "<done/>\n";
    buffer_ += "</event>\n";
    const bool ok = writeAll(buffer_.data(), buffer_.size());
    started_ = true;
    return ok;
}

}  // namespace skorva
