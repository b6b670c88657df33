// No Windows header: the escaping also builds natively for fuzzing.
#include "modinput/StreamEscape.h"

#include <emmintrin.h>

#include <bit>
#include <cstring>

namespace skorva {

namespace {
const char kHex[] = "0123456789ABCDEF";

// Output gathered in a small buffer: escaped text is made of many short pieces
// (an XML event has an entity every few bytes), appended a few kilobytes at a
// time instead of one by one. Pieces are written straight into it.
class Staged {
public:
    explicit Staged(std::string& out) : out_(out) {}
    // Room for `n` bytes (a few) at the cursor.
    char* room(size_t n) {
        if (n > sizeof buf_ - used_) flush();
        return buf_ + used_;
    }
    void advance(size_t n) { used_ += n; }
    void put(const char* s, size_t n) {
        std::memcpy(room(n), s, n);
        used_ += n;
    }
    void hex(unsigned char b) {
        char* at = room(4);
        at[0] = '\\';
        at[1] = 'x';
        at[2] = kHex[b >> 4];
        at[3] = kHex[b & 0xF];
        used_ += 4;
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

// The bytes of a 16-byte block that are not copied as they are (kPlain), one
// bit each: entity characters, control bytes other than tab, line feed and
// carriage return, and every byte of 0x80 and above, which the UTF-8 check sees.
inline unsigned specialBytes(__m128i v) {
    const auto eq = [&v](char c) { return _mm_cmpeq_epi8(v, _mm_set1_epi8(c)); };
    // Signed: below 0x20, or 0x80 and above.
    const __m128i low = _mm_andnot_si128(_mm_or_si128(_mm_or_si128(eq('\t'), eq('\n')), eq('\r')),
                                         _mm_cmplt_epi8(v, _mm_set1_epi8(0x20)));
    const __m128i entity =
        _mm_or_si128(_mm_or_si128(_mm_or_si128(eq('&'), eq('<')), _mm_or_si128(eq('>'), eq('"'))), eq('\''));
    return static_cast<unsigned>(_mm_movemask_epi8(_mm_or_si128(low, entity)));
}

// An ASCII byte that is not copied as it is: its entity, or "\xHH".
inline void putEscapedAscii(Staged& staged, unsigned char c) {
    switch (c) {
    case '&': staged.put("&amp;", 5); return;
    case '<': staged.put("&lt;", 4); return;
    case '>': staged.put("&gt;", 4); return;
    case '"': staged.put("&quot;", 6); return;
    case '\'': staged.put("&apos;", 6); return;
    default: staged.hex(c); return;  // a control byte
    }
}

// From `p`, `count` plain bytes to the cursor: one 16-byte store when the input
// holds 16 bytes from `p` on (`end` its end), byte by byte else.
inline void putPlain(Staged& staged, const unsigned char* p, size_t count, const unsigned char* end) {
    if (end - p >= 16)
        _mm_storeu_si128(reinterpret_cast<__m128i*>(staged.room(16)), _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
    else
        std::memcpy(staged.room(count), p, count);
    staged.advance(count);
}

}  // namespace

void appendEscaped(std::string& out, std::string_view in) {
    const auto* p = reinterpret_cast<const unsigned char*>(in.data());
    const size_t n = in.size();
    const unsigned char* const end = p + n;
    Staged staged(out);
    size_t i = 0;
    while (i < n) {
        if (i + 16 <= n) {
            // Sixteen bytes at a time: the plain runs between the ASCII bytes to
            // escape go out whole, and the block's mask serves all of them.
            unsigned special = specialBytes(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + i)));
            size_t from = 0;  // the block's first byte not yet written
            for (; special; special &= special - 1) {
                const size_t at = static_cast<size_t>(std::countr_zero(special));
                if (p[i + at] >= 0x80) break;  // UTF-8: checked below, byte by byte
                putPlain(staged, p + i + from, at - from, end);
                putEscapedAscii(staged, p[i + at]);
                from = at + 1;
            }
            if (!special) {
                putPlain(staged, p + i + from, 16 - from, end);
                i += 16;
                continue;
            }
            const size_t at = static_cast<size_t>(std::countr_zero(special));
            putPlain(staged, p + i + from, at - from, end);
            i += at;
        } else if (kPlain[p[i]]) {
            *staged.room(1) = static_cast<char>(p[i++]);
            staged.advance(1);
            continue;
        } else if (p[i] < 0x80) {
            putEscapedAscii(staged, p[i++]);
            continue;
        }
        const unsigned char c = p[i];
        const size_t len = utf8SequenceLength(p + i, n - i);
        if (len == 3 && ((c == 0xED && p[i + 1] >= 0xA0) || (c == 0xEF && p[i + 1] == 0xBF && p[i + 2] >= 0xBE))) {
            // Surrogates and the two non-characters are not allowed in XML.
            for (size_t k = 0; k < 3; ++k) staged.hex(p[i + k]);
            i += 3;
        } else if (len == 0) {
            // A byte that starts no valid UTF-8 sequence: escaped like a
            // control byte, so the stream stays well-formed and the byte can
            // still be recovered.
            staged.hex(c);
            ++i;
        } else {
            staged.put(in.data() + i, len);
            i += len;
        }
    }
    staged.flush();
}

}  // namespace skorva
