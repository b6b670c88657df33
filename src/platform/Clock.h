#pragma once
// Time and sleeping go through here so tests can replace both: cache expiry
// edges and retry sleeps are then tested without waiting.

#include <cstdint>

namespace skorva {

class Clock {
public:
    virtual ~Clock() = default;
    virtual uint64_t tickCount() = 0;       // milliseconds, as GetTickCount64
    virtual void sleep(uint32_t ms) = 0;    // as Sleep
};

// The process-wide clock (the system's unless a test installed another).
Clock& clock();
inline uint64_t tickNow() { return clock().tickCount(); }
inline void sleepMs(uint32_t ms) { clock().sleep(ms); }

// A time plus a period that saturates: an expiry or a due time never wraps
// around to the past (an all-ones period means "never").
inline uint64_t addSaturating(uint64_t a, uint64_t b) { return a > UINT64_MAX - b ? UINT64_MAX : a + b; }

// Installs `c` as the process clock for the lifetime of the guard.
class ScopedClock {
public:
    explicit ScopedClock(Clock& c);
    ~ScopedClock();
    ScopedClock(const ScopedClock&) = delete;
    ScopedClock& operator=(const ScopedClock&) = delete;

private:
    Clock* previous_;
};

// A manual clock for tests: sleeping advances it and is recorded.
class ManualClock : public Clock {
public:
    explicit ManualClock(uint64_t start = 1000000) : now_(start) {}
    uint64_t tickCount() override { return now_; }
    void sleep(uint32_t ms) override {
        ++sleeps_;
        slept_ += ms;
        now_ += ms;
    }
    void advance(uint64_t ms) { now_ += ms; }
    void set(uint64_t t) { now_ = t; }
    unsigned sleeps() const { return sleeps_; }
    uint64_t slept() const { return slept_; }

private:
    uint64_t now_;
    unsigned sleeps_ = 0;
    uint64_t slept_ = 0;
};

}  // namespace skorva
