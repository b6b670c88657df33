#pragma once
// Process-wide logger: printf-style formats, nine levels, one line per message
// written whole under a lock. A message below the threshold is rejected before
// any argument is formatted (the macros below test the level first).

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/LogFile.h"

#if defined(__clang__)
#define SKORVA_PRINTF(fmtIndex, firstArg) __attribute__((format(printf, fmtIndex, firstArg)))
#elif defined(__GNUC__)
#define SKORVA_PRINTF(fmtIndex, firstArg) __attribute__((format(gnu_printf, fmtIndex, firstArg)))
#else
#define SKORVA_PRINTF(fmtIndex, firstArg)
#endif

namespace skorva {

enum class LogLevel : int { Debug = 0, Info, Notice, Warn, Error, Crit, Alert, Fatal, Emerg };

const char* logLevelName(LogLevel level);
// Parses a level name (any case) or its number; false when unknown.
bool parseLogLevel(const std::string& text, LogLevel& out);

struct LoggerConfig {
    LogLevel level = LogLevel::Info;
    std::wstring file;              // empty: no file output
    uint64_t maxFileBytes = 25ull * 1024 * 1024;
    unsigned backups = 5;
    bool alsoStderr = false;  // also copy every line to standard error
};

class Logger {
public:
    static Logger& instance();

    // Cheap check used by the logging macros before any formatting happens.
    static bool enabled(LogLevel level) {
        return static_cast<int>(level) >= threshold_.load(std::memory_order_relaxed);
    }

    void log(LogLevel level, const char* fmt, ...) SKORVA_PRINTF(3, 4);
    void vlog(LogLevel level, const char* fmt, va_list args);
    // Writes an already formatted message (no printf processing).
    void write(LogLevel level, const std::string& message);
    // Writes the lines still gathered for the log file (they go within a tenth
    // of a second, errors at once); for an exit that skips destructors.
    void flush();

    // Loads the configuration file; values may use the keys of `substitutions`
    // (such as ${SKORVA_HOME}). A missing or unreadable file leaves the
    // defaults (INFO, `defaultFile`) and says so once on stderr.
    // Returns false when the file could not be read.
    bool configure(const std::wstring& configPath,
                   const std::map<std::string, std::string>& substitutions,
                   const std::wstring& defaultFile);
    void apply(const LoggerConfig& config);
    LoggerConfig config() const;

    // Extra receivers of every line that passes the threshold (tests use it).
    using Sink = std::function<void(LogLevel, const std::string& message)>;
    int addSink(Sink sink);
    void removeSink(int id);
    void setLevel(LogLevel level);

private:
    Logger();
    ~Logger();
    void openLocked();

    static std::atomic<int> threshold_;
    mutable LogLock lock_;
    LoggerConfig config_;
    std::unique_ptr<LogFile> file_;  // the operating system's side (LogFile.h)
    bool fileComplained_ = false;    // an unwritable log file is reported once
    std::map<int, Sink> sinks_;
    int nextSinkId_ = 1;
};

// Parses the text of a logger configuration file. Unknown keys are ignored.
// Returns false with `error` set on a malformed line.
bool parseLoggerConfig(const std::string& text,
                       const std::map<std::string, std::string>& substitutions,
                       LoggerConfig& config, std::string& error);

// A log line's text into `out` (room for `room` bytes with the terminator),
// when it uses only the common conversions; -1 leaves it to vsnprintf.
int formatPlain(char* out, size_t room, const char* fmt, va_list args);

}  // namespace skorva

#define SKORVA_LOG(level, ...)                                                   \
    do {                                                                         \
        if (::skorva::Logger::enabled(level))                                    \
            ::skorva::Logger::instance().log(level, __VA_ARGS__);                \
    } while (0)

#define LOG_DEBUG(...) SKORVA_LOG(::skorva::LogLevel::Debug, __VA_ARGS__)
#define LOG_INFO(...) SKORVA_LOG(::skorva::LogLevel::Info, __VA_ARGS__)
#define LOG_WARN(...) SKORVA_LOG(::skorva::LogLevel::Warn, __VA_ARGS__)
#define LOG_ERROR(...) SKORVA_LOG(::skorva::LogLevel::Error, __VA_ARGS__)
#define LOG_FATAL(...) SKORVA_LOG(::skorva::LogLevel::Fatal, __VA_ARGS__)
