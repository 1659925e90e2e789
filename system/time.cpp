// DateTime: calendar arithmetic, the text form and the clocks.
//
// Printing and parsing work on fixed positions in a stack buffer: no streams,
// no locale, and no allocation beyond the string that is returned.

#include <tessera/system/dateTime.h>

#include <tessera/assert.h>
#include <tessera/exception.h>

#include "system/platform/time.h"

#include <cmath>
#include <cstddef>
#include <limits>

namespace Tessera {
namespace System {
namespace {

constexpr long long kMicrosPerSecond = 1000000;
constexpr long long kMicrosPerMinute = 60 * kMicrosPerSecond;
constexpr long long kMicrosPerDay = 24 * 60 * kMicrosPerMinute;

constexpr long long FloorDiv(long long a, long long b) noexcept {
    const long long q = a / b;
    return (a % b != 0 && (a < 0) != (b < 0)) ? q - 1 : q;
}

// Days since 1970-01-01 of a date in the proleptic Gregorian calendar. A month
// outside 1..12 counts on into the neighbouring years and a day past the end
// of its month into the following months, so 2009-02-30 is 2009-03-02.
constexpr long long DaysFromCivil(long long year, long long month, long long day) noexcept {
    year += FloorDiv(month - 1, 12);
    month -= 12 * FloorDiv(month - 1, 12);
    // The year is taken to begin in March, so that the leap day comes last.
    if (month <= 2) {
        --year;
    }
    const long long era = FloorDiv(year, 400);
    const long long yearOfEra = year - era * 400;
    const long long dayOfYear = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
    const long long dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return era * 146097 + dayOfEra - 719468;
}

struct Civil {
    int year;
    int month;
    int day;
};

Civil CivilFromDays(long long days) noexcept {
    days += 719468;
    const long long era = FloorDiv(days, 146097);
    const long long dayOfEra = days - era * 146097;
    const long long yearOfEra =
        (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const long long dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const long long shiftedMonth = (5 * dayOfYear + 2) / 153;
    Civil civil;
    civil.day = static_cast<int>(dayOfYear - (153 * shiftedMonth + 2) / 5 + 1);
    civil.month = static_cast<int>(shiftedMonth < 10 ? shiftedMonth + 3 : shiftedMonth - 9);
    civil.year = static_cast<int>(yearOfEra + era * 400 + (civil.month <= 2 ? 1 : 0));
    return civil;
}

// 1970-01-01 was a Thursday; Sunday is 0.
int DayOfWeek(long long days) noexcept {
    return static_cast<int>(days + 4 - 7 * FloorDiv(days + 4, 7));
}

// The instants the four-digit year can write.
constexpr long long kFirstInstant = DaysFromCivil(0, 1, 1) * kMicrosPerDay;
constexpr long long kLastInstant = DaysFromCivil(10000, 1, 1) * kMicrosPerDay - 1;

[[noreturn, gnu::noinline, gnu::cold]] void ThrowFormatError() {
    throw DateTimeFormatException("Error formatting DateTime");
}

// ---- parsing ----

inline unsigned DigitValue(char c) noexcept {
    return static_cast<unsigned>(static_cast<unsigned char>(c)) - static_cast<unsigned>('0');
}

// Two decimal digits at `p`; `bad` is set when they are not digits.
inline int TwoDigits(const char* p, bool& bad) noexcept {
    const unsigned high = DigitValue(p[0]);
    const unsigned low = DigitValue(p[1]);
    bad |= (high > 9) | (low > 9);
    return static_cast<int>(high * 10 + low);
}

// The day of week of a date as written; Sunday is 0.
inline int DayOfWeekOf(int year, int month, int day) noexcept {
    if (year >= 1 && month >= 1 && month <= 12 && day >= 0 && day <= 99) {
        // The usual table of month offsets, with January and February
        // counted in the previous year.
        static const int kMonthOffset[] = {0, 3, 2, 5, 0, 3, 5, 1, 4, 6, 2, 4};
        const int y = month < 3 ? year - 1 : year;
        return (y + y / 4 - y / 100 + y / 400 + kMonthOffset[month - 1] + day) % 7;
    }
    return DayOfWeek(DaysFromCivil(year, month, day));
}

// ---- printing ----

inline int Clamp(int value, int low, int high) noexcept {
    return value < low ? low : (value > high ? high : value);
}

// `value` is within 0..99.
inline char* PutTwo(char* out, int value) noexcept {
    out[0] = static_cast<char>('0' + value / 10);
    out[1] = static_cast<char>('0' + value % 10);
    return out + 2;
}

// `value` is within 0..999.
inline char* PutThree(char* out, int value) noexcept {
    out[0] = static_cast<char>('0' + value / 100);
    return PutTwo(out + 1, value % 100);
}

// Drops the zeros at the end of a run of fraction digits ending before `end`.
inline char* TrimZeros(char* end) noexcept {
    while (end[-1] == '0') {
        --end;
    }
    return end;
}

// Only their sizes are used.
[[maybe_unused]] const char dateFmt[] = "CCYY-MM-DD";
[[maybe_unused]] const char timeFmt[] = "hh:mm:ss";
constexpr std::size_t kDateLength = sizeof(dateFmt) - 1;
constexpr std::size_t kTimeLength = sizeof(timeFmt) - 1;
// Date, "T", time, a fraction of up to seven characters and a zone of up to six.
constexpr std::size_t kLongestText = kDateLength + 1 + kTimeLength + 7 + 6;

}  // namespace

// ---- construction ----

DateTime::DateTime() noexcept
    : _century(19),
      _yearInCentury(70),
      _month(1),
      _day(1),
      _dayOfWeek(4),
      _hour(0),
      _minute(0),
      _second(0),
      _millisecond(0),
      _microsecond(0),
      _bias(0),
      _isDST(false) {}

DateTime::DateTime(int year, int month, int day, int hour, int minute, double seconds,
                   int bias) noexcept
    : _century(year / 100),
      _yearInCentury(year % 100),
      _month(month),
      _day(day),
      _dayOfWeek(DayOfWeekOf(year, month, day)),
      _hour(hour),
      _minute(minute),
      _second(0),
      _millisecond(0),
      _microsecond(0),
      _bias(bias),
      _isDST(false) {
    const double whole = std::floor(seconds);
    if (!(whole >= 0.0 && whole <= static_cast<double>(std::numeric_limits<int>::max()))) {
        // Negative, too large or not a number: keep zero seconds.
        return;
    }
    _second = static_cast<int>(whole);
    // To the nearest microsecond, since the fraction is rarely exact in
    // binary; it never carries into the whole seconds.
    long long fraction = std::llround((seconds - whole) * static_cast<double>(kMicrosPerSecond));
    if (fraction >= kMicrosPerSecond) {
        fraction = kMicrosPerSecond - 1;
    }
    _millisecond = static_cast<int>(fraction / 1000);
    _microsecond = static_cast<int>(fraction % 1000);
}

DateTime::DateTime(long long utcTime, bool local) noexcept {
    utcTime =
        utcTime < kFirstInstant ? kFirstInstant : (utcTime > kLastInstant ? kLastInstant : utcTime);
    int bias = 0;
    bool isDST = false;
    if (local) {
        Platform::GetLocalZone(utcTime, bias, isDST);
    }
    SetFromUtc(utcTime, bias, isDST);
}

// `utcTime` is within the range already; the local time is kept in it too.
void DateTime::SetFromUtc(long long utcTime, int bias, bool isDST) noexcept {
    long long localTime = utcTime - bias * kMicrosPerMinute;
    localTime = localTime < kFirstInstant ? kFirstInstant
                                          : (localTime > kLastInstant ? kLastInstant : localTime);
    const long long days = FloorDiv(localTime, kMicrosPerDay);
    long long rest = localTime - days * kMicrosPerDay;
    const Civil civil = CivilFromDays(days);
    _century = civil.year / 100;
    _yearInCentury = civil.year % 100;
    _month = civil.month;
    _day = civil.day;
    _dayOfWeek = DayOfWeek(days);
    _hour = static_cast<int>(rest / (60 * kMicrosPerMinute));
    rest %= 60 * kMicrosPerMinute;
    _minute = static_cast<int>(rest / kMicrosPerMinute);
    rest %= kMicrosPerMinute;
    _second = static_cast<int>(rest / kMicrosPerSecond);
    rest %= kMicrosPerSecond;
    _millisecond = static_cast<int>(rest / 1000);
    _microsecond = static_cast<int>(rest % 1000);
    _bias = bias;
    _isDST = isDST;
}

DateTime::DateTime(std::string_view text) {
    const char* p = text.data();
    const std::size_t length = text.size();
    if (length < kDateLength + 1 + kTimeLength) {
        ThrowFormatError();
    }
    // CCYY-MM-DDThh:mm:ss, checked as a whole: one branch instead of twenty.
    bool bad = false;
    _century = TwoDigits(p, bad);
    _yearInCentury = TwoDigits(p + 2, bad);
    _month = TwoDigits(p + 5, bad);
    _day = TwoDigits(p + 8, bad);
    _hour = TwoDigits(p + 11, bad);
    _minute = TwoDigits(p + 14, bad);
    _second = TwoDigits(p + 17, bad);
    bad |= (p[4] != '-') | (p[7] != '-') | (p[10] != 'T') | (p[13] != ':') | (p[16] != ':');
    // Every field within its range; the day is not checked against its month.
    bad |= (_month < 1) | (_month > 12) | (_day < 1) | (_day > 31) | (_hour > 23) | (_minute > 59) |
           (_second > 59);
    if (bad) {
        ThrowFormatError();
    }

    // The fraction: three digits of milliseconds, three of microseconds, the
    // rest skipped. A shorter run is a decimal fraction all the same, so
    // ".5" is 500 ms and ".1234" is 123 ms and 400 us.
    std::size_t i = kDateLength + 1 + kTimeLength;
    int fraction = 0;
    int digits = 0;
    if (i < length && p[i] == '.') {
        const std::size_t first = ++i;
        for (; i < length; ++i) {
            const unsigned digit = DigitValue(p[i]);
            if (digit > 9) {
                break;
            }
            if (digits < 6) {
                fraction = fraction * 10 + static_cast<int>(digit);
                ++digits;
            }
        }
        if (i == first) {
            // A full stop without digits.
            ThrowFormatError();
        }
        static const int kScale[] = {1000000, 100000, 10000, 1000, 100, 10, 1};
        fraction *= kScale[digits];
    }
    _millisecond = fraction / 1000;
    _microsecond = fraction % 1000;

    // The zone: none (the local bias now), "Z", or "+hh:mm" / "-hh:mm".
    _isDST = false;
    if (i == length) {
        Platform::GetLocalZone(Platform::GetRealTimeMicroseconds(), _bias, _isDST);
    } else if (p[i] == 'Z') {
        if (i + 1 != length) {
            ThrowFormatError();
        }
        _bias = 0;
    } else if (p[i] == '+' || p[i] == '-') {
        if (length - i != 6) {
            ThrowFormatError();
        }
        const int hours = TwoDigits(p + i + 1, bad);
        const int minutes = TwoDigits(p + i + 4, bad);
        if (bad || p[i + 3] != ':' || hours > 23 || minutes > 59) {
            ThrowFormatError();
        }
        _bias = p[i] == '+' ? -(hours * 60 + minutes) : hours * 60 + minutes;
    } else {
        ThrowFormatError();
    }

    _dayOfWeek = DayOfWeekOf(GetYear(), _month, _day);
}

// ---- the instant and comparisons ----

long long DateTime::GetUtcTime() const noexcept {
    // Only corrupt fields come near the ends of the range; unsigned arithmetic
    // lets them wrap instead of overflowing.
    using U = unsigned long long;
    const U days = static_cast<U>(DaysFromCivil(GetYear(), _month, _day));
    const U minutes = (days * 24 + static_cast<U>(static_cast<long long>(_hour))) * 60 +
                      static_cast<U>(static_cast<long long>(_minute)) +
                      static_cast<U>(static_cast<long long>(_bias));
    const U micros = (minutes * 60 + static_cast<U>(static_cast<long long>(_second))) *
                         static_cast<U>(kMicrosPerSecond) +
                     static_cast<U>(static_cast<long long>(_millisecond)) * 1000 +
                     static_cast<U>(static_cast<long long>(_microsecond));
    return static_cast<long long>(micros);
}

bool DateTime::operator==(const DateTime& other) const noexcept {
    return GetUtcTime() == other.GetUtcTime();
}

bool DateTime::operator!=(const DateTime& other) const noexcept {
    return GetUtcTime() != other.GetUtcTime();
}

bool DateTime::operator<(const DateTime& other) const noexcept {
    return GetUtcTime() < other.GetUtcTime();
}

// ---- printing ----
//
// Every field is clamped into its range before it is written, so that a
// corrupt value never widens the fixed columns.

namespace {

char* PutDate(char* out, int century, int yearInCentury, int month, int day) noexcept {
    out = PutTwo(out, Clamp(century, 0, 99));
    out = PutTwo(out, Clamp(yearInCentury, 0, 99));
    *out++ = '-';
    out = PutTwo(out, Clamp(month, 0, 12));
    *out++ = '-';
    return PutTwo(out, Clamp(day, 0, 31));
}

char* PutTime(char* out, int hour, int minute, int second) noexcept {
    out = PutTwo(out, Clamp(hour, 0, 23));
    *out++ = ':';
    out = PutTwo(out, Clamp(minute, 0, 59));
    *out++ = ':';
    return PutTwo(out, Clamp(second, 0, 59));
}

char* PutZone(char* out, int bias) noexcept {
    if (bias == 0) {
        *out++ = 'Z';
        return out;
    }
    // East of Greenwich the bias is negative and the zone positive.
    *out++ = bias < 0 ? '+' : '-';
    const long long magnitude = bias < 0 ? -static_cast<long long>(bias) : bias;
    out = PutTwo(out, static_cast<int>(magnitude / 60 > 14 ? 14 : magnitude / 60));
    *out++ = ':';
    return PutTwo(out, static_cast<int>(magnitude % 60));
}

}  // namespace

std::string DateTime::ToString() const {
    char text[kLongestText];
    char* out = PutDate(text, _century, _yearInCentury, _month, _day);
    *out++ = 'T';
    out = PutTime(out, _hour, _minute, _second);
    const int millisecond = Clamp(_millisecond, 0, 999);
    const int microsecond = Clamp(_microsecond, 0, 999);
    if (microsecond != 0) {
        *out++ = '.';
        out = PutThree(out, millisecond);
        out = TrimZeros(PutThree(out, microsecond));
    } else if (millisecond != 0) {
        *out++ = '.';
        out = TrimZeros(PutThree(out, millisecond));
    }
    out = PutZone(out, _bias);
    return std::string(text, static_cast<std::size_t>(out - text));
}

std::string DateTime::ToShortString() const {
    char text[kDateLength + 1 + kTimeLength];
    char* out = PutDate(text, _century, _yearInCentury, _month, _day);
    *out++ = ' ';
    out = PutTime(out, _hour, _minute, _second);
    return std::string(text, static_cast<std::size_t>(out - text));
}

std::string DateTime::ToShortStringBias() const {
    char text[6];
    const char* end = PutZone(text, _bias);
    return std::string(text, static_cast<std::size_t>(end - text));
}

void DateTime::ToShortStringDate(char* charBuffer, unsigned bufSize) const noexcept {
    TESSERA_ASSERT(charBuffer);
    // The report quotes the condition as written here.
    // clang-format off
    TESSERA_ASSERT(bufSize >= (sizeof(dateFmt)/sizeof(dateFmt[0])));
    // clang-format on
    *PutDate(charBuffer, _century, _yearInCentury, _month, _day) = '\0';
}

void DateTime::ToShortStringTime(char* charBuffer, unsigned bufSize) const noexcept {
    TESSERA_ASSERT(charBuffer);
    // The report quotes the condition as written here.
    // clang-format off
    TESSERA_ASSERT(bufSize >= (sizeof(timeFmt)/sizeof(timeFmt[0])));
    // clang-format on
    *PutTime(charBuffer, _hour, _minute, _second) = '\0';
}

// ---- the clocks ----

struct DateTimeAccess {
    static DateTime FromUtc(long long utcTime, bool local) noexcept {
        return DateTime(utcTime, local);
    }
};

DateTime DateTimeFromUtc(long long utcTime, bool local) {
    return DateTimeAccess::FromUtc(utcTime, local);
}

DateTime GetUtcDateTime() {
    return DateTimeFromUtc(Platform::GetRealTimeMicroseconds(), false);
}

DateTime GetLocalDateTime() {
    return DateTimeFromUtc(Platform::GetRealTimeMicroseconds(), true);
}

unsigned long long GetRealTime() noexcept {
    return static_cast<unsigned long long>(Platform::GetRealTimeMicroseconds());
}

long long GetMonotonicTime() noexcept {
    return Platform::GetMonotonicMicroseconds();
}

}  // namespace System
}  // namespace Tessera
