// Counter values as Prometheus text and as JSON.

#include <tessera/perfCounter/accumulators.h>
#include <tessera/perfCounter/exposition.h>

#include "tests/perfCounter/expositionSample.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>

using namespace Tessera;
using namespace Tessera::PerfCounter;

TEST(Exposition, MetricNamesFollowThePrometheusRules) {
    EXPECT_EQ(SanitizeMetricName("Http/RequestTime"), "tessera_http_request_time");
    EXPECT_EQ(SanitizeMetricName("ThreadPool/IOThreads"), "tessera_thread_pool_io_threads");
    EXPECT_EQ(SanitizeMetricName("HTTPServer/Open2Close"), "tessera_http_server_open2_close");
    EXPECT_EQ(SanitizeMetricName("a b--c//d.e"), "tessera_a_b_c_d_e");
    EXPECT_EQ(SanitizeMetricName("Caf\xc3\xa9/Orders"), "tessera_caf_orders");
    EXPECT_EQ(SanitizeMetricName("9Lives", ""), "_9_lives");
    EXPECT_EQ(SanitizeMetricName("//", ""), "_");
    EXPECT_EQ(SanitizeMetricName("Jobs/Total"), "tessera_jobs_total_value");
    EXPECT_EQ(SanitizeMetricName("Http/RequestCount"), "tessera_http_request_count_value");
    EXPECT_EQ(SanitizeMetricName("Queue/Length", "svc"), "svc_queue_length");
}

TEST(Exposition, MetersBecomeGaugeFamiliesWithHelpAndType) {
    CounterValues values;
    Meter m;
    for (std::int64_t v : {5, -3, 4}) m.Sample(v);
    m.AppendValues("Http/RequestTime", values);
    values.push_back({"Queue/Length", "value", 7});
    // Two counters that come out under one metric name share the family.
    values.push_back({"a.b", "value", 1});
    values.push_back({"A/B", "value", 2});
    values.push_back({"Odd\"Name\\\n", "value", -1});
    values.push_back({"a/b", "value", 3});  // later, still in the family of a.b
    values.push_back({"Extremes", "min", INT64_MIN});
    values.push_back({"Extremes", "max", INT64_MAX});
    std::string text;
    WritePrometheusText(values, text);
    EXPECT_EQ(text,
              "# HELP tessera_http_request_time Http/RequestTime\n"
              "# TYPE tessera_http_request_time gauge\n"
              "tessera_http_request_time{statistic=\"total\"} 6\n"
              "tessera_http_request_time{statistic=\"numSamples\"} 3\n"
              "tessera_http_request_time{statistic=\"min\"} -3\n"
              "tessera_http_request_time{statistic=\"max\"} 5\n"
              "tessera_http_request_time{statistic=\"mean\"} 2\n"
              "# HELP tessera_queue_length Queue/Length\n"
              "# TYPE tessera_queue_length gauge\n"
              "tessera_queue_length{statistic=\"value\"} 7\n"
              "# HELP tessera_a_b a.b, A/B, a/b\n"
              "# TYPE tessera_a_b gauge\n"
              "tessera_a_b{counter=\"a.b\",statistic=\"value\"} 1\n"
              "tessera_a_b{counter=\"A/B\",statistic=\"value\"} 2\n"
              "tessera_a_b{counter=\"a/b\",statistic=\"value\"} 3\n"
              "# HELP tessera_odd_name Odd\"Name\\\\\\n\n"
              "# TYPE tessera_odd_name gauge\n"
              "tessera_odd_name{statistic=\"value\"} -1\n"
              "# HELP tessera_extremes Extremes\n"
              "# TYPE tessera_extremes gauge\n"
              "tessera_extremes{statistic=\"min\"} -9223372036854775808\n"
              "tessera_extremes{statistic=\"max\"} 9223372036854775807\n");

    std::string json;
    WriteJson(values, json);
    EXPECT_EQ(json,
              "{\"Http/RequestTime\":{\"total\":6,\"numSamples\":3,\"min\":-3,\"max\":5,"
              "\"mean\":2},\"Queue/Length\":{\"value\":7},\"a.b\":{\"value\":1},"
              "\"A/B\":{\"value\":2},\"Odd\\\"Name\\\\\\u000a\":{\"value\":-1},"
              "\"a/b\":{\"value\":3},\"Extremes\":{\"min\":-9223372036854775808,"
              "\"max\":9223372036854775807}}");
    json.clear();
    WriteJson(CounterValues(), json);
    EXPECT_EQ(json, "{}");
    text.clear();
    WritePrometheusText(CounterValues(), text);
    EXPECT_EQ(text, "");
}

// The exposition of a registry like a service's, written where the
// promtool check (tests/posix) reads it; on every leg the file must be whole.
TEST(Exposition, SampleRegistryIsWrittenOut) {
    std::string text;
    ExpositionSample::Write(text);
    const std::string path = ExpositionSample::Path();
    std::FILE* out = std::fopen(path.c_str(), "wb");
    ASSERT_NE(out, nullptr) << path;
    EXPECT_EQ(std::fwrite(text.data(), 1, text.size(), out), text.size());
    EXPECT_EQ(std::fclose(out), 0);
    EXPECT_NE(text.find("# TYPE tessera_log_manager_records_written_error gauge\n"),
              std::string::npos);
    EXPECT_NE(text.find("tessera_svc_latency{statistic=\"p99\"} 99\n"), std::string::npos);
}
