#include "channel/LocalTimestamp.h"

#include <windows.h>

#include <ctime>
#include <cwchar>

#include "platform/Clock.h"

namespace skorva {

namespace {

constexpr uint64_t kTicksPerHour = 36000000000ull;   // 100 ns ticks
constexpr uint64_t kBiasRecheckMs = 60000;            // a changed time zone shows within a minute

bool toSystemTime(uint64_t fileTime, SYSTEMTIME& st) {
    FILETIME ft;
    ft.dwLowDateTime = static_cast<DWORD>(fileTime);
    ft.dwHighDateTime = static_cast<DWORD>(fileTime >> 32);
    return ::FileTimeToSystemTime(&ft, &st) != FALSE;
}

bool toLocalSystemTime(uint64_t fileTime, SYSTEMTIME& local) {
    SYSTEMTIME utc;
    return toSystemTime(fileTime, utc) && ::SystemTimeToTzSpecificLocalTime(nullptr, &utc, &local);
}

uint64_t asFileTime(const SYSTEMTIME& st) {
    FILETIME ft;
    if (!::SystemTimeToFileTime(&st, &ft)) return 0;
    return (static_cast<uint64_t>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
}

// Local time through the offset of the event's UTC hour. The time-zone conversion
// is slow (notably under Wine) and events come in runs of the same hour, so the
// offset is kept per hour: only when it is the same at both ends of the hour (no
// daylight-saving change inside it), and re-checked after a minute in case the
// machine's time zone was changed.
class LocalTimeCache {
public:
    bool convert(uint64_t fileTime, SYSTEMTIME& local) {
        const uint64_t hour = fileTime / kTicksPerHour;
        const uint64_t now = tickNow();
        if (hour != hour_ || now >= recheckAt_) {
            hour_ = hour;
            recheckAt_ = now + kBiasRecheckMs;
            valid_ = measure(hour * kTicksPerHour, bias_);
            int64_t endBias = 0;
            valid_ = valid_ && measure((hour + 1) * kTicksPerHour - 10000, endBias) && endBias == bias_;
        }
        if (!valid_) return toLocalSystemTime(fileTime, local);
        return toSystemTime(static_cast<uint64_t>(static_cast<int64_t>(fileTime) + bias_), local);
    }

private:
    // Local minus UTC at `fileTime` (a whole millisecond), in 100 ns ticks.
    static bool measure(uint64_t fileTime, int64_t& bias) {
        SYSTEMTIME local;
        if (!toLocalSystemTime(fileTime, local)) return false;
        const uint64_t localTicks = asFileTime(local);
        if (localTicks == 0) return false;
        bias = static_cast<int64_t>(localTicks - fileTime);
        return true;
    }

    uint64_t hour_ = ~0ull;
    uint64_t recheckAt_ = 0;
    int64_t bias_ = 0;
    bool valid_ = false;
};

wchar_t* putTwoDigits(wchar_t* p, unsigned v) {
    p[0] = static_cast<wchar_t>(L'0' + v / 10);
    p[1] = static_cast<wchar_t>(L'0' + v % 10);
    return p + 2;
}

}  // namespace

bool formatLocalTimestamp(uint64_t fileTime, std::wstring& out) {
    thread_local LocalTimeCache cache;
    SYSTEMTIME local;
    if (!cache.convert(fileTime, local)) return false;
    if (local.wYear >= 1000 && local.wYear <= 9999) {
        // The C library's "%m/%d/%Y %I:%M:%S %p", without its per-call locale work.
        wchar_t text[22];
        wchar_t* p = putTwoDigits(text, local.wMonth);
        *p++ = L'/';
        p = putTwoDigits(p, local.wDay);
        *p++ = L'/';
        p = putTwoDigits(p, local.wYear / 100);
        p = putTwoDigits(p, local.wYear % 100);
        *p++ = L' ';
        const unsigned hour12 = local.wHour % 12 == 0 ? 12 : local.wHour % 12;
        p = putTwoDigits(p, hour12);
        *p++ = L':';
        p = putTwoDigits(p, local.wMinute);
        *p++ = L':';
        p = putTwoDigits(p, local.wSecond);
        *p++ = L' ';
        *p++ = local.wHour < 12 ? L'A' : L'P';
        *p++ = L'M';
        out.assign(text, static_cast<size_t>(p - text));
        return true;
    }
    std::tm tm = {};
    tm.tm_year = local.wYear - 1900;
    tm.tm_mon = local.wMonth - 1;
    tm.tm_mday = local.wDay;
    tm.tm_hour = local.wHour;
    tm.tm_min = local.wMinute;
    tm.tm_sec = local.wSecond;
    tm.tm_wday = local.wDayOfWeek;
    wchar_t text[128];
    const size_t n = std::wcsftime(text, 128, L"%m/%d/%Y %I:%M:%S %p", &tm);
    if (n == 0) return false;
    out.assign(text, n);
    return true;
}

}  // namespace skorva
