#pragma once
// Collects the log lines written while it lives, for assertions on exact text.

#include <mutex>
#include <string>
#include <vector>

#include "platform/Logger.h"

namespace skorva::test {

class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    struct Line {
        LogLevel level;
        std::string text;
    };
    std::vector<Line> lines() const;
    // True when some line at `level` equals `text` exactly.
    bool has(LogLevel level, const std::string& text) const;
    // True when some line (any level) contains `fragment`.
    bool contains(const std::string& fragment) const;
    size_t count(LogLevel level, const std::string& text) const;
    // All lines joined, one per line, each prefixed by its level: for failure output.
    std::string dump() const;
    void clear();

private:
    mutable std::mutex mutex_;
    std::vector<Line> lines_;
    int id_;
};

}  // namespace skorva::test
