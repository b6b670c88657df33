#include "platform/SkorvaException.h"

#include <windows.h>

#include <cstdarg>
#include <cstdio>

#include "platform/Strings.h"

namespace skorva {

std::string systemErrorText(unsigned long error) {
    wchar_t* buf = nullptr;
    DWORD n = ::FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM |
                                   FORMAT_MESSAGE_IGNORE_INSERTS,
                               nullptr, error, 0, reinterpret_cast<wchar_t*>(&buf), 0, nullptr);
    std::string text;
    if (n != 0 && buf != nullptr) {
        text = narrow(std::wstring_view(buf, n));
        ::LocalFree(buf);
        while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' ' ||
                                 text.back() == '.'))
            text.pop_back();
    }
    if (text.empty()) text = format("Unknown error 0x%lx", error);
    return text;
}

std::string expandErrorDirective(const char* fmt, unsigned long error) {
    std::string out;
    for (const char* p = fmt; *p; ++p) {
        if (p[0] == '%' && p[1] == '%') {
            out += "%%";
            ++p;
        } else if (p[0] == '%' && p[1] == 'm') {
            std::string text = systemErrorText(error);
            replaceAll(text, "%", "%%");
            out += text;
            ++p;
        } else {
            out.push_back(*p);
        }
    }
    return out;
}

static std::string vformatWithError(unsigned long error, const char* fmt, va_list args) {
    std::string expanded = expandErrorDirective(fmt, error);
    va_list copy;
    va_copy(copy, args);
    int n = vsnprintf(nullptr, 0, expanded.c_str(), copy);
    va_end(copy);
    std::string out;
    if (n > 0) {
        out.resize(static_cast<size_t>(n) + 1);
        vsnprintf(out.data(), out.size(), expanded.c_str(), args);
        out.resize(static_cast<size_t>(n));
    }
    return out;
}

SkorvaException::SkorvaException(const char* fmt, ...) {
    unsigned long error = ::GetLastError();
    va_list args;
    va_start(args, fmt);
    message_ = vformatWithError(error, fmt, args);
    va_end(args);
}

SkorvaException SkorvaException::withError(unsigned long error, const char* fmt, ...) {
    SkorvaException e;
    va_list args;
    va_start(args, fmt);
    e.message_ = vformatWithError(error, fmt, args);
    va_end(args);
    return e;
}

}  // namespace skorva
