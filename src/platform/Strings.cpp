#include "platform/Strings.h"

#include <emmintrin.h>

#include <bit>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <limits>
#include <type_traits>

namespace skorva {

namespace {

constexpr char32_t kReplacement = 0xFFFD;

// Runs of ASCII, the common case, eight units at a time where wchar_t is UTF-16
// (on Windows; native builds for fuzzing have it 32 bits wide and go unit by
// unit). Both move `i` and the output pointer past the run.
void narrowAscii(const wchar_t* in, size_t n, size_t& i, char*& p) {
    if constexpr (sizeof(wchar_t) == 2) {
        const __m128i nonAscii = _mm_set1_epi16(static_cast<short>(0xFF80));
        const __m128i zero = _mm_setzero_si128();
        for (; i + 8 <= n; i += 8, p += 8) {
            const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i));
            if (_mm_movemask_epi8(_mm_cmpeq_epi16(_mm_and_si128(v, nonAscii), zero)) != 0xFFFF) break;
            _mm_storel_epi64(reinterpret_cast<__m128i*>(p), _mm_packus_epi16(v, v));
        }
    }
    while (i < n && static_cast<char16_t>(in[i]) < 0x80) *p++ = static_cast<char>(in[i++]);
}

void widenAscii(const unsigned char* in, size_t n, size_t& i, wchar_t*& q) {
    if constexpr (sizeof(wchar_t) == 2) {
        const __m128i zero = _mm_setzero_si128();
        for (; i + 16 <= n; i += 16, q += 16) {
            const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i));
            if (_mm_movemask_epi8(v)) break;
            _mm_storeu_si128(reinterpret_cast<__m128i*>(q), _mm_unpacklo_epi8(v, zero));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(q + 8), _mm_unpackhi_epi8(v, zero));
        }
    }
    while (i < n && in[i] < 0x80) *q++ = static_cast<wchar_t>(in[i++]);
}

}  // namespace

// A UTF-8 text never takes more UTF-16 units than it has bytes: the output is
// sized once and written through a pointer.
void widenInto(std::string_view in, std::wstring& out) {
    const size_t n = in.size();
    out.resize(n);
    wchar_t* const first = out.data();
    wchar_t* q = first;
    const auto* p = reinterpret_cast<const unsigned char*>(in.data());
    size_t i = 0;
    while (i < n) {
        widenAscii(p, n, i, q);
        if (i == n) break;
        const unsigned char c = p[i];
        size_t len;
        char32_t cp;
        char32_t min;
        if (c >= 0xC2 && c <= 0xDF) { len = 2; cp = c & 0x1F; min = 0x80; }
        else if (c >= 0xE0 && c <= 0xEF) { len = 3; cp = c & 0x0F; min = 0x800; }
        else if (c >= 0xF0 && c <= 0xF4) { len = 4; cp = c & 0x07; min = 0x10000; }
        else { *q++ = static_cast<wchar_t>(kReplacement); ++i; continue; }
        size_t j = 1;
        for (; j < len && i + j < n; ++j) {
            const unsigned char cc = p[i + j];
            if ((cc & 0xC0) != 0x80) break;
            cp = (cp << 6) | (cc & 0x3F);
        }
        if (j < len || cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
            // Resynchronise after the bytes that did belong to the sequence.
            *q++ = static_cast<wchar_t>(kReplacement);
            i += (j > 1 && j < len) ? j : 1;
            continue;
        }
        if (cp >= 0x10000) {
            cp -= 0x10000;
            *q++ = static_cast<wchar_t>(0xD800 + (cp >> 10));
            *q++ = static_cast<wchar_t>(0xDC00 + (cp & 0x3FF));
        } else {
            *q++ = static_cast<wchar_t>(cp);
        }
        i += len;
    }
    out.resize(static_cast<size_t>(q - first));
}

std::wstring widen(std::string_view utf8) {
    std::wstring out;
    widenInto(utf8, out);
    return out;
}

void appendNarrow(std::wstring_view in, std::string& out) {
    const size_t n = in.size();
    const size_t at = out.size();
    out.resize(at + n * 3);  // the most one UTF-16 unit can become
    char* const first = out.data() + at;
    char* p = first;
    size_t i = 0;
    while (i < n) {
        narrowAscii(in.data(), n, i, p);
        if (i == n) break;
        char32_t c = static_cast<char16_t>(in[i++]);
        if (c >= 0xD800 && c <= 0xDBFF && i < n) {
            const char32_t d = static_cast<char16_t>(in[i]);
            if (d >= 0xDC00 && d <= 0xDFFF) {
                c = 0x10000 + ((c - 0xD800) << 10) + (d - 0xDC00);
                ++i;
            }
        }
        if (c >= 0xD800 && c <= 0xDFFF) c = kReplacement;
        if (c < 0x800) {
            *p++ = static_cast<char>(0xC0 | (c >> 6));
        } else if (c < 0x10000) {
            *p++ = static_cast<char>(0xE0 | (c >> 12));
            *p++ = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        } else {
            *p++ = static_cast<char>(0xF0 | (c >> 18));
            *p++ = static_cast<char>(0x80 | ((c >> 12) & 0x3F));
            *p++ = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        }
        *p++ = static_cast<char>(0x80 | (c & 0x3F));
    }
    out.resize(at + static_cast<size_t>(p - first));
}

void narrowInto(std::wstring_view utf16, std::string& out) {
    out.clear();
    out.reserve(utf16.size());
    appendNarrow(utf16, out);
}

std::string narrow(std::wstring_view utf16) {
    std::string out;
    narrowInto(utf16, out);
    return out;
}

std::string asciiLower(std::string_view s) {
    std::string out(s);
    for (char& c : out) c = asciiLowerChar(c);
    return out;
}

std::wstring asciiLower(std::wstring_view s) {
    std::wstring out(s);
    for (wchar_t& c : out)
        if (c >= L'A' && c <= L'Z') c = static_cast<wchar_t>(c - L'A' + L'a');
    return out;
}

std::string_view trimView(std::string_view s) {
    size_t b = 0, e = s.size();
    while (b < e && isSpace(s[b])) ++b;
    while (e > b && isSpace(s[e - 1])) --e;
    return s.substr(b, e - b);
}

std::string trim(std::string_view s) { return std::string(trimView(s)); }

std::vector<std::string> split(std::string_view s, char sep) {
    std::vector<std::string> parts;
    size_t start = 0;
    for (;;) {
        size_t pos = s.find(sep, start);
        if (pos == std::string_view::npos) {
            parts.emplace_back(s.substr(start));
            return parts;
        }
        parts.emplace_back(s.substr(start, pos - start));
        start = pos + 1;
    }
}

bool startsWith(std::string_view s, std::string_view prefix) {
    return s.size() >= prefix.size() && s.compare(0, prefix.size(), prefix) == 0;
}

bool endsWith(std::string_view s, std::string_view suffix) {
    return s.size() >= suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

template <class S, class V>
static size_t replaceAllImpl(S& s, V from, V to) {
    if (from.empty()) return 0;
    size_t count = 0;
    size_t pos = 0;
    while ((pos = s.find(from.data(), pos, from.size())) != S::npos) {
        s.replace(pos, from.size(), to.data(), to.size());
        pos += to.size();
        ++count;
    }
    return count;
}

static_assert(std::endian::native == std::endian::little, "findText reads the first match from the low lane");

namespace {

// Eight bytes at a time: a lane of the word is zero where the needle's first
// two units stand; the lowest lane flagged is exact (later flags may be borrows).
template <class Char>
size_t findUnits(std::basic_string_view<Char> s, std::basic_string_view<Char> needle, size_t pos) {
    using Unit = std::make_unsigned_t<Char>;
    constexpr unsigned kBits = sizeof(Char) * 8;
    constexpr size_t kLanes = 8 / sizeof(Char);
    constexpr uint64_t kOnes = ~uint64_t{0} / ((uint64_t{1} << kBits) - 1);
    constexpr uint64_t kHighs = kOnes << (kBits - 1);
    const size_t n = s.size();
    const size_t m = needle.size();
    if (m == 0 || m > n) return std::basic_string_view<Char>::npos;
    const size_t last = n - m;  // the last place the needle can start
    const Char* const p = s.data();
    // The first two units are looked for together: in an XML text the first
    // alone ("<" of "</System>", "S" of "S-1-") is everywhere.
    const size_t second = m > 1 ? 1 : 0;
    const uint64_t first = kOnes * static_cast<Unit>(needle[0]);
    const uint64_t next = kOnes * static_cast<Unit>(needle[second]);
    while (pos <= last) {
        if (pos + second + kLanes <= n) {
            uint64_t word;
            uint64_t shifted;
            std::memcpy(&word, p + pos, 8);
            std::memcpy(&shifted, p + pos + second, 8);
            const uint64_t x = (word ^ first) | (shifted ^ next);
            const uint64_t zeros = (x - kOnes) & ~x & kHighs;
            if (!zeros) {
                pos += kLanes;
                continue;
            }
            pos += static_cast<size_t>(std::countr_zero(zeros)) / kBits;
            if (pos > last) break;
        } else if (p[pos] != needle[0]) {
            ++pos;
            continue;
        }
        size_t i = 1;
        while (i < m && p[pos + i] == needle[i]) ++i;
        if (i == m) return pos;
        ++pos;
    }
    return std::basic_string_view<Char>::npos;
}

}  // namespace

size_t findText(std::string_view s, std::string_view needle, size_t pos) { return findUnits(s, needle, pos); }

size_t findText(std::wstring_view s, std::wstring_view needle, size_t pos) { return findUnits(s, needle, pos); }

size_t replaceAll(std::string& s, std::string_view from, std::string_view to) {
    if (from.empty()) return 0;
    size_t count = 0;
    size_t pos = 0;
    while ((pos = findText(s, from, pos)) != std::string::npos) {
        s.replace(pos, from.size(), to.data(), to.size());
        pos += to.size();
        ++count;
    }
    return count;
}

size_t replaceAll(std::wstring& s, std::wstring_view from, std::wstring_view to) {
    return replaceAllImpl(s, from, to);
}

bool parseUInt64(std::string_view s, uint64_t& out) {
    s = trimView(s);
    if (!s.empty() && s[0] == '+') s.remove_prefix(1);
    if (s.empty()) return false;
    uint64_t v = 0;
    for (char c : s) {
        if (c < '0' || c > '9') return false;
        unsigned d = static_cast<unsigned>(c - '0');
        if (v > (std::numeric_limits<uint64_t>::max() - d) / 10) return false;
        v = v * 10 + d;
    }
    out = v;
    return true;
}

void appendDecimal(uint64_t n, std::wstring& out) {
    wchar_t digits[20];
    size_t count = 0;
    do {
        digits[count++] = static_cast<wchar_t>(L'0' + n % 10);
        n /= 10;
    } while (n);
    while (count) out += digits[--count];
}

bool parseInt64(std::string_view s, int64_t& out) {
    s = trimView(s);
    bool neg = false;
    if (!s.empty() && (s[0] == '-' || s[0] == '+')) {
        neg = s[0] == '-';
        s.remove_prefix(1);
    }
    uint64_t mag;
    if (!parseUInt64(s, mag) || (!s.empty() && (s[0] == '+' || s[0] == '-'))) return false;
    const uint64_t limit = neg ? uint64_t(std::numeric_limits<int64_t>::max()) + 1
                               : uint64_t(std::numeric_limits<int64_t>::max());
    if (mag > limit) return false;
    out = neg ? static_cast<int64_t>(0 - mag) : static_cast<int64_t>(mag);
    return true;
}

std::string format(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    va_list copy;
    va_copy(copy, args);
    char stackBuf[512];
    int n = vsnprintf(stackBuf, sizeof stackBuf, fmt, args);
    va_end(args);
    std::string out;
    if (n < 0) {
        va_end(copy);
        return out;
    }
    if (static_cast<size_t>(n) < sizeof stackBuf) {
        out.assign(stackBuf, static_cast<size_t>(n));
    } else {
        out.resize(static_cast<size_t>(n) + 1);
        vsnprintf(out.data(), out.size(), fmt, copy);
        out.resize(static_cast<size_t>(n));
    }
    va_end(copy);
    return out;
}

}  // namespace skorva
