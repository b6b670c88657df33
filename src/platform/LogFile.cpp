#include "platform/LogFile.h"

#include <windows.h>

#include <cstdio>
#include <mutex>
#include <string>

#include "platform/Handles.h"
#include "platform/Logger.h"
#include "platform/Paths.h"
#include "platform/Strings.h"

namespace skorva {

namespace {

constexpr DWORD kFlushMs = 100;              // the longest a line waits to be written
constexpr size_t kFlushBytes = 64 * 1024;  // gathered lines are written once they are this many

}  // namespace

// The file and the lines not yet written to it, shared with the thread that
// writes them within kFlushMs.
struct LogFile::Handle {
    UniqueHandle file;
    CriticalSection lock;
    std::string pending;
    UniqueHandle stop;
    UniqueHandle flusher;

    void flushLocked() {
        if (pending.empty()) return;
        DWORD written = 0;
        if (file) ::WriteFile(file.get(), pending.data(), static_cast<DWORD>(pending.size()), &written, nullptr);
        pending.clear();
    }
    static DWORD WINAPI flushLoop(void* param) {
        auto& self = *static_cast<Handle*>(param);
        while (::WaitForSingleObject(self.stop.get(), kFlushMs) == WAIT_TIMEOUT) {
            std::lock_guard<CriticalSection> hold(self.lock);
            self.flushLocked();
        }
        return 0;
    }
    // False when no thread can be made: lines are then written at once.
    bool startFlusher() {
        if (flusher) return true;
        if (!stop) stop.reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
        if (stop) flusher.reset(::CreateThread(nullptr, 0, &flushLoop, this, 0, nullptr));
        return flusher.valid();
    }
    ~Handle() {
        if (flusher) {
            ::SetEvent(stop.get());
            ::WaitForSingleObject(flusher.get(), INFINITE);
        }
        flushLocked();
    }
};

LogFile::LogFile() : handle_(std::make_unique<Handle>()) {}
LogFile::~LogFile() = default;

bool LogFile::open(const std::wstring& path) {
    std::lock_guard<CriticalSection> hold(handle_->lock);
    handle_->flushLocked();
    handle_->file.reset();
    path_ = path;
    size_ = 0;
    if (path.empty()) return true;
    const size_t cut = path.find_last_of(L"\\/");
    if (cut != std::wstring::npos) createDirectories(path.substr(0, cut));
    handle_->file.reset(::CreateFileW(longPath(path).c_str(), FILE_APPEND_DATA,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_ALWAYS,
                                      FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!handle_->file) return false;
    LARGE_INTEGER size;
    if (::GetFileSizeEx(handle_->file.get(), &size)) size_ = static_cast<uint64_t>(size.QuadPart);
    return true;
}

bool LogFile::isOpen() const { return handle_->file.valid(); }

void LogFile::write(const char* data, size_t length, bool urgent) {
    std::lock_guard<CriticalSection> hold(handle_->lock);
    if (!handle_->file) return;
    handle_->pending.append(data, length);
    size_ += length;
    if (urgent || handle_->pending.size() >= kFlushBytes || !handle_->startFlusher()) handle_->flushLocked();
}

void LogFile::flush() {
    std::lock_guard<CriticalSection> hold(handle_->lock);
    handle_->flushLocked();
}

void LogFile::rotate(unsigned backups) {
    flush();
    {
        std::lock_guard<CriticalSection> hold(handle_->lock);
        handle_->file.reset();
    }
    const std::wstring base = path_;
    if (backups == 0) {
        ::DeleteFileW(longPath(base).c_str());
    } else {
        ::DeleteFileW(longPath(base + L"." + std::to_wstring(backups)).c_str());
        for (unsigned i = backups; i > 1; --i)
            ::MoveFileExW(longPath(base + L"." + std::to_wstring(i - 1)).c_str(),
                          longPath(base + L"." + std::to_wstring(i)).c_str(), MOVEFILE_REPLACE_EXISTING);
        ::MoveFileExW(longPath(base).c_str(), longPath(base + L".1").c_str(), MOVEFILE_REPLACE_EXISTING);
    }
    open(base);
}

bool Logger::configure(const std::wstring& configPath, const std::map<std::string, std::string>& substitutions,
                       const std::wstring& defaultFile) {
    LoggerConfig config;
    config.file = defaultFile;
    std::string text, error;
    bool ok = readFile(configPath, text);
    if (!ok) {
        fprintf(stderr, "Logging configuration '%s' could not be read; logging at INFO to '%s'.\n",
                narrow(configPath).c_str(), narrow(defaultFile).c_str());
    } else if (!parseLoggerConfig(text, substitutions, config, error)) {
        fprintf(stderr, "Logging configuration '%s' is invalid (%s); logging at INFO to '%s'.\n",
                narrow(configPath).c_str(), error.c_str(), narrow(defaultFile).c_str());
        config = LoggerConfig{};
        config.file = defaultFile;
        ok = false;
    }
    apply(config);
    return ok;
}

namespace {
// `width` decimal digits of `value`, leading zeros kept.
char* putDigits(char* p, unsigned value, int width) {
    for (int i = width - 1; i >= 0; --i, value /= 10) p[i] = static_cast<char>('0' + value % 10);
    return p + width;
}
}  // namespace

// "YYYY-MM-DD hh:mm:ss.mmm", written out: a busy channel logs a line per event.
static_assert(sizeof(SRWLOCK) == sizeof(void*), "a slim reader/writer lock is one pointer");

LogLock::LogLock() noexcept { ::InitializeSRWLock(reinterpret_cast<PSRWLOCK>(&state_)); }
LogLock::~LogLock() = default;
void LogLock::lock() noexcept { ::AcquireSRWLockExclusive(reinterpret_cast<PSRWLOCK>(&state_)); }
void LogLock::unlock() noexcept { ::ReleaseSRWLockExclusive(reinterpret_cast<PSRWLOCK>(&state_)); }

void logLineStamp(char (&time)[24], unsigned long& threadId) {
    SYSTEMTIME st;
    ::GetLocalTime(&st);
    char* p = putDigits(time, st.wYear, 4);
    *p++ = '-';
    p = putDigits(p, st.wMonth, 2);
    *p++ = '-';
    p = putDigits(p, st.wDay, 2);
    *p++ = ' ';
    p = putDigits(p, st.wHour, 2);
    *p++ = ':';
    p = putDigits(p, st.wMinute, 2);
    *p++ = ':';
    p = putDigits(p, st.wSecond, 2);
    *p++ = '.';
    p = putDigits(p, st.wMilliseconds, 3);
    *p = '\0';
    threadId = ::GetCurrentThreadId();
}

LogErrorGuard::LogErrorGuard() noexcept : error_(::GetLastError()) {}
LogErrorGuard::~LogErrorGuard() { ::SetLastError(error_); }

}  // namespace skorva
