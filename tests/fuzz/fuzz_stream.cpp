// Any bytes an event may carry, escaped for the stream: the element and the
// attribute they become must be well-formed XML 1.0, and what a parser reads
// back must be what the escaping says — valid UTF-8 (other than surrogates and
// U+FFFE/U+FFFF) and tab, line feed, carriage return as they are (a parser
// turns CR and CR LF into LF), the five entity characters as themselves, and
// every other byte as the four characters "\xHH".
#include <expat.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "FuzzSupport.h"
#include "modinput/StreamEscape.h"

SKORVA_FUZZ_QUIET

namespace {

// Length of a UTF-8 sequence XML allows at `p`, or 0.
size_t allowedSequence(const unsigned char* p, size_t avail) {
    const unsigned char c = p[0];
    size_t len = 0;
    uint32_t cp = 0;
    if (c >= 0xC2 && c <= 0xDF) len = 2, cp = c & 0x1F;
    else if (c >= 0xE0 && c <= 0xEF) len = 3, cp = c & 0x0F;
    else if (c >= 0xF0 && c <= 0xF4) len = 4, cp = c & 0x07;
    else return 0;
    if (avail < len) return 0;
    for (size_t k = 1; k < len; ++k) {
        if ((p[k] & 0xC0) != 0x80) return 0;
        cp = (cp << 6) | (p[k] & 0x3F);
    }
    const bool overlong = (len == 3 && cp < 0x800) || (len == 4 && cp < 0x10000);
    if (overlong || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF) || cp == 0xFFFE || cp == 0xFFFF) return 0;
    return len;
}

// What a parser reads back from the escaped form of `in`.
std::string readBack(std::string_view in) {
    static const char hex[] = "0123456789ABCDEF";
    const auto* p = reinterpret_cast<const unsigned char*>(in.data());
    std::string out;
    for (size_t i = 0; i < in.size();) {
        const unsigned char c = p[i];
        if (c == '\r') {
            out += '\n';
            i += i + 1 < in.size() && p[i + 1] == '\n' ? 2 : 1;
        } else if (c >= 0x20 && c < 0x80) {
            out += static_cast<char>(c), ++i;
        } else if (c == '\t' || c == '\n') {
            out += static_cast<char>(c), ++i;
        } else if (const size_t len = c >= 0x80 ? allowedSequence(p + i, in.size() - i) : 0) {
            out.append(in.data() + i, len), i += len;
        } else {
            out += "\\x", out += hex[c >> 4], out += hex[c & 0xF], ++i;
        }
    }
    return out;
}

struct Parsed {
    std::string text;
    std::string attribute;
};

bool parse(const std::string& document, Parsed& parsed) {
    XML_Parser parser = XML_ParserCreate("UTF-8");
    XML_SetUserData(parser, &parsed);
    XML_SetCharacterDataHandler(parser, [](void* user, const XML_Char* s, int len) {
        static_cast<Parsed*>(user)->text.append(s, static_cast<size_t>(len));
    });
    XML_SetStartElementHandler(parser, [](void* user, const XML_Char*, const XML_Char** attrs) {
        if (attrs[0]) static_cast<Parsed*>(user)->attribute = attrs[1];
    });
    const bool ok = XML_Parse(parser, document.data(), static_cast<int>(document.size()), 1) == XML_STATUS_OK;
    XML_ParserFree(parser);
    return ok;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view in(reinterpret_cast<const char*>(data), size);
    std::string escaped;
    skorva::appendEscaped(escaped, in);
    Parsed element;
    FUZZ_CHECK(parse("<data>" + escaped + "</data>", element));
    FUZZ_CHECK(element.text == readBack(in));
    Parsed attribute;
    FUZZ_CHECK(parse("<event stanza=\"" + escaped + "\"/>", attribute));
    return 0;
}
