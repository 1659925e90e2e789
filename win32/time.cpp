// Windows side of the clocks and the local time zone.
//
// Instants are converted from FILETIME: 100-nanosecond ticks since
// 1601-01-01T00:00:00Z.

#include "system/platform/time.h"

#include "win32/support.h"

#include <atomic>

namespace Tessera {
namespace System {
namespace Platform {
namespace {

// Microseconds from 1601-01-01 to 1970-01-01.
constexpr long long kEpochOffset = 11644473600LL * 1000000;

long long FromFileTime(const FILETIME& ft) noexcept {
    return static_cast<long long>(FileTimeTicks(ft) / 10) - kEpochOffset;
}

FILETIME ToFileTime(long long utcTime) noexcept {
    return TicksToFileTime(static_cast<std::uint64_t>(utcTime + kEpochOffset) * 10);
}

// The precise clock exists from Windows 8 on; before it, the coarse one.
using GetTimeFunction = VOID(WINAPI*)(LPFILETIME);

GetTimeFunction LookUpClock() noexcept {
    HMODULE kernel = GetModuleHandleW(L"kernel32.dll");
    if (kernel != nullptr) {
        FARPROC precise = GetProcAddress(kernel, "GetSystemTimePreciseAsFileTime");
        if (precise != nullptr) {
            return reinterpret_cast<GetTimeFunction>(reinterpret_cast<void (*)()>(precise));
        }
    }
    return &GetSystemTimeAsFileTime;
}

std::atomic<GetTimeFunction> sClock{nullptr};

long long PerformanceFrequency() noexcept {
    static const long long frequency = [] {
        LARGE_INTEGER value;
        QueryPerformanceFrequency(&value);  // never fails from Windows XP on
        return static_cast<long long>(value.QuadPart);
    }();
    return frequency;
}

bool MicrosecondsOf(const SYSTEMTIME& time, long long& out) noexcept {
    FILETIME ft;
    if (!SystemTimeToFileTime(&time, &ft)) {
        return false;
    }
    out = FromFileTime(ft);
    return true;
}

}  // namespace

long long GetRealTimeMicroseconds() noexcept {
    GetTimeFunction clock = sClock.load(std::memory_order_relaxed);
    if (clock == nullptr) {
        clock = LookUpClock();
        sClock.store(clock, std::memory_order_relaxed);
    }
    FILETIME now;
    clock(&now);
    return FromFileTime(now);
}

long long GetMonotonicMicroseconds() noexcept {
    LARGE_INTEGER counter;
    QueryPerformanceCounter(&counter);
    const long long ticks = counter.QuadPart;
    const long long frequency = PerformanceFrequency();
    // In two steps, so that the product cannot overflow.
    return ticks / frequency * 1000000 + ticks % frequency * 1000000 / frequency;
}

void GetLocalZone(long long utcTime, int& bias, bool& isDST) noexcept {
    TIME_ZONE_INFORMATION zone;
    const DWORD zoneId = GetTimeZoneInformation(&zone);
    const long long standardBias = static_cast<long long>(zone.Bias) + zone.StandardBias;
    bias = static_cast<int>(standardBias);
    isDST = false;
    if (zoneId == TIME_ZONE_ID_INVALID) {
        return;
    }
    // The zone's rules for the year of the instant decide, not those of today.
    const FILETIME utcFile = ToFileTime(utcTime < -kEpochOffset ? -kEpochOffset : utcTime);
    SYSTEMTIME utc;
    SYSTEMTIME local;
    long long utcMicroseconds = 0;
    long long localMicroseconds = 0;
    if (!FileTimeToSystemTime(&utcFile, &utc) ||
        !SystemTimeToTzSpecificLocalTime(nullptr, &utc, &local) ||
        !MicrosecondsOf(utc, utcMicroseconds) || !MicrosecondsOf(local, localMicroseconds)) {
        return;
    }
    bias = static_cast<int>((utcMicroseconds - localMicroseconds) / 60000000);
    isDST = zoneId != TIME_ZONE_ID_UNKNOWN && zone.DaylightDate.wMonth != 0 &&
            zone.DaylightBias != zone.StandardBias &&
            bias == static_cast<long long>(zone.Bias) + zone.DaylightBias;
}

}  // namespace Platform
}  // namespace System
}  // namespace Tessera
