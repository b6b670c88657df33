#include "platform/Logger.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <mutex>
#include <string_view>

#include "platform/LogFile.h"
#include "platform/Strings.h"

namespace skorva {

std::atomic<int> Logger::threshold_{static_cast<int>(LogLevel::Info)};

namespace {
const char* const kLevelNames[] = {"DEBUG", "INFO", "NOTICE", "WARN", "ERROR", "CRIT", "ALERT", "FATAL", "EMERG"};
}

const char* logLevelName(LogLevel level) {
    int i = static_cast<int>(level);
    return (i >= 0 && i <= 8) ? kLevelNames[i] : "UNKNOWN";
}

bool parseLogLevel(const std::string& text, LogLevel& out) {
    std::string t = asciiLower(trimView(text));
    for (int i = 0; i <= 8; ++i) {
        if (t == asciiLower(kLevelNames[i]) || (t.size() == 1 && t[0] == '0' + i)) {
            out = static_cast<LogLevel>(i);
            return true;
        }
    }
    if (t == "warning") {
        out = LogLevel::Warn;
        return true;
    }
    return false;
}

static bool parseSize(const std::string& text, uint64_t& out) {
    std::string t = asciiLower(trimView(text));
    uint64_t mult = 1;
    if (!t.empty() && (t.back() == 'b')) t.pop_back();
    if (!t.empty()) {
        char s = t.back();
        if (s == 'k') mult = 1024;
        else if (s == 'm') mult = 1024 * 1024;
        else if (s == 'g') mult = 1024ull * 1024 * 1024;
        if (mult != 1) t.pop_back();
    }
    uint64_t v;
    if (!parseUInt64(t, v)) return false;
    out = v * mult;
    return true;
}

bool parseLoggerConfig(const std::string& text, const std::map<std::string, std::string>& substitutions,
                       LoggerConfig& config, std::string& error) {
    int lineNo = 0;
    for (const std::string& raw : split(text, '\n')) {
        ++lineNo;
        std::string_view line = trimView(raw);
        if (line.empty() || line[0] == '#' || line[0] == ';') continue;
        size_t eq = line.find('=');
        if (eq == std::string_view::npos) {
            error = format("line %d: expected key = value", lineNo);
            return false;
        }
        std::string key = asciiLower(trimView(line.substr(0, eq)));
        std::string value = trim(line.substr(eq + 1));
        for (const auto& [from, to] : substitutions) replaceAll(value, from, to);
        if (key == "level") {
            if (!parseLogLevel(value, config.level)) {
                error = format("line %d: unknown level '%s'", lineNo, value.c_str());
                return false;
            }
        } else if (key == "file") {
            config.file = widen(value);
        } else if (key == "max_size") {
            if (!parseSize(value, config.maxFileBytes)) {
                error = format("line %d: bad size '%s'", lineNo, value.c_str());
                return false;
            }
        } else if (key == "backups") {
            uint64_t n;
            if (!parseUInt64(value, n) || n > 99) {
                error = format("line %d: backups must be 0 to 99", lineNo);
                return false;
            }
            config.backups = static_cast<unsigned>(n);
        } else if (key == "stderr") {
            std::string v = asciiLower(value);
            config.alsoStderr = (v == "true" || v == "yes" || v == "1");
        }
    }
    return true;
}

Logger::Logger() {
    // Until configured, lines go to standard error so early failures are seen.
    config_.alsoStderr = true;
}

Logger::~Logger() = default;

Logger& Logger::instance() {
    static Logger logger;
    return logger;
}

void Logger::setLevel(LogLevel level) {
    std::lock_guard<LogLock> lock(lock_);
    config_.level = level;
    threshold_.store(static_cast<int>(level));
}

LoggerConfig Logger::config() const {
    std::lock_guard<LogLock> lock(lock_);
    return config_;
}

void Logger::openLocked() {
    if (!file_) file_ = std::make_unique<LogFile>();
    if (file_->open(config_.file) || fileComplained_) return;
    // Said once: the run goes on without its log file.
    fileComplained_ = true;
    fprintf(stderr, "Log file '%s' cannot be written; log lines are not kept.\n", narrow(config_.file).c_str());
}

void Logger::apply(const LoggerConfig& config) {
    std::lock_guard<LogLock> lock(lock_);
    config_ = config;
    threshold_.store(static_cast<int>(config.level));
    openLocked();
}

int Logger::addSink(Sink sink) {
    std::lock_guard<LogLock> lock(lock_);
    int id = nextSinkId_++;
    sinks_[id] = std::move(sink);
    return id;
}

void Logger::removeSink(int id) {
    std::lock_guard<LogLock> lock(lock_);
    sinks_.erase(id);
}

void Logger::log(LogLevel level, const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    vlog(level, fmt, args);
    va_end(args);
}

namespace {

// "<time> <level, padded to six> [<thread>] ", the head of a line, at `out`;
// returns its length.
size_t putLineHead(char* out, LogLevel level) {
    char time[24];
    unsigned long thread = 0;
    logLineStamp(time, thread);
    char* p = out;
    for (const char* t = time; *t; ++t) *p++ = *t;
    *p++ = ' ';
    const std::string_view name = logLevelName(level);
    p = std::copy(name.begin(), name.end(), p);
    for (size_t i = name.size(); i < 6; ++i) *p++ = ' ';
    *p++ = ' ';
    *p++ = '[';
    p = std::to_chars(p, p + 24, thread).ptr;
    *p++ = ']';
    *p++ = ' ';
    return static_cast<size_t>(p - out);
}

}  // namespace

// The common conversions without the C library's formatter, which under MinGW
// puts out one character at a time: text with %s, %d, %i, %u, %x and %c, with
// l or ll, and %%. Anything else (flags, widths, wide strings) is left to
// vsnprintf: -1, and `args` must not be used again.
int formatPlain(char* out, size_t room, const char* fmt, va_list args) {
    size_t n = 0;
    const auto put = [&](const char* text, size_t length) {
        if (n + length >= room) return false;
        std::copy(text, text + length, out + n);
        n += length;
        return true;
    };
    for (const char* f = fmt; *f;) {
        const char* plain = f;
        while (*f && *f != '%') ++f;
        if (!put(plain, static_cast<size_t>(f - plain))) return -1;
        if (!*f) break;
        ++f;
        int longs = 0;
        while (*f == 'l' && longs < 2) ++longs, ++f;
        char digits[24];
        char* end = digits;
        switch (*f++) {
        case '%':
            if (longs) return -1;
            digits[0] = '%';
            end = digits + 1;
            break;
        case 'c':
            if (longs) return -1;
            digits[0] = static_cast<char>(va_arg(args, int));
            end = digits + 1;
            break;
        case 's': {
            if (longs) return -1;  // a wide string
            const char* text = va_arg(args, const char*);
            if (!text) return -1;
            if (!put(text, std::char_traits<char>::length(text))) return -1;
            continue;
        }
        case 'd':
        case 'i':
            end = longs == 2 ? std::to_chars(digits, digits + 24, va_arg(args, long long)).ptr
                  : longs == 1 ? std::to_chars(digits, digits + 24, va_arg(args, long)).ptr
                               : std::to_chars(digits, digits + 24, va_arg(args, int)).ptr;
            break;
        case 'u':
        case 'x': {
            const int base = f[-1] == 'x' ? 16 : 10;
            end = longs == 2 ? std::to_chars(digits, digits + 24, va_arg(args, unsigned long long), base).ptr
                  : longs == 1 ? std::to_chars(digits, digits + 24, va_arg(args, unsigned long), base).ptr
                               : std::to_chars(digits, digits + 24, va_arg(args, unsigned), base).ptr;
            break;
        }
        default:
            return -1;
        }
        if (!put(digits, static_cast<size_t>(end - digits))) return -1;
    }
    out[n] = '\0';
    return static_cast<int>(n);
}

void Logger::vlog(LogLevel level, const char* fmt, va_list args) {
    if (!enabled(level)) return;
    // A line logged on an error path leaves the caller's GetLastError() as it was.
    LogErrorGuard keep;
    // The line is made before the lock is taken: threads logging at once wait
    // only for each other's writes. Most lines fit the stack.
    char stack[1024];
    std::string longer;
    const size_t head = putLineHead(stack, level);
    va_list copy, plain;
    va_copy(copy, args);
    va_copy(plain, args);
    int n = formatPlain(stack + head, sizeof stack - head, fmt, plain);
    va_end(plain);
    if (n < 0) n = vsnprintf(stack + head, sizeof stack - head, fmt, args);
    if (n < 0) n = 0;
    const size_t length = static_cast<size_t>(n);
    char* line = stack;
    if (length >= sizeof stack - head) {
        longer.resize(head + length + 1);
        std::copy(stack, stack + head, longer.data());
        vsnprintf(longer.data() + head, length + 1, fmt, copy);
        line = longer.data();
    }
    va_end(copy);
    line[head + length] = '\n';
    const size_t size = head + length + 1;

    std::lock_guard<LogLock> lock(lock_);
    if (file_ && file_->isOpen()) {
        if (config_.maxFileBytes > 0 && file_->size() + size > config_.maxFileBytes && file_->size() > 0)
            file_->rotate(config_.backups);
        file_->write(line, size, level >= LogLevel::Error);
    }
    if (config_.alsoStderr) fwrite(line, 1, size, stderr);
    if (!sinks_.empty()) {
        const std::string message(line + head, length);
        for (auto& [id, sink] : sinks_) sink(level, message);
    }
}

void Logger::flush() {
    std::lock_guard<LogLock> lock(lock_);
    if (file_) file_->flush();
}

void Logger::write(LogLevel level, const std::string& message) {
    if (!enabled(level)) return;
    log(level, "%s", message.c_str());
}

}  // namespace skorva
