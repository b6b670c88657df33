// UTF-16 text as events carry it (paired or not) into the UTF-8 of the stream:
// the output is always valid UTF-8, and text without lone surrogates comes back
// unchanged when widened again.
#include <cstddef>
#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "platform/Strings.h"

SKORVA_FUZZ_QUIET

namespace {

bool validUtf8(const std::string& s) {
    const auto* p = reinterpret_cast<const unsigned char*>(s.data());
    for (size_t i = 0; i < s.size();) {
        const unsigned char c = p[i];
        size_t len = c < 0x80 ? 1 : c >= 0xC2 && c <= 0xDF ? 2 : c >= 0xE0 && c <= 0xEF ? 3 : c >= 0xF0 && c <= 0xF4 ? 4 : 0;
        if (len == 0 || i + len > s.size()) return false;
        uint32_t cp = len == 1 ? c : c & (0x7F >> len);
        for (size_t k = 1; k < len; ++k) {
            if ((p[i + k] & 0xC0) != 0x80) return false;
            cp = (cp << 6) | (p[i + k] & 0x3F);
        }
        if ((len == 2 && cp < 0x80) || (len == 3 && cp < 0x800) || (len == 4 && cp < 0x10000) || cp > 0x10FFFF ||
            (cp >= 0xD800 && cp <= 0xDFFF))
            return false;
        i += len;
    }
    return true;
}

bool pairedOnly(const std::wstring& w) {
    for (size_t i = 0; i < w.size(); ++i) {
        if (w[i] >= 0xD800 && w[i] <= 0xDBFF) {
            if (i + 1 == w.size() || w[i + 1] < 0xDC00 || w[i + 1] > 0xDFFF) return false;
            ++i;
        } else if (w[i] >= 0xDC00 && w[i] <= 0xDFFF) {
            return false;
        }
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::wstring utf16;
    for (size_t i = 0; i + 1 < size; i += 2) utf16 += static_cast<wchar_t>(data[i] | (data[i + 1] << 8));
    const std::string utf8 = skorva::narrow(utf16);
    FUZZ_CHECK(validUtf8(utf8));
    std::string appended = "x";
    skorva::appendNarrow(utf16, appended);
    FUZZ_CHECK(appended == "x" + utf8);
    if (pairedOnly(utf16)) FUZZ_CHECK(skorva::widen(utf8) == utf16);
    return 0;
}
