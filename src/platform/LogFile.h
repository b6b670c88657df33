#pragma once
// What the logger needs of the operating system: the file its lines go to, with
// rotation, the time and thread that head each line, and reading its
// configuration file (Logger::configure, defined in LogFile.cpp). The logger
// itself is plain text logic (Logger.cpp); this is its only Windows-facing part.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace skorva {

class LogFile {
public:
    LogFile();
    ~LogFile();
    LogFile(const LogFile&) = delete;
    LogFile& operator=(const LogFile&) = delete;

    // Opens `path` for appending (creating its folder); false when it cannot be
    // written. An empty path closes the file.
    bool open(const std::wstring& path);
    bool isOpen() const;
    uint64_t size() const { return size_; }
    // Lines are gathered and written together: at once when `urgent`, else
    // within a tenth of a second, so that a flood of lines costs few writes.
    void write(const char* data, size_t length, bool urgent);
    // Writes what was gathered.
    void flush();
    // Moves the file to ".1" (".1" to ".2" and so on, `backups` kept; none: the
    // file is dropped) and opens a new one.
    void rotate(unsigned backups);

private:
    struct Handle;
    std::unique_ptr<Handle> handle_;
    std::wstring path_;
    uint64_t size_ = 0;
};

// The logger's lock: a slim reader/writer lock on Windows, which waits within
// the process. (A std::mutex of the posix thread model waits on a kernel event
// when contended, and every channel's thread logs.)
class LogLock {
public:
    LogLock() noexcept;
    ~LogLock();
    LogLock(const LogLock&) = delete;
    LogLock& operator=(const LogLock&) = delete;
    void lock() noexcept;
    void unlock() noexcept;

private:
    void* state_ = nullptr;  // the lock itself: one pointer, all zero when free
};

// "2026-11-21 21:50:52.783" in local time and the calling thread's id, the head
// of a log line.
void logLineStamp(char (&time)[24], unsigned long& threadId);

// Keeps the thread's last system error across a log line, so that a caller that
// logs on an error path can still read it afterwards.
class LogErrorGuard {
public:
    LogErrorGuard() noexcept;
    ~LogErrorGuard();
    LogErrorGuard(const LogErrorGuard&) = delete;
    LogErrorGuard& operator=(const LogErrorGuard&) = delete;

private:
    unsigned long error_;
};

}  // namespace skorva
