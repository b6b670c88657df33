// No Windows header: the escaping also builds natively for fuzzing.
#include "modinput/StreamEscape.h"

#include <cstring>

namespace skorva {

namespace {
const char kHex[] = "0123456789ABCDEF";

// Output gathered in a small buffer: escaped text is made of many short pieces
// (an XML event has an entity every few bytes), appended a few kilobytes at a
// time instead of one by one.
class Staged {
public:
    explicit Staged(std::string& out) : out_(out) {}
    void put(const char* s, size_t n) {
        if (n > sizeof buf_ - used_) {
            flush();
            if (n > sizeof buf_ / 2) {
                out_.append(s, n);
                return;
            }
        }
        std::memcpy(buf_ + used_, s, n);
        used_ += n;
    }
    void hex(unsigned char b) {
        const char text[4] = {'\\', 'x', kHex[b >> 4], kHex[b & 0xF]};
        put(text, 4);
    }
    void flush() {
        out_.append(buf_, used_);
        used_ = 0;
    }

private:
    std::string& out_;
    char buf_[4096];
    size_t used_ = 0;
};

inline bool isContinuation(unsigned char b) { return (b & 0xC0) == 0x80; }

// Bytes copied unchanged without a look at their neighbours: printable ASCII
// other than the five entity characters, and tab, line feed, carriage return.
struct PlainBytes {
    bool table[256] = {};
    constexpr PlainBytes() {
        for (int c = 0x20; c < 0x80; ++c) table[c] = c != '&' && c != '<' && c != '>' && c != '"' && c != '\'';
        table[static_cast<int>('\t')] = table[static_cast<int>('\n')] = table[static_cast<int>('\r')] = true;
    }
    bool operator[](unsigned char c) const { return table[c]; }
};
constexpr PlainBytes kPlain;

// Length of the well-formed UTF-8 sequence at p (surrogate forms included, so
// the caller can escape them), or 0 when the bytes form none.
size_t utf8SequenceLength(const unsigned char* p, size_t avail) {
    unsigned char c = p[0];
    size_t len;
    unsigned char lo = 0x80, hi = 0xBF;  // allowed range of the second byte
    if (c >= 0xC2 && c <= 0xDF) len = 2;
    else if (c >= 0xE0 && c <= 0xEF) { len = 3; if (c == 0xE0) lo = 0xA0; }
    else if (c >= 0xF0 && c <= 0xF4) { len = 4; if (c == 0xF0) lo = 0x90; if (c == 0xF4) hi = 0x8F; }
    else return 0;
    if (avail < len || p[1] < lo || p[1] > hi) return 0;
    for (size_t k = 2; k < len; ++k)
        if (!isContinuation(p[k])) return 0;
    return len;
}
}  // namespace

void appendEscaped(std::string& out, std::string_view in) {
    const auto* p = reinterpret_cast<const unsigned char*>(in.data());
    const size_t n = in.size();
    Staged staged(out);
    size_t run = 0;  // start of the pending run of bytes copied unchanged
    auto flush = [&](size_t upTo) {
        if (upTo > run) staged.put(in.data() + run, upTo - run);
    };
    for (size_t i = 0; i < n; ++i) {
        // Most bytes pass unchanged: skip them by table.
        while (i < n && kPlain[p[i]]) ++i;
        if (i == n) break;
        unsigned char c = p[i];
        std::string_view entity;
        switch (c) {
        case '&': entity = "&amp;"; break;
        case '<': entity = "&lt;"; break;
        case '>': entity = "&gt;"; break;
        case '"': entity = "&quot;"; break;
        case '\'': entity = "&apos;"; break;
        default: break;
        }
        if (!entity.empty()) {
            flush(i);
            staged.put(entity.data(), entity.size());
            run = i + 1;
        } else if (c < 0x20 && c != '\t' && c != '\n' && c != '\r') {
            flush(i);
            staged.hex(c);
            run = i + 1;
        } else if (c >= 0x80) {
            size_t len = utf8SequenceLength(p + i, n - i);
            if (len == 3 && ((c == 0xED && p[i + 1] >= 0xA0) || (c == 0xEF && p[i + 1] == 0xBF && p[i + 2] >= 0xBE))) {
                // Surrogates and the two non-characters are not allowed in XML.
                flush(i);
                staged.hex(p[i]);
                staged.hex(p[i + 1]);
                staged.hex(p[i + 2]);
                i += 2;
                run = i + 1;
            } else if (len == 0) {
                // A byte that starts no valid UTF-8 sequence: escaped like a
                // control byte, so the stream stays well-formed and the byte
                // can still be recovered.
                flush(i);
                staged.hex(c);
                run = i + 1;
            } else {
                i += len - 1;
            }
        }
    }
    flush(n);
    staged.flush();
}

}  // namespace skorva
