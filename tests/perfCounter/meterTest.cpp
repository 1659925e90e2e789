// Meters and the lightweight accumulators: sampling, merging, the history.

#include <tessera/perfCounter/accumulators.h>
#include <tessera/perfCounter/meter.h>

#include <gtest/gtest.h>

#include <typeinfo>

using namespace Tessera;
using namespace Tessera::PerfCounter;

namespace {

Meter Sampled(std::initializer_list<std::int64_t> samples) {
    Meter m;
    for (std::int64_t v : samples) m.Sample(v);
    return m;
}

void ExpectMeter(const Meter& m, std::int64_t total, std::int64_t count, std::int64_t min,
                 std::int64_t max, std::int64_t mean) {
    EXPECT_EQ(m.GetTotal(), total);
    EXPECT_EQ(m.GetNumSamples(), count);
    EXPECT_EQ(m.GetMin(), min);
    EXPECT_EQ(m.GetMax(), max);
    EXPECT_EQ(m.GetMean(), mean);
}

}  // namespace

// ---- sampling: the five statistics, the mean truncated toward zero ----

TEST(Meter, SamplesFoldIntoFiveStatistics) {
    ExpectMeter(Sampled({5, -3, 4}), 6, 3, -3, 5, 2);
    ExpectMeter(Sampled({1, 2}), 3, 2, 1, 2, 1);
    ExpectMeter(Sampled({-1, -2}), -3, 2, -2, -1, -1);
    // The first sample replaces whatever the initial value set.
    ExpectMeter(Meter(100), 100, 0, 100, 100, 100);
    Meter seeded(100);
    seeded.Sample(7);
    ExpectMeter(seeded, 107, 1, 7, 7, 7);
    // The mean comes from the running total: an integer mean updated
    // incrementally (mean += (v - mean) / n) would stay at 1 here.
    ExpectMeter(Sampled({1, 2, 3}), 6, 3, 1, 3, 2);
    ExpectMeter(Sampled({-7, 0, 0, 0}), -7, 4, -7, 0, -1);
    EXPECT_TRUE(Sampled({5, -3, 4}).Equals(Meter(6, 3, -3, 5)));
    EXPECT_FALSE(Sampled({5, -3, 4}).Equals(Meter(6, 3, -3, 4)));
    ExpectMeter(Meter(7, 0, 1, 2), 7, 0, 1, 2, 0);

    LwCounter counter(10);
    counter.Sample(-4);
    counter.Sample(1);
    EXPECT_EQ(counter.GetTotal(), 7);
    counter.SetName("Jobs/Done");
    CounterValues values;
    counter.GetValues(values);
    ASSERT_EQ(values.size(), 1u);
    EXPECT_EQ(values[0].name, "Jobs/Done");
    EXPECT_EQ(values[0].statistic, "total");
    EXPECT_EQ(values[0].value, 7);

    LwMeterAccumulator meter;
    meter.SetName("Http/RequestTime");
    for (std::int64_t v : {5, -3, 4}) meter.Sample(v);
    values.clear();
    meter.GetValues(values);
    ASSERT_EQ(values.size(), 5u);
    const std::int64_t expected[] = {6, 3, -3, 5, 2};
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(values[i].name, "Http/RequestTime");
        EXPECT_EQ(values[i].statistic, Meter::CounterNames[i]);
        EXPECT_EQ(values[i].value, expected[i]);
    }
    std::string name = "Other";
    meter.SwapName(name);
    EXPECT_EQ(meter.GetName(), "Other");
    EXPECT_EQ(name, "Http/RequestTime");
}

// ---- merging ----

TEST(Meter, MergeAddsTotalsAndCountsAndKeepsExtremes) {
    LwMeterAccumulator a, b;
    for (std::int64_t v : {5, -3}) a.Sample(v);
    for (std::int64_t v : {4, 10, -1}) b.Sample(v);
    a.Merge(b);
    ExpectMeter(a.GetMeter(), 15, 5, -3, 10, 3);
    ExpectMeter(b.GetMeter(), 13, 3, -1, 10, 4);  // untouched

    // Empty into empty: no samples, the mean left alone.
    LwMeterAccumulator empty1, empty2;
    empty1.Merge(empty2);
    ExpectMeter(empty1.GetMeter(), 0, 0, 0, 0, 0);
    Meter withMean(5);
    withMean.Merge(Meter());
    EXPECT_EQ(withMean.GetNumSamples(), 0);
    EXPECT_EQ(withMean.GetMean(), 5);

    // A source without samples still brings its extremes into an empty meter,
    // but not into one that has samples.
    LwMeterAccumulator target;
    target.Merge(LwMeterAccumulator(0, 0, -8, 9));
    ExpectMeter(target.GetMeter(), 0, 0, -8, 9, 0);
    LwMeterAccumulator sampled;
    sampled.Sample(3);
    sampled.Merge(LwMeterAccumulator(0, 0, 1, 2));
    ExpectMeter(sampled.GetMeter(), 3, 1, 1, 3, 3);  // min 1 < 3 is taken; max 2 is not
    // Merging into an empty meter with samples on the other side.
    LwMeterAccumulator fresh;
    fresh.Merge(sampled);
    ExpectMeter(fresh.GetMeter(), 3, 1, 1, 3, 3);

    LwCounter c1(2), c2(40);
    c1.Merge(c2);
    EXPECT_EQ(c1.GetTotal(), 42);

    // Across classes: the bad-cast error, and nothing changed.
    LwMeterAccumulator meter;
    meter.Sample(1);
    EXPECT_THROW(meter.Merge(c2), std::bad_cast);
    EXPECT_THROW(c1.Merge(meter), std::bad_cast);
    LwHistoryMeterAccumulator history(4);
    EXPECT_THROW(history.Merge(meter), std::bad_cast);
    EXPECT_THROW(meter.Merge(history), std::bad_cast);
    ExpectMeter(meter.GetMeter(), 1, 1, 1, 1, 1);
    EXPECT_EQ(c1.GetTotal(), 42);
}

TEST(MeterDeathTest, MergingANegativeSampleCountStopsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            LwMeterAccumulator target;
            target.Merge(LwMeterAccumulator(5, -1, 0, 0));
        },
        "Assertion \"src->_numSamples >= 0\" failed at perfCounter/MeterAccumulator:");
}

// ---- the history and its percentiles ----

TEST(LwHistoryMeterAccumulator, KeepsTheMostRecentSamplesOrAllWithCapacityZero) {
    LwHistoryMeterAccumulator three(3);
    for (std::int64_t v : {1, 2, 3, 4}) three.Sample(v);
    std::vector<std::int64_t> history;
    three.GetHistory(history);
    EXPECT_EQ(history, (std::vector<std::int64_t>{2, 3, 4}));
    ExpectMeter(three.GetMeter(), 10, 4, 1, 4, 2);  // statistics cover every sample

    LwHistoryMeterAccumulator unbounded(0);
    for (int v = 0; v < 5000; ++v) unbounded.Sample(v);
    unbounded.GetHistory(history);
    ASSERT_EQ(history.size(), 5000u);
    EXPECT_EQ(history.front(), 0);
    EXPECT_EQ(history.back(), 4999);

    // Merging appends the other's samples as if they came later.
    LwHistoryMeterAccumulator other(3);
    for (std::int64_t v : {7, 8}) other.Sample(v);
    three.Merge(other);
    three.GetHistory(history);
    EXPECT_EQ(history, (std::vector<std::int64_t>{4, 7, 8}));
    ExpectMeter(three.GetMeter(), 25, 6, 1, 8, 4);
    three.Merge(three);  // with itself: its own samples again
    three.GetHistory(history);
    EXPECT_EQ(history, (std::vector<std::int64_t>{4, 7, 8}));
    EXPECT_EQ(three.GetNumSamples(), 12);

    // Nearest-rank percentiles over 1..100 shuffled.
    LwHistoryMeterAccumulator hundred(0);
    hundred.SetName("Latency");
    for (int i = 0; i < 100; ++i) hundred.Sample((i * 37) % 100 + 1);
    std::int64_t p = 0;
    ASSERT_TRUE(hundred.GetPercentile(50, p));
    EXPECT_EQ(p, 50);
    ASSERT_TRUE(hundred.GetPercentile(99, p));
    EXPECT_EQ(p, 99);
    ASSERT_TRUE(hundred.GetPercentile(100, p));
    EXPECT_EQ(p, 100);
    ASSERT_TRUE(hundred.GetPercentile(0.1, p));
    EXPECT_EQ(p, 1);
    EXPECT_FALSE(hundred.GetPercentile(0, p));
    EXPECT_FALSE(LwHistoryMeterAccumulator(3).GetPercentile(50, p));
    CounterValues values;
    hundred.GetValues(values);
    ASSERT_EQ(values.size(), 8u);
    EXPECT_EQ(values[5].statistic, "p50");
    EXPECT_EQ(values[5].value, 50);
    EXPECT_EQ(values[6].statistic, "p90");
    EXPECT_EQ(values[6].value, 90);
    EXPECT_EQ(values[7].statistic, "p99");
    EXPECT_EQ(values[7].value, 99);
    // One sample: every percentile is that sample.
    LwHistoryMeterAccumulator one(5);
    one.Sample(-4);
    values.clear();
    one.GetValues(values);
    ASSERT_EQ(values.size(), 8u);
    EXPECT_EQ(values[7].value, -4);
    // Empty: no percentiles.
    values.clear();
    LwHistoryMeterAccumulator(5).GetValues(values);
    EXPECT_EQ(values.size(), 5u);

    // An empty clone keeps the class, the name and the capacity.
    Ref<LwAccumulator> clone(three.CloneEmpty());
    auto* cloned = dynamic_cast<LwHistoryMeterAccumulator*>(clone.Get());
    ASSERT_NE(cloned, nullptr);
    EXPECT_EQ(cloned->GetCapacity(), 3u);
    EXPECT_EQ(cloned->GetNumSamples(), 0);
}
