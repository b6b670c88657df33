// The system's side of the platform's exception: the thread's last error and
// its text.
#include <windows.h>

#include "platform/SkorvaException.h"
#include "platform/Strings.h"

namespace skorva {

unsigned long lastSystemError() { return ::GetLastError(); }

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

}  // namespace skorva
