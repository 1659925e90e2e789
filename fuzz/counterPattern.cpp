// Counter queries by pattern, as a monitoring request would send them, and
// the exposition of what they pick: any text either is refused with
// InvalidArgumentException naming the pattern, or picks exactly the counters
// whose whole names match it; the Prometheus names made from any text are
// valid metric names, and the JSON of any values is balanced.

#include "fuzz/fuzzCheck.h"

#include <tessera/exception.h>
#include <tessera/perfCounter/exposition.h>
#include <tessera/perfCounter/registry.h>

#include <boost/regex.hpp>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

using namespace Tessera;
using namespace Tessera::PerfCounter;

namespace {

const char* const kNames[] = {"Http/RequestTime",
                              "Http/RequestSize",
                              "ThreadPool/IOThreads",
                              "ThreadPool/WorkQueueSize",
                              "LogManager/RecordsWritten/error",
                              "a",
                              "A/b.c",
                              "Caf\xc3\xa9/Orders"};

Registry* Sample() {
    static Registry* registry = [] {
        Ref<Registry> made;
        CreateCounterRegistry(made);
        std::int64_t value = 0;
        for (const char* name : kNames) {
            Ref<Accumulator> gauge;
            const std::int64_t v = value++;
            CreateGauge([v] { return v; }, gauge);
            made->Publish(name, gauge);
        }
        return made.Detach();
    }();
    return registry;
}

bool IsMetricName(const std::string& name) {
    if (name.empty()) return false;
    for (std::size_t i = 0; i < name.size(); ++i) {
        const char c = name[i];
        const bool letter =
            (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == ':';
        if (!letter && !(i > 0 && c >= '0' && c <= '9')) return false;
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    FUZZ_CHECK(IsMetricName(SanitizeMetricName(text)));
    FUZZ_CHECK(IsMetricName(SanitizeMetricName(text, "")));

    CounterValues values;
    try {
        Sample()->QueryPattern(text, values);
    } catch (const InvalidArgumentException& e) {
        // what() is a C string: a pattern with a NUL shows up to its first NUL.
        const std::string shown = text.substr(0, text.find('\0'));
        FUZZ_CHECK(std::string(e.what()).find("'" + shown) != std::string::npos);
        return 0;
    }
    const boost::regex expression(text, boost::regex::perl);
    std::vector<std::string> expected;
    for (const char* name : kNames) {
        if (boost::regex_match(std::string(name), expression)) expected.push_back(name);
    }
    std::vector<std::string> got;
    for (const CounterValue& v : values) got.push_back(v.name);
    std::sort(expected.begin(), expected.end());
    FUZZ_CHECK(got == expected);

    values.push_back({text, text, -1});
    std::string exposition, json;
    WritePrometheusText(values, exposition);
    WriteJson(values, json);
    FUZZ_CHECK(!json.empty() && json.front() == '{' && json.back() == '}');
    return 0;
}
