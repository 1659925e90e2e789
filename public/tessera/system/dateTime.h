// DateTime: a broken-down calendar time with the bias of its time zone, and
// the system clocks.
//
// The text form is the ISO 8601 extended form
//     CCYY-MM-DDThh:mm:ss[.fraction][zone]
// where the fraction has one to six digits (milliseconds, then microseconds)
// and the zone is "Z" or "+hh:mm" / "-hh:mm". Parsing is exact: anything but
// this form throws DateTimeFormatException("Error formatting DateTime"), and so
// does a field outside its range (month 01-12, day 01-31, hour 00-23, minute
// and second 00-59, zone hours 00-23 and minutes 00-59). The day is not checked
// against its month: "2009-02-30" is read as written.
// A fraction is read as a decimal fraction of a second, so ".5" is 500 ms and
// ".1234" is 123 ms and 400 us; digits past the sixth are skipped. A text
// without a zone takes the local bias in effect when it is parsed.
//
// The bias is the number of minutes to add to the time to obtain UTC: 0 for
// UTC, negative east of Greenwich (a bias of -60 is written "+01:00").
//
// The 64-bit instant (GetUtcTime, DateTimeFromUtc, GetRealTime) counts
// microseconds since 1970-01-01T00:00:00Z, leap seconds not counted.
#pragma once

#include <tessera/api.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace Tessera {
namespace System {

class TESSERA_EXPORT DateTime {
public:
    // 1970-01-01T00:00:00Z, a Thursday.
    DateTime() noexcept;
    // The whole seconds go to the second field, the first three decimals of
    // the fraction to the milliseconds and the next three to the
    // microseconds. The day of week is computed from the date.
    DateTime(int year, int month, int day, int hour, int minute, double seconds, int bias) noexcept;
    // Parses the text form above.
    explicit DateTime(std::string_view text);

    DateTime(const DateTime&) noexcept = default;
    DateTime& operator=(const DateTime&) noexcept = default;

    int GetCentury() const noexcept { return _century; }
    int GetYearInCentury() const noexcept { return _yearInCentury; }
    int GetYear() const noexcept { return _century * 100 + _yearInCentury; }
    int GetMonth() const noexcept { return _month; }
    int GetDay() const noexcept { return _day; }
    // 0 for Sunday to 6 for Saturday.
    int GetDayOfWeek() const noexcept { return _dayOfWeek; }
    int GetHour() const noexcept { return _hour; }
    int GetMinute() const noexcept { return _minute; }
    int GetSecond() const noexcept { return _second; }
    int GetMillisecond() const noexcept { return _millisecond; }
    // Within the millisecond.
    int GetMicrosecond() const noexcept { return _microsecond; }
    int GetBias() const noexcept { return _bias; }
    // Whether the local zone kept daylight-saving time at this instant; only
    // times read from the local clock or parsed without a zone can say so.
    bool IsDST() const noexcept { return _isDST; }
    // The instant, in microseconds since 1970-01-01T00:00:00Z.
    long long GetUtcTime() const noexcept;

    // "2009-02-03T10:00:00.12345+05:30": the fraction only when not zero,
    // its trailing zeros dropped; "Z" for a bias of 0.
    std::string ToString() const;
    // "2009-02-03 10:00:00": no fraction, no zone.
    std::string ToShortString() const;
    // The zone alone: "Z", "+05:30", "-14:00".
    std::string ToShortStringBias() const;
    // "CCYY-MM-DD" and a terminating zero into `charBuffer`, which must hold
    // at least 11 bytes; else the process stops on the assertion.
    void ToShortStringDate(char* charBuffer, unsigned bufSize) const noexcept;
    // "hh:mm:ss" and a terminating zero; at least 9 bytes.
    void ToShortStringTime(char* charBuffer, unsigned bufSize) const noexcept;

    // Instants are compared, whatever the zones they are written in.
    bool operator==(const DateTime& other) const noexcept;
    bool operator!=(const DateTime& other) const noexcept;
    bool operator<(const DateTime& other) const noexcept;

private:
    // Builds from the instant for DateTimeFromUtc and the clocks.
    friend struct DateTimeAccess;

    // The instant `utcTime`, in UTC or in the local zone of that instant.
    DateTime(long long utcTime, bool local) noexcept;

    void SetFromUtc(long long utcTime, int bias, bool isDST) noexcept;

    std::int32_t _century;
    std::int32_t _yearInCentury;
    std::int32_t _month;
    std::int32_t _day;
    std::int32_t _dayOfWeek;
    std::int32_t _hour;
    std::int32_t _minute;
    std::int32_t _second;
    std::int32_t _millisecond;
    std::int32_t _microsecond;
    std::int32_t _bias;
    bool _isDST;
};

// The current time in UTC, bias 0.
TESSERA_EXPORT DateTime GetUtcDateTime();
// The current time in the local zone, with its bias and daylight-saving flag.
TESSERA_EXPORT DateTime GetLocalDateTime();
// The instant `utcTime` (microseconds since 1970-01-01T00:00:00Z) in UTC, or in
// the local zone as it was at that instant. Instants outside the years 0000 to
// 9999 are taken as the nearest end of that range.
TESSERA_EXPORT DateTime DateTimeFromUtc(long long utcTime, bool local);

// The wall clock, in microseconds since 1970-01-01T00:00:00Z. It follows
// changes of the system time, so it may go back.
TESSERA_EXPORT unsigned long long GetRealTime() noexcept;
// Microseconds since an unspecified start; never goes back.
TESSERA_EXPORT long long GetMonotonicTime() noexcept;

}  // namespace System
}  // namespace Tessera
