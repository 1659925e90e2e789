#include <tessera/exception.h>
#include <tessera/system/dateTime.h>

#include <gtest/gtest.h>

#include <chrono>
#include <climits>
#include <cstring>
#include <string>
#include <thread>
#include <utility>

using Tessera::DateTimeFormatException;
using Tessera::System::DateTime;
using Tessera::System::DateTimeFromUtc;

namespace {

constexpr long long kSecond = 1000000;
constexpr long long kDay = 86400 * kSecond;

// gtest's own regular expressions (where the system has none) know \d but no
// brackets; POSIX ones know brackets but no \d.
#if GTEST_USES_POSIX_RE
#define LINE_NUMBER "[0-9]+"
#else
#define LINE_NUMBER "\\d+"
#endif

::testing::AssertionResult Rejected(const std::string& text) {
    try {
        DateTime parsed(text);
        return ::testing::AssertionFailure()
               << "\"" << text << "\" parsed as " << parsed.ToString();
    } catch (const DateTimeFormatException& e) {
        if (std::string(e.what()) != "Error formatting DateTime") {
            return ::testing::AssertionFailure() << "\"" << text << "\": " << e.what();
        }
        return ::testing::AssertionSuccess();
    }
}

std::string Fields(const DateTime& t) {
    std::string text;
    for (int field : {t.GetCentury(), t.GetYearInCentury(), t.GetMonth(), t.GetDay(),
                      t.GetDayOfWeek(), t.GetHour(), t.GetMinute(), t.GetSecond(),
                      t.GetMillisecond(), t.GetMicrosecond(), t.GetBias(), t.IsDST() ? 1 : 0}) {
        text += (text.empty() ? "" : " ") + std::to_string(field);
    }
    return text;
}

}  // namespace

TEST(DateTimeText, ExactTextsPrintBackAsRead) {
    for (const char* text :
         {"2009-02-03T10:00:00Z", "2009-02-03T10:00:00.5Z", "2009-02-03T10:00:00.05Z",
          "2009-02-03T10:00:00.12345+05:30", "1999-12-31T23:59:59.000001-14:00",
          "0000-01-01T00:00:00Z", "9999-12-31T23:59:59.999999+14:59", "2009-02-30T10:00:00Z"}) {
        EXPECT_EQ(DateTime(text).ToString(), text);
    }
}

TEST(DateTimeText, ParsedFields) {
    // century, year in century, month, day, day of week, h, m, s, ms, us, bias, DST
    EXPECT_EQ(Fields(DateTime("2009-02-03T10:04:05.123456789+05:30")),
              "20 9 2 3 2 10 4 5 123 456 -330 0");
    EXPECT_EQ(Fields(DateTime("2009-02-03T10:00:00-08:00")), "20 9 2 3 2 10 0 0 0 0 480 0");
    // No calendar check; the day of week is that of 2009-03-02 all the same.
    EXPECT_EQ(Fields(DateTime("2009-02-30T10:00:00Z")), "20 9 2 30 1 10 0 0 0 0 0 0");
    EXPECT_EQ(Fields(DateTime("2000-02-29T00:00:00Z")), "20 0 2 29 2 0 0 0 0 0 0 0");
    EXPECT_EQ(Fields(DateTime("2024-03-10T00:00:00Z")), "20 24 3 10 0 0 0 0 0 0 0 0");
    EXPECT_EQ(Fields(DateTime("0000-01-01T00:00:00Z")), "0 0 1 1 6 0 0 0 0 0 0 0");
    EXPECT_EQ(DateTime("1999-01-01T00:00:00Z").GetYear(), 1999);

    // A fraction is a decimal fraction of a second, however many digits it has.
    for (const auto& [fraction, expected] :
         {std::pair{".5", "500 0"}, std::pair{".05", "50 0"}, std::pair{".1234", "123 400"},
          std::pair{".000001", "0 1"}, std::pair{"", "0 0"}}) {
        const DateTime t(std::string("2009-02-03T10:00:00") + fraction + "Z");
        EXPECT_EQ(std::to_string(t.GetMillisecond()) + " " + std::to_string(t.GetMicrosecond()),
                  expected)
            << fraction;
    }

    // Without a zone the text takes the local bias of the moment.
    EXPECT_EQ(DateTime("2009-02-03T10:00:00").GetBias(),
              Tessera::System::GetLocalDateTime().GetBias());
}

TEST(DateTimeText, EveryMalformedTextIsRefused) {
    const std::string good = "2009-02-03T10:00:00";
    EXPECT_TRUE(Rejected(""));
    EXPECT_TRUE(Rejected(good.substr(0, 18)));
    EXPECT_TRUE(Rejected("2009-02-3T10:00:00"));
    // Each position of the fixed part, spoilt in turn.
    for (std::size_t i = 0; i < good.size(); ++i) {
        std::string bad = good + "Z";
        bad[i] = (bad[i] >= '0' && bad[i] <= '9') ? 'x' : '0';
        EXPECT_TRUE(Rejected(bad)) << "position " << i;
        bad[i] = '/';
        EXPECT_TRUE(Rejected(bad)) << "position " << i;
    }
    for (const char* tail : {"Zx", "Z ", "z", " ", "x", ".12x", ".5 Z", "+05:3", "+05:300", "+0530",
                             "+05-30", "+a5:30", "-05:3b", "05:30", "+05:30Z", "Z+05:30", "..5Z"}) {
        EXPECT_TRUE(Rejected(good + tail)) << tail;
    }
    EXPECT_TRUE(Rejected(std::string("2009-02-03T10:00:00\0Z", 21)));
}

TEST(DateTimeText, FieldsOutOfRangeAreRefused) {
    for (const char* text :
         {"2009-13-01T00:00:00Z", "2009-00-01T00:00:00Z", "2009-99-01T00:00:00Z",
          "2009-01-32T00:00:00Z", "2009-01-00T00:00:00Z", "2009-01-01T24:00:00Z",
          "2009-01-01T00:60:00Z", "2009-01-01T00:00:60Z", "2009-01-01T00:00:99Z",
          "2009-01-01T00:00:00+99:99", "2009-01-01T00:00:00+24:00", "2009-01-01T00:00:00-00:60",
          "2009-01-01T00:00:00.", "2009-01-01T00:00:00.Z", "2009-01-01T00:00:00.+05:30"}) {
        EXPECT_TRUE(Rejected(text)) << text;
    }
    // The ends of each range, and a day the month does not have, are kept.
    EXPECT_EQ(Fields(DateTime("0000-12-31T23:59:59.9-23:59")), "0 0 12 31 0 23 59 59 900 0 1439 0");
    EXPECT_EQ(Fields(DateTime("9999-01-01T00:00:00+23:00")), "99 99 1 1 5 0 0 0 0 0 -1380 0");
    EXPECT_EQ(DateTime("2009-02-31T00:00:00Z").GetDay(), 31);
}

TEST(DateTimeText, PrintedForms) {
    // 0.12345 s is 123 ms and 450 us.
    const DateTime t(2009, 2, 3, 10, 4, 5.12345, -330);
    EXPECT_EQ(Fields(t), "20 9 2 3 2 10 4 5 123 450 -330 0");
    EXPECT_EQ(t.ToString(), "2009-02-03T10:04:05.12345+05:30");
    EXPECT_EQ(t.ToShortString(), "2009-02-03 10:04:05");
    EXPECT_EQ(t.ToShortStringBias(), "+05:30");
    EXPECT_EQ(DateTime(2009, 2, 3, 10, 4, 5.123456, 60).ToString(),
              "2009-02-03T10:04:05.123456-01:00");
    EXPECT_EQ(DateTime(2009, 2, 3, 10, 4, 59.9999999, 0).ToString(), "2009-02-03T10:04:59.999999Z");
    for (const auto& [bias, zone] : {std::pair{0, "Z"}, std::pair{1000, "-14:40"},
                                     std::pair{-1000, "+14:40"}, std::pair{INT_MIN, "+14:08"}}) {
        EXPECT_EQ(DateTime(2009, 2, 3, 10, 4, 5.0, bias).ToShortStringBias(), zone);
    }

    // Corrupt fields never widen the columns.
    EXPECT_EQ(DateTime(12345, 13, 40, 25, 61, 75.0, 0).ToString(), "9945-12-31T23:59:59Z");
    EXPECT_EQ(DateTime(-5, -1, -1, -1, -1, -1.0, 0).ToString(), "0000-00-00T00:00:00Z");

    char buffer[16];
    std::memset(buffer, '#', sizeof(buffer));
    t.ToShortStringDate(buffer, 11);
    EXPECT_STREQ(buffer, "2009-02-03");
    EXPECT_EQ(buffer[11], '#');
    std::memset(buffer, '#', sizeof(buffer));
    t.ToShortStringTime(buffer, 9);
    EXPECT_STREQ(buffer, "10:04:05");
    EXPECT_EQ(buffer[9], '#');
}

TEST(DateTimeTextDeathTest, BuffersMustBeGivenAndLargeEnough) {
    const DateTime t("2009-02-03T10:00:00Z");
    char buffer[16];
    EXPECT_DEATH(t.ToShortStringDate(nullptr, 11),
                 "PANIC: Assertion \"charBuffer\" failed at system/time:" LINE_NUMBER);
    EXPECT_DEATH(
        t.ToShortStringDate(buffer, 10),
        "PANIC: Assertion \"bufSize >= \\(sizeof\\(dateFmt\\)/sizeof\\(dateFmt\\[0\\]\\)\\)\" "
        "failed at system/time:" LINE_NUMBER);
    EXPECT_DEATH(t.ToShortStringTime(nullptr, 9),
                 "PANIC: Assertion \"charBuffer\" failed at system/time:" LINE_NUMBER);
    EXPECT_DEATH(
        t.ToShortStringTime(buffer, 8),
        "PANIC: Assertion \"bufSize >= \\(sizeof\\(timeFmt\\)/sizeof\\(timeFmt\\[0\\]\\)\\)\" "
        "failed at system/time:" LINE_NUMBER);
}

TEST(DateTimeInstant, ComparedAcrossZones) {
    const DateTime utc("2009-02-03T10:00:00Z");
    EXPECT_EQ(utc, DateTime("2009-02-03T15:30:00+05:30"));
    EXPECT_EQ(utc, DateTime("2009-02-03T02:00:00-08:00"));
    EXPECT_EQ(DateTime("2009-03-01T01:00:00+02:00"), DateTime("2009-02-28T23:00:00Z"));
    EXPECT_NE(utc, DateTime("2009-02-03T10:00:00+05:30"));
    EXPECT_LT(DateTime("2009-02-03T11:00:00+05:30"), utc);
    EXPECT_LT(utc, DateTime("2009-02-03T09:00:00.000001-01:00"));
    EXPECT_FALSE(utc < DateTime("2009-02-03T09:00:00-01:00"));

    DateTime copy;
    EXPECT_EQ(copy.ToString(), "1970-01-01T00:00:00Z");
    EXPECT_EQ(copy.GetDayOfWeek(), 4);
    copy = utc;
    EXPECT_EQ(copy.ToString(), utc.ToString());

    EXPECT_EQ(DateTime().GetUtcTime(), 0);
    EXPECT_EQ(DateTime("1970-01-01T01:00:00+01:00").GetUtcTime(), 0);
    EXPECT_EQ(DateTime("2009-02-13T23:31:30.5Z").GetUtcTime(), 1234567890 * kSecond + 500000);
    EXPECT_EQ(DateTimeFromUtc(1234567890123456, false).ToString(), "2009-02-13T23:31:30.123456Z");
    EXPECT_EQ(DateTimeFromUtc(-1, false).ToString(), "1969-12-31T23:59:59.999999Z");
    EXPECT_EQ(DateTimeFromUtc(LLONG_MAX, false).ToString(), "9999-12-31T23:59:59.999999Z");
    EXPECT_EQ(DateTimeFromUtc(LLONG_MIN, false).ToString(), "0000-01-01T00:00:00Z");
}

TEST(DateTimeInstant, EveryDayOfFourCenturiesRoundTrips) {
    const long long first = DateTime("1900-01-01T12:34:56.789012Z").GetUtcTime();
    int dayOfWeek = 1;  // 1900-01-01 was a Monday
    for (long long day = 0; day < 146097; ++day) {
        const long long instant = first + day * kDay;
        const DateTime t = DateTimeFromUtc(instant, false);
        ASSERT_EQ(t.GetUtcTime(), instant);
        ASSERT_EQ(t.GetDayOfWeek(), dayOfWeek) << t.ToString();
        const DateTime back(t.ToString());
        ASSERT_EQ(back.GetUtcTime(), instant) << t.ToString();
        ASSERT_EQ(back.GetDayOfWeek(), dayOfWeek) << t.ToString();
        dayOfWeek = (dayOfWeek + 1) % 7;
        const DateTime local = DateTimeFromUtc(instant, true);
        ASSERT_EQ(local.GetUtcTime(), instant) << local.ToString();
    }
    EXPECT_EQ(DateTimeFromUtc(first + 146097 * kDay, false).ToString(),
              "2300-01-01T12:34:56.789012Z");
}

TEST(DateTimeClock, ClocksAgree) {
    using namespace Tessera::System;
    const unsigned long long before = GetRealTime();
    const DateTime utc = GetUtcDateTime();
    const DateTime local = GetLocalDateTime();
    const unsigned long long after = GetRealTime();
    EXPECT_EQ(utc.GetBias(), 0);
    EXPECT_FALSE(utc.IsDST());
    EXPECT_LE(before, static_cast<unsigned long long>(utc.GetUtcTime()));
    EXPECT_LE(static_cast<unsigned long long>(local.GetUtcTime()), after);
    EXPECT_LE(utc.GetUtcTime(), local.GetUtcTime());
    EXPECT_EQ(local.GetBias(), DateTimeFromUtc(local.GetUtcTime(), true).GetBias());

    long long previous = GetMonotonicTime();
    for (int i = 0; i < 10000; ++i) {
        const long long now = GetMonotonicTime();
        ASSERT_GE(now, previous);
        previous = now;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_GE(GetMonotonicTime() - previous, 19000);
}
