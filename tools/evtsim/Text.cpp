#include "Text.h"

#include <winevt.h>

#include <cstdio>
#include <cwctype>

namespace evtsim {

size_t wideLength(std::string_view utf8) {
    if (utf8.empty()) return 0;
    return static_cast<size_t>(MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), nullptr, 0));
}

void toWideInto(std::string_view utf8, wchar_t* out, size_t outLen) {
    if (utf8.empty()) return;
    MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), out, static_cast<int>(outLen));
}

std::wstring toWide(std::string_view utf8) {
    std::wstring out(wideLength(utf8), L'\0');
    toWideInto(utf8, out.data(), out.size());
    return out;
}

std::string toUtf8(std::wstring_view wide) {
    if (wide.empty()) return {};
    int n = WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), nullptr, 0, nullptr, nullptr);
    std::string out(static_cast<size_t>(n), '\0');
    WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), out.data(), n, nullptr, nullptr);
    return out;
}

bool iequals(std::wstring_view a, std::wstring_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (std::towlower(a[i]) != std::towlower(b[i])) return false;
    return true;
}

std::optional<uint64_t> parseUnsigned(std::string_view t) {
    while (!t.empty() && (t.front() == ' ' || t.front() == '\t')) t.remove_prefix(1);
    while (!t.empty() && (t.back() == ' ' || t.back() == '\t')) t.remove_suffix(1);
    unsigned base = 10;
    if (t.size() > 2 && t[0] == '0' && (t[1] == 'x' || t[1] == 'X')) {
        base = 16;
        t.remove_prefix(2);
    }
    if (t.empty()) return std::nullopt;
    uint64_t v = 0;
    for (char c : t) {
        unsigned d;
        if (c >= '0' && c <= '9') d = static_cast<unsigned>(c - '0');
        else if (base == 16 && c >= 'a' && c <= 'f') d = static_cast<unsigned>(c - 'a' + 10);
        else if (base == 16 && c >= 'A' && c <= 'F') d = static_cast<unsigned>(c - 'A' + 10);
        else return std::nullopt;
        if (v > (UINT64_MAX - d) / base) return std::nullopt;
        v = v * base + d;
    }
    return v;
}

std::optional<int64_t> parseSigned(std::string_view t) {
    const bool negative = !t.empty() && t.front() == '-';
    if (negative) t.remove_prefix(1);
    if (t.size() > 1 && t[0] == '0' && (t[1] == 'x' || t[1] == 'X')) return std::nullopt;
    auto v = parseUnsigned(t);
    if (!v || *v > (negative ? 0x8000000000000000ull : 0x7FFFFFFFFFFFFFFFull)) return std::nullopt;
    return negative ? static_cast<int64_t>(0 - *v) : static_cast<int64_t>(*v);
}

bool parseBinary(std::string_view t, std::string& bytes) {
    if (t.size() % 2) return false;
    bytes.clear();
    auto nibble = [](char c) {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    };
    for (size_t i = 0; i < t.size(); i += 2) {
        int hi = nibble(t[i]), lo = nibble(t[i + 1]);
        if (hi < 0 || lo < 0) return false;
        bytes += static_cast<char>(hi * 16 + lo);
    }
    return true;
}

bool parseSid(std::string_view text, std::string& sid) {
    if (text.size() < 4 || (text[0] != 'S' && text[0] != 's') || text[1] != '-') return false;
    text.remove_prefix(2);
    uint64_t parts[17];
    size_t n = 0;
    while (!text.empty()) {
        size_t dash = text.find('-');
        std::string_view part = text.substr(0, dash);
        auto v = parseUnsigned(part);
        if (!v || n == 17 || part.empty() || part[0] == ' ') return false;
        parts[n++] = *v;
        if (dash == std::string_view::npos) break;
        text.remove_prefix(dash + 1);
        if (text.empty()) return false;
    }
    // Revision, authority, then at most 15 sub-authorities.
    if (n < 2 || parts[0] != 1 || parts[1] >= (1ull << 48)) return false;
    size_t subs = n - 2;
    sid.assign(8 + 4 * subs, '\0');
    sid[0] = 1;
    sid[1] = static_cast<char>(subs);
    for (int i = 0; i < 6; ++i) sid[2 + i] = static_cast<char>((parts[1] >> (8 * (5 - i))) & 0xFF);
    for (size_t i = 0; i < subs; ++i) {
        if (parts[2 + i] > 0xFFFFFFFFull) return false;
        uint32_t v = static_cast<uint32_t>(parts[2 + i]);
        for (int b = 0; b < 4; ++b) sid[8 + 4 * i + b] = static_cast<char>((v >> (8 * b)) & 0xFF);
    }
    return true;
}

bool parseGuid(std::string_view t, GUID& g) {
    if (t.size() == 38 && t.front() == '{' && t.back() == '}') t = t.substr(1, 36);
    if (t.size() != 36 || t[8] != '-' || t[13] != '-' || t[18] != '-' || t[23] != '-') return false;
    auto hex = [&](size_t pos, size_t len, uint64_t& out) {
        auto v = parseUnsigned("0x" + std::string(t.substr(pos, len)));
        if (!v) return false;
        out = *v;
        return true;
    };
    uint64_t a, b, c, d, e;
    if (!hex(0, 8, a) || !hex(9, 4, b) || !hex(14, 4, c) || !hex(19, 4, d) || !hex(24, 12, e)) return false;
    g.Data1 = static_cast<unsigned long>(a);
    g.Data2 = static_cast<unsigned short>(b);
    g.Data3 = static_cast<unsigned short>(c);
    g.Data4[0] = static_cast<unsigned char>(d >> 8);
    g.Data4[1] = static_cast<unsigned char>(d);
    for (int i = 0; i < 6; ++i) g.Data4[2 + i] = static_cast<unsigned char>(e >> (8 * (5 - i)));
    return true;
}

std::optional<uint64_t> parseSystemTime(std::string_view t) {
    // YYYY-MM-DDTHH:MM:SS[.fraction]Z
    if (t.size() < 20 || t[4] != '-' || t[7] != '-' || (t[10] != 'T' && t[10] != ' ') || t[13] != ':' || t[16] != ':')
        return std::nullopt;
    auto num = [&](size_t pos, size_t len) { return parseUnsigned(t.substr(pos, len)); };
    auto y = num(0, 4), mo = num(5, 2), d = num(8, 2), h = num(11, 2), mi = num(14, 2), s = num(17, 2);
    if (!y || !mo || !d || !h || !mi || !s) return std::nullopt;
    SYSTEMTIME st{};
    st.wYear = static_cast<WORD>(*y);
    st.wMonth = static_cast<WORD>(*mo);
    st.wDay = static_cast<WORD>(*d);
    st.wHour = static_cast<WORD>(*h);
    st.wMinute = static_cast<WORD>(*mi);
    st.wSecond = static_cast<WORD>(*s);
    FILETIME ft;
    if (!SystemTimeToFileTime(&st, &ft)) return std::nullopt;
    uint64_t v = (static_cast<uint64_t>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
    size_t pos = 19;
    if (pos < t.size() && t[pos] == '.') {
        ++pos;
        uint64_t frac = 0;
        int digits = 0;
        while (pos < t.size() && t[pos] >= '0' && t[pos] <= '9') {
            if (digits < 7) {
                frac = frac * 10 + static_cast<uint64_t>(t[pos] - '0');
                ++digits;
            }
            ++pos;
        }
        for (; digits < 7; ++digits) frac *= 10;
        v += frac;
    }
    if (pos >= t.size() || t[pos] != 'Z' || pos + 1 != t.size()) return std::nullopt;
    return v;
}

std::string formatSystemTime(uint64_t v) {
    FILETIME ft{static_cast<DWORD>(v), static_cast<DWORD>(v >> 32)};
    SYSTEMTIME st{};
    FileTimeToSystemTime(&ft, &st);
    char buf[64];
    std::snprintf(buf, sizeof buf, "%04u-%02u-%02uT%02u:%02u:%02u.%07uZ", st.wYear, st.wMonth, st.wDay, st.wHour,
                  st.wMinute, st.wSecond, static_cast<unsigned>(v % 10000000));
    return buf;
}

std::string formatGuid(const GUID& g) {
    char buf[40];
    std::snprintf(buf, sizeof buf, "{%08lX-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}", static_cast<unsigned long>(g.Data1),
                  g.Data2, g.Data3, g.Data4[0], g.Data4[1], g.Data4[2], g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6],
                  g.Data4[7]);
    return buf;
}

std::string formatSid(const void* sid) {
    const auto* b = static_cast<const unsigned char*>(sid);
    uint64_t authority = 0;
    for (int i = 0; i < 6; ++i) authority = (authority << 8) | b[2 + i];
    std::string out = "S-" + std::to_string(b[0]) + "-" + std::to_string(authority);
    for (unsigned i = 0; i < b[1]; ++i) {
        const unsigned char* s = b + 8 + 4 * i;
        out += "-" + std::to_string(static_cast<uint32_t>(s[0]) | (static_cast<uint32_t>(s[1]) << 8) |
                                    (static_cast<uint32_t>(s[2]) << 16) | (static_cast<uint32_t>(s[3]) << 24));
    }
    return out;
}

std::string insertText(DWORD type, std::string_view xmlText) {
    if (type == EvtVarTypeHexInt32 || type == EvtVarTypeHexInt64) {
        if (auto v = parseUnsigned(xmlText)) {
            char buf[24];
            std::snprintf(buf, sizeof buf, "0x%llX", static_cast<unsigned long long>(*v));
            return buf;
        }
    } else if (type == EvtVarTypeGuid) {
        GUID g;
        if (parseGuid(xmlText, g)) return formatGuid(g);
    }
    return std::string(xmlText);
}

std::wstring encodeName(std::string_view name) {
    static const char* unsafe = "%/\\:*?\"<>|";
    std::string out;
    for (unsigned char c : name) {
        if (c < 0x20 || std::string_view(unsafe).find(static_cast<char>(c)) != std::string_view::npos) {
            char buf[4];
            std::snprintf(buf, sizeof buf, "%%%02X", c);
            out += buf;
        } else {
            out += static_cast<char>(c);
        }
    }
    return toWide(out);
}

}  // namespace evtsim
