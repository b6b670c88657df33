#include "LogCapture.h"

namespace skorva::test {

LogCapture::LogCapture() {
    id_ = Logger::instance().addSink([this](LogLevel level, const std::string& text) {
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.push_back({level, text});
    });
}

LogCapture::~LogCapture() { Logger::instance().removeSink(id_); }

std::vector<LogCapture::Line> LogCapture::lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
}

bool LogCapture::has(LogLevel level, const std::string& text) const { return count(level, text) > 0; }

size_t LogCapture::count(LogLevel level, const std::string& text) const {
    std::lock_guard<std::mutex> lock(mutex_);
    size_t n = 0;
    for (const auto& l : lines_)
        if (l.level == level && l.text == text) ++n;
    return n;
}

bool LogCapture::contains(const std::string& fragment) const {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& l : lines_)
        if (l.text.find(fragment) != std::string::npos) return true;
    return false;
}

std::string LogCapture::dump() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::string out;
    for (const auto& l : lines_) {
        out += logLevelName(l.level);
        out += ' ';
        out += l.text;
        out += '\n';
    }
    return out;
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
}

}  // namespace skorva::test
