// DateTime text: parsing and printing the ISO 8601 form against POCO's
// DateTimeParser / DateTimeFormatter and against the C library's strptime /
// strftime.
//
// POCO is given the form with a fraction and a zone (its ISO8601_FRAC_FORMAT);
// the C library has no fraction and writes the zone without a colon, so it is
// measured on a text without a fraction, and DateTime on that text too.
// Every printer builds the std::string it returns, as callers need one.

#include <tessera/system/dateTime.h>

#include <Poco/DateTime.h>
#include <Poco/DateTimeFormat.h>
#include <Poco/DateTimeFormatter.h>
#include <Poco/DateTimeParser.h>
#include <benchmark/benchmark.h>

#include <time.h>

#include <string>

namespace {

using Tessera::System::DateTime;

const std::string kFractionText = "2009-02-03T10:04:05.123456+05:30";
const std::string kPlainText = "2009-02-03T10:04:05+05:30";

// ---- parsing ----

void Parse_TesseraFraction(benchmark::State& state) {
    for (auto _ : state) {
        DateTime parsed(kFractionText);
        benchmark::DoNotOptimize(parsed);
    }
}

void Parse_PocoFraction(benchmark::State& state) {
    Poco::DateTime parsed;
    int zone = 0;
    for (auto _ : state) {
        Poco::DateTimeParser::parse(Poco::DateTimeFormat::ISO8601_FRAC_FORMAT, kFractionText,
                                    parsed, zone);
        benchmark::DoNotOptimize(parsed);
        benchmark::DoNotOptimize(zone);
    }
}

void Parse_TesseraPlain(benchmark::State& state) {
    for (auto _ : state) {
        DateTime parsed(kPlainText);
        benchmark::DoNotOptimize(parsed);
    }
}

void Parse_PocoPlain(benchmark::State& state) {
    Poco::DateTime parsed;
    int zone = 0;
    for (auto _ : state) {
        Poco::DateTimeParser::parse(Poco::DateTimeFormat::ISO8601_FORMAT, kPlainText, parsed, zone);
        benchmark::DoNotOptimize(parsed);
        benchmark::DoNotOptimize(zone);
    }
}

void Parse_Strptime(benchmark::State& state) {
    for (auto _ : state) {
        struct tm parsed = {};
        benchmark::DoNotOptimize(strptime(kPlainText.c_str(), "%Y-%m-%dT%H:%M:%S%z", &parsed));
        benchmark::DoNotOptimize(parsed);
    }
}

// ---- printing ----

void Format_TesseraFraction(benchmark::State& state) {
    const DateTime value(kFractionText);
    for (auto _ : state) {
        std::string text = value.ToString();
        benchmark::DoNotOptimize(text);
    }
}

void Format_PocoFraction(benchmark::State& state) {
    Poco::DateTime value;
    int zone = 0;
    Poco::DateTimeParser::parse(Poco::DateTimeFormat::ISO8601_FRAC_FORMAT, kFractionText, value,
                                zone);
    for (auto _ : state) {
        std::string text =
            Poco::DateTimeFormatter::format(value, Poco::DateTimeFormat::ISO8601_FRAC_FORMAT, zone);
        benchmark::DoNotOptimize(text);
    }
}

void Format_TesseraPlain(benchmark::State& state) {
    const DateTime value(kPlainText);
    for (auto _ : state) {
        std::string text = value.ToString();
        benchmark::DoNotOptimize(text);
    }
}

void Format_PocoPlain(benchmark::State& state) {
    Poco::DateTime value;
    int zone = 0;
    Poco::DateTimeParser::parse(Poco::DateTimeFormat::ISO8601_FORMAT, kPlainText, value, zone);
    for (auto _ : state) {
        std::string text =
            Poco::DateTimeFormatter::format(value, Poco::DateTimeFormat::ISO8601_FORMAT, zone);
        benchmark::DoNotOptimize(text);
    }
}

void Format_Strftime(benchmark::State& state) {
    struct tm value = {};
    strptime(kPlainText.c_str(), "%Y-%m-%dT%H:%M:%S%z", &value);
    for (auto _ : state) {
        char buffer[64];
        const size_t length = strftime(buffer, sizeof(buffer), "%Y-%m-%dT%H:%M:%S%z", &value);
        std::string text(buffer, length);
        benchmark::DoNotOptimize(text);
    }
}

} // namespace

BENCHMARK(Parse_TesseraFraction);
BENCHMARK(Parse_PocoFraction);
BENCHMARK(Parse_TesseraPlain);
BENCHMARK(Parse_PocoPlain);
BENCHMARK(Parse_Strptime);
BENCHMARK(Format_TesseraFraction);
BENCHMARK(Format_PocoFraction);
BENCHMARK(Format_TesseraPlain);
BENCHMARK(Format_PocoPlain);
BENCHMARK(Format_Strftime);
