// Counter values as text that monitoring systems read.
//
// The Prometheus text exposition format (version 0.0.4): one gauge family per
// counter, its statistics told apart by the label "statistic", the counter's
// own name as the help text:
//
//     # HELP tessera_http_request_time Http/RequestTime
//     # TYPE tessera_http_request_time gauge
//     tessera_http_request_time{statistic="total"} 6
//     tessera_http_request_time{statistic="numSamples"} 3
//     ...
//
// Metric names are made from counter names by SanitizeMetricName. When two
// counters come out with one metric name, they share the family and a second
// label, counter="<name>", tells them apart.
//
// The JSON form is one object keyed by counter name, each an object of its
// statistics, in the order of the values given:
//
//     {"Http/RequestTime":{"total":6,"numSamples":3,"min":-3,"max":5,"mean":2}}
//
//     Tessera::PerfCounter::CounterValues values;
//     Tessera::PerfCounter::GetCounterRegistry()->Snapshot(values);
//     std::string text;
//     Tessera::PerfCounter::WritePrometheusText(values, text);
#pragma once

#include <tessera/api.h>
#include <tessera/perfCounter/meter.h>

#include <string>

namespace Tessera {
namespace PerfCounter {

// "<prefix>_" and the counter name in snake case: parts of camel case split
// ("RequestTime" to "request_time", "HTTPServer" to "http_server"), letters in
// lower case, every run of other characters one '_'. A name that would end in
// a suffix Prometheus keeps for other metric types ("_total", "_count",
// "_sum", "_bucket") gets "_value" after it. `prefix` must itself be a valid
// metric name.
TESSERA_EXPORT std::string SanitizeMetricName(const std::string& name,
                                              const std::string& prefix = "tessera");

// Appends the exposition of `values` (grouped by counter name, as the
// registry's queries give them) to `out`.
TESSERA_EXPORT void WritePrometheusText(const CounterValues& values, std::string& out,
                                        const std::string& prefix = "tessera");

// Appends the JSON object of `values` to `out`.
TESSERA_EXPORT void WriteJson(const CounterValues& values, std::string& out);

}  // namespace PerfCounter
}  // namespace Tessera
