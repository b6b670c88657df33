#include "platform/SkorvaException.h"

#include <cstdarg>
#include <cstdio>

#include "platform/Strings.h"

namespace skorva {

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
    unsigned long error = lastSystemError();
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
