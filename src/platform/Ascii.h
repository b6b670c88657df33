#pragma once
// ASCII case folding. Header-only and free of any Windows header: the
// simulated event log shares it without linking the product.

#include <string_view>

namespace skorva {

constexpr char asciiLowerChar(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

constexpr bool iequalsAscii(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (asciiLowerChar(a[i]) != asciiLowerChar(b[i])) return false;
    return true;
}

}  // namespace skorva
