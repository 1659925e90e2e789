// DateTime's text form: any text either parses to fields within their ranges
// or is refused with "Error formatting DateTime"; what parses prints a text
// that parses back to the same fields.

#include "fuzz/fuzzCheck.h"

#include <tessera/exception.h>
#include <tessera/system/dateTime.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

using Tessera::System::DateTime;

namespace {

bool Within(int value, int low, int high) { return value >= low && value <= high; }

// The bias as the printer writes it: hours clamped to 14.
int PrintableBias(int bias) {
    const int magnitude = bias < 0 ? -bias : bias;
    const int printed = (magnitude / 60 > 14 ? 14 : magnitude / 60) * 60 + magnitude % 60;
    return bias < 0 ? -printed : printed;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    DateTime t;
    try {
        t = DateTime(text);
    } catch (const Tessera::DateTimeFormatException& e) {
        FUZZ_CHECK(std::strcmp(e.what(), "Error formatting DateTime") == 0);
        return 0;
    }

    FUZZ_CHECK(Within(t.GetCentury(), 0, 99) && Within(t.GetYearInCentury(), 0, 99));
    FUZZ_CHECK(Within(t.GetMonth(), 1, 12) && Within(t.GetDay(), 1, 31));
    FUZZ_CHECK(Within(t.GetDayOfWeek(), 0, 6));
    FUZZ_CHECK(Within(t.GetHour(), 0, 23) && Within(t.GetMinute(), 0, 59) &&
               Within(t.GetSecond(), 0, 59));
    FUZZ_CHECK(Within(t.GetMillisecond(), 0, 999) && Within(t.GetMicrosecond(), 0, 999));
    FUZZ_CHECK(Within(t.GetBias(), -(23 * 60 + 59), 23 * 60 + 59));

    // The day of week is that of the date as written, a day past the end of
    // its month counting on into the next.
    const DateTime midnight(t.GetYear(), t.GetMonth(), t.GetDay(), 0, 0, 0.0, 0);
    FUZZ_CHECK(Tessera::System::DateTimeFromUtc(midnight.GetUtcTime(), false).GetDayOfWeek() ==
               t.GetDayOfWeek());

    const std::string printed = t.ToString();
    const DateTime back(printed); // the printer never writes what the parser refuses
    FUZZ_CHECK(back.GetCentury() == t.GetCentury() &&
               back.GetYearInCentury() == t.GetYearInCentury());
    FUZZ_CHECK(back.GetMonth() == t.GetMonth() && back.GetDay() == t.GetDay());
    FUZZ_CHECK(back.GetDayOfWeek() == t.GetDayOfWeek());
    FUZZ_CHECK(back.GetHour() == t.GetHour() && back.GetMinute() == t.GetMinute() &&
               back.GetSecond() == t.GetSecond());
    FUZZ_CHECK(back.GetMillisecond() == t.GetMillisecond() &&
               back.GetMicrosecond() == t.GetMicrosecond());
    FUZZ_CHECK(back.GetBias() == PrintableBias(t.GetBias()));
    FUZZ_CHECK(back.ToString() == printed);
    if (back.GetBias() == t.GetBias()) {
        FUZZ_CHECK(back == t && !(back < t) && !(t < back));
    }

    char date[11];
    char time[9];
    t.ToShortStringDate(date, sizeof(date));
    t.ToShortStringTime(time, sizeof(time));
    FUZZ_CHECK(printed.compare(0, 10, date) == 0 && printed.compare(11, 8, time) == 0);
    FUZZ_CHECK(t.ToShortString() == std::string(date) + " " + time);
    FUZZ_CHECK(printed.compare(printed.size() - t.ToShortStringBias().size(), std::string::npos,
                               t.ToShortStringBias()) == 0);
    return 0;
}
