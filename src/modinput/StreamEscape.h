#pragma once
// Escaping of event text for the stream. No Windows header.

#include <string>
#include <string_view>

namespace skorva {

// Appends `in` escaped for the stream: the five XML entities, control bytes other
// than tab/LF/CR as \xHH, and the UTF-8 forms of surrogates and of U+FFFE/U+FFFF
// as \xHH per byte, so that any byte string gives well-formed output.
void appendEscaped(std::string& out, std::string_view in);

}  // namespace skorva
