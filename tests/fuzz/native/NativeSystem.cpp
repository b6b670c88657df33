// The little the text logic asks of the operating system, for its native build
// (sanitizers, fuzzing): no log file, the host's clock and errno.
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
#include <mutex>
#include <thread>

#include "platform/LogFile.h"
#include "platform/SkorvaException.h"

namespace skorva {

struct LogFile::Handle {};

LogFile::LogFile() = default;
LogFile::~LogFile() = default;
bool LogFile::open(const std::wstring& path) { return path.empty(); }
bool LogFile::isOpen() const { return false; }
void LogFile::write(const char*, size_t, bool) {}
void LogFile::flush() {}
void LogFile::rotate(unsigned) {}

LogLock::LogLock() noexcept : state_(new std::mutex) {}
LogLock::~LogLock() { delete static_cast<std::mutex*>(state_); }
void LogLock::lock() noexcept { static_cast<std::mutex*>(state_)->lock(); }
void LogLock::unlock() noexcept { static_cast<std::mutex*>(state_)->unlock(); }

void logLineStamp(char (&time)[24], unsigned long& threadId) {
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    std::tm local{};
    localtime_r(&seconds, &local);
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
    std::snprintf(time, sizeof time, "%04d-%02d-%02d %02d:%02d:%02d.%03d", (local.tm_year + 1900) % 10000,
                  local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, static_cast<int>(ms));
    threadId = static_cast<unsigned long>(std::hash<std::thread::id>()(std::this_thread::get_id()));
}

LogErrorGuard::LogErrorGuard() noexcept : error_(static_cast<unsigned long>(errno)) {}
LogErrorGuard::~LogErrorGuard() { errno = static_cast<int>(error_); }

unsigned long lastSystemError() { return static_cast<unsigned long>(errno); }
std::string systemErrorText(unsigned long error) { return std::strerror(static_cast<int>(error)); }

}  // namespace skorva
