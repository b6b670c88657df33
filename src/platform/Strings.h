#pragma once
// Text helpers. No Windows header: the conversions are written out so the text
// logic can be compiled and fuzzed natively too. Invalid input never stops a
// conversion: each bad sequence becomes U+FFFD and the rest is kept.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Ascii.h"

namespace skorva {

// UTF-8 to UTF-16.
std::wstring widen(std::string_view utf8);
void widenInto(std::string_view utf8, std::wstring& out);
// UTF-16 to UTF-8 (a lone surrogate becomes U+FFFD).
std::string narrow(std::wstring_view utf16);
void narrowInto(std::wstring_view utf16, std::string& out);
// Appends instead of replacing.
void appendNarrow(std::wstring_view utf16, std::string& out);

std::string asciiLower(std::string_view s);
std::wstring asciiLower(std::wstring_view s);

// White space: tab, line feed, vertical tab, form feed, carriage return, blank.
inline bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}
std::string_view trimView(std::string_view s);
std::string trim(std::string_view s);
std::vector<std::string> split(std::string_view s, char sep);

bool startsWith(std::string_view s, std::string_view prefix);
bool endsWith(std::string_view s, std::string_view suffix);

// The first `needle` (non-empty) in `s` at or after `pos`, or npos. The same
// as std::string_view::find, without a call into the C runtime per candidate:
// the needle's first two units are looked for eight bytes at a time. It pays
// on texts such as an event's XML, where the first alone ("S" of "S-1-") is
// common.
size_t findText(std::string_view s, std::string_view needle, size_t pos = 0);
size_t findText(std::wstring_view s, std::wstring_view needle, size_t pos = 0);

// Replaces every occurrence of `from` (non-empty) with `to`; returns the count.
size_t replaceAll(std::string& s, std::string_view from, std::string_view to);
size_t replaceAll(std::wstring& s, std::wstring_view from, std::wstring_view to);

// `n` in decimal, appended.
void appendDecimal(uint64_t n, std::wstring& out);

// Base-10 parsing of the whole text (after trimming); false when it does not parse
// or overflows the type.
bool parseInt64(std::string_view s, int64_t& out);
bool parseUInt64(std::string_view s, uint64_t& out);

// printf into a std::string.
std::string format(const char* fmt, ...)
#if defined(__clang__)
    __attribute__((format(printf, 1, 2)))
#elif defined(__GNUC__)
    __attribute__((format(gnu_printf, 1, 2)))
#endif
    ;

}  // namespace skorva
