// The local zone comes from the system's zone rules: each case runs in a child
// process of its own with TZ set to a POSIX rule, which needs no zone database.

#include <tessera/system/dateTime.h>

#include <gtest/gtest.h>

#include <stdlib.h>
#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <string>

using namespace Tessera::System;

namespace {

struct Expected {
    const char* utc; // an instant, in UTC
    const char* local; // the same instant in the local zone
    bool isDST;
};

// Runs in the child: reports every mismatch on standard error and exits with
// the number of them.
[[noreturn]] void CheckZoneAndExit(const char* zone, std::initializer_list<Expected> cases) {
    setenv("TZ", zone, 1);
    tzset();
    int failures = 0;
    for (const Expected& c : cases) {
        const long long instant = DateTime(c.utc).GetUtcTime();
        const DateTime local = DateTimeFromUtc(instant, true);
        if (local.ToString() != c.local || local.IsDST() != c.isDST ||
            local.GetUtcTime() != instant || local != DateTime(c.local)) {
            std::fprintf(stderr, "%s: %s gave %s (DST %d)\n", zone, c.utc, local.ToString().c_str(),
                         local.IsDST() ? 1 : 0);
            ++failures;
        }
    }
    // The clock and zone-less texts follow the zone of the moment.
    const DateTime now = GetLocalDateTime();
    const DateTime expected = DateTimeFromUtc(now.GetUtcTime(), true);
    const DateTime parsed(now.ToShortString().replace(10, 1, "T"));
    if (now.GetBias() != expected.GetBias() || now.IsDST() != expected.IsDST() ||
        parsed.GetBias() != now.GetBias() || parsed.IsDST() != now.IsDST()) {
        std::fprintf(stderr, "%s: now %s, expected bias %d, parsed %s\n", zone,
                     now.ToString().c_str(), expected.GetBias(), parsed.ToString().c_str());
        ++failures;
    }
    std::fflush(stderr);
    std::_Exit(failures);
}

} // namespace

TEST(DateTimeZoneDeathTest, LocalTimeFollowsTheZoneRules) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(CheckZoneAndExit("CET-1CEST,M3.5.0,M10.5.0/3",
                                 {{"2009-01-15T12:00:00Z", "2009-01-15T13:00:00+01:00", false},
                                  {"2009-07-15T12:00:00Z", "2009-07-15T14:00:00+02:00", true},
                                  {"2009-03-29T00:59:59.5Z", "2009-03-29T01:59:59.5+01:00", false},
                                  {"2009-03-29T01:00:00Z", "2009-03-29T03:00:00+02:00", true}}),
                testing::ExitedWithCode(0), "");
    EXPECT_EXIT(CheckZoneAndExit("EST5EDT,M3.2.0,M11.1.0",
                                 {{"2009-01-15T12:00:00Z", "2009-01-15T07:00:00-05:00", false},
                                  {"2009-07-15T12:00:00Z", "2009-07-15T08:00:00-04:00", true},
                                  {"2009-01-01T02:00:00Z", "2008-12-31T21:00:00-05:00", false}}),
                testing::ExitedWithCode(0), "");
    EXPECT_EXIT(CheckZoneAndExit("IST-5:30",
                                 {{"2009-07-15T12:00:00Z", "2009-07-15T17:30:00+05:30", false},
                                  {"1969-12-31T20:00:00Z", "1970-01-01T01:30:00+05:30", false}}),
                testing::ExitedWithCode(0), "");
    EXPECT_EXIT(CheckZoneAndExit("UTC0", {{"2009-07-15T12:00:00Z", "2009-07-15T12:00:00Z", false}}),
                testing::ExitedWithCode(0), "");
}
