// POSIX side of the clocks and the local time zone.

#include "system/platform/time.h"

#include <time.h>

#include <mutex>

namespace Tessera {
namespace System {
namespace Platform {
namespace {

long long Microseconds(const struct timespec& ts) noexcept {
    return static_cast<long long>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

// Seconds, rounded towards the past, of an instant in microseconds.
time_t Seconds(long long utcTime) noexcept {
    const long long seconds = utcTime / 1000000;
    return static_cast<time_t>(utcTime % 1000000 < 0 ? seconds - 1 : seconds);
}

}  // namespace

long long GetRealTimeMicroseconds() noexcept {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return Microseconds(ts);
}

long long GetMonotonicMicroseconds() noexcept {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return Microseconds(ts);
}

void GetLocalZone(long long utcTime, int& bias, bool& isDST) noexcept {
    // localtime_r reads TZ only once; tzset picks up a zone changed since.
    // The C library guards its zone with a lock of its own that race
    // detectors cannot see; this one makes the ordering visible to them too.
    static std::mutex zoneLock;
    std::lock_guard<std::mutex> hold(zoneLock);
    tzset();
    const time_t seconds = Seconds(utcTime);
    struct tm local;
    if (localtime_r(&seconds, &local) != nullptr) {
        bias = static_cast<int>(-local.tm_gmtoff / 60);
        isDST = local.tm_isdst > 0;
        return;
    }
    // Out of the C library's range: the zone's standard offset.
    bias = static_cast<int>(timezone / 60);
    isDST = false;
}

}  // namespace Platform
}  // namespace System
}  // namespace Tessera
