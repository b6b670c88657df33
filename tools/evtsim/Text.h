#pragma once
// Conversions shared by the simulated event log: UTF-8/UTF-16, the typed values of
// event XML (numbers, SIDs, GUIDs, ISO-8601 times), and channel names as file names.

#include <windows.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Ascii.h"  // shared with the product, header-only

namespace evtsim {

std::wstring toWide(std::string_view utf8);
std::string toUtf8(std::wstring_view wide);
// Number of UTF-16 units of `utf8` (no terminator).
size_t wideLength(std::string_view utf8);
// Converts into `out`, which must hold wideLength(utf8) units.
void toWideInto(std::string_view utf8, wchar_t* out, size_t outLen);

bool iequals(std::wstring_view a, std::wstring_view b);
inline bool iequals(std::string_view a, std::string_view b) { return skorva::iequalsAscii(a, b); }

std::optional<uint64_t> parseUnsigned(std::string_view text);  // decimal or 0x hex
std::optional<int64_t> parseSigned(std::string_view text);     // decimal, optionally negative
// Bytes of hexadecimal text ("0A1B"), as binary values are written in event XML.
bool parseBinary(std::string_view text, std::string& bytes);
// Binary SID of "S-1-..." text; false when malformed.
bool parseSid(std::string_view text, std::string& sid);
bool parseGuid(std::string_view text, GUID& guid);
// "2024-01-31T21:05:07.1234567Z" as a FILETIME count.
std::optional<uint64_t> parseSystemTime(std::string_view text);
std::string formatSystemTime(uint64_t fileTime);
// "{0AA3C1D2-...}", as the service writes GUIDs.
std::string formatGuid(const GUID& guid);
// "S-1-5-18" of a binary SID.
std::string formatSid(const void* sid);
// The text a typed value (given as the service writes it in event XML) takes as a
// message insert: the message formatter writes hexadecimal numbers in capitals
// ("0x3E7" where the XML has "0x3e7"); other values read as in the XML.
std::string insertText(DWORD variantType, std::string_view xmlText);

// A channel or provider name as one file name component, reversible.
std::wstring encodeName(std::string_view name);

}  // namespace evtsim
