#include "platform/Clock.h"

#include <windows.h>

#include <atomic>

namespace skorva {

namespace {

class SystemClock final : public Clock {
public:
    uint64_t tickCount() override { return ::GetTickCount64(); }
    void sleep(uint32_t ms) override { ::Sleep(ms); }
};

SystemClock systemClock;
std::atomic<Clock*> current{&systemClock};

}  // namespace

Clock& clock() { return *current.load(std::memory_order_acquire); }

ScopedClock::ScopedClock(Clock& c) : previous_(current.exchange(&c)) {}
ScopedClock::~ScopedClock() { current.store(previous_); }

}  // namespace skorva
