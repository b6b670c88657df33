#pragma once
// The platform's exception: a printf-formatted message in which "%m" stands for
// the system's text of the last error (GetLastError at the time of the throw).

#include <exception>
#include <string>

#include "platform/Logger.h"

namespace skorva {

class SkorvaException : public std::exception {
public:
    explicit SkorvaException(const char* fmt, ...) SKORVA_PRINTF(2, 3);
    // With an explicit error number for "%m".
    static SkorvaException withError(unsigned long error, const char* fmt, ...) SKORVA_PRINTF(2, 3);

    const char* what() const noexcept override { return message_.c_str(); }
    const std::string& message() const noexcept { return message_; }

private:
    SkorvaException() = default;
    std::string message_;
};

// The system's message text for a Win32 error number, without the trailing line
// break ("Unknown error 0x..." when the system has none), and the thread's last
// error (SystemError.cpp: the Windows side).
std::string systemErrorText(unsigned long error);
unsigned long lastSystemError();
// Expands "%m" in `fmt` to the text of `error`, leaving other directives.
std::string expandErrorDirective(const char* fmt, unsigned long error);

}  // namespace skorva
