// The clocks and the local time zone, implemented in posix/time.cpp and
// win32/time.cpp. Instants are microseconds since 1970-01-01T00:00:00Z.
#pragma once

namespace Tessera {
namespace System {
namespace Platform {

// The wall clock.
long long GetRealTimeMicroseconds() noexcept;

// A clock that never goes back, from an unspecified start.
long long GetMonotonicMicroseconds() noexcept;

// The local zone as it was (or will be) at the instant `utcTime`: `bias` is
// the minutes to add to local time to obtain UTC, `isDST` whether
// daylight-saving time was kept. Where the system cannot tell, the zone's
// standard bias is given.
void GetLocalZone(long long utcTime, int& bias, bool& isDST) noexcept;

}  // namespace Platform
}  // namespace System
}  // namespace Tessera
