// Performance counters against what a service would write by hand:
//
//   MeterSample_Lw*      one sample into a lightweight meter held by a Ref to
//                        its class, and through the base class (a virtual
//                        call), against a plain struct updating the same five
//                        statistics inline
//   MeterSample_Locked*  one sample into a MeterAccumulator against the same
//                        struct under a std::mutex; 1 and 2 threads on one object
//   CounterQuery_*       a pattern query picking 1,000 of 10,000 published
//                        meters, against a loop over a vector of the same
//                        meters matching the same expression
//   CounterExposition_*  the Prometheus text of 10,000 meters (snapshot of the
//                        registry and WritePrometheusText) against the same
//                        text written with snprintf into one string from a
//                        vector whose metric names were sanitised beforehand

#include <tessera/perfCounter/accumulators.h>
#include <tessera/perfCounter/exposition.h>
#include <tessera/perfCounter/registry.h>

#include <benchmark/benchmark.h>
#include <boost/regex.hpp>

#include <cinttypes>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

namespace TesseraBench {
namespace {

using namespace Tessera;
using namespace Tessera::PerfCounter;

// The five statistics as anyone would keep them.
struct PlainMeter {
    std::int64_t total = 0, numSamples = 0, min = 0, max = 0, mean = 0;
    void Sample(std::int64_t v) {
        ++numSamples;
        total += v;
        if (numSamples == 1) {
            min = max = mean = v;
        } else {
            if (v < min) min = v;
            if (v > max) max = v;
            mean = total / numSamples;
        }
    }
};

struct LockedPlainMeter {
    std::mutex lock;
    PlainMeter meter;
};

// How a thread holds its own meter: a Ref to the meter's class. Sample is
// final there, so the call is bound statically.
void MeterSample_LwMeterAccumulator(benchmark::State& state) {
    Ref<LwMeterAccumulator> meter(new LwMeterAccumulator);
    benchmark::DoNotOptimize(meter.Get());
    std::int64_t v = 0;
    for (auto _ : state) {
        meter->Sample((++v & 1023) - 512);
        benchmark::ClobberMemory();
    }
}

// Through the base class, as a map of mixed kinds reaches it: a virtual call.
void MeterSample_LwMeterAccumulatorThroughBase(benchmark::State& state) {
    Ref<LwAccumulator> meter(new LwMeterAccumulator);
    LwAccumulator* target = meter.Get();
    benchmark::DoNotOptimize(target);
    std::int64_t v = 0;
    for (auto _ : state) {
        target->Sample((++v & 1023) - 512);
        benchmark::ClobberMemory();
    }
}

void MeterSample_LwPlainStruct(benchmark::State& state) {
    auto* meter = new PlainMeter;
    benchmark::DoNotOptimize(meter);
    std::int64_t v = 0;
    for (auto _ : state) {
        meter->Sample((++v & 1023) - 512);
        benchmark::ClobberMemory();
    }
    delete meter;
}

Ref<MeterAccumulator> sLocked;
LockedPlainMeter* sPlain = nullptr;

void MeterSample_LockedMeterAccumulator(benchmark::State& state) {
    if (state.thread_index() == 0) sLocked = new MeterAccumulator(nullptr, "Bench/Locked");
    std::int64_t v = 0;
    for (auto _ : state) {
        sLocked->Sample((++v & 1023) - 512);
    }
    if (state.thread_index() == 0) sLocked = nullptr;
}

void MeterSample_LockedPlainStructStdMutex(benchmark::State& state) {
    if (state.thread_index() == 0) sPlain = new LockedPlainMeter;
    std::int64_t v = 0;
    for (auto _ : state) {
        std::lock_guard<std::mutex> hold(sPlain->lock);
        sPlain->meter.Sample((++v & 1023) - 512);
    }
    if (state.thread_index() == 0) {
        delete sPlain;
        sPlain = nullptr;
    }
}

constexpr int kCounters = 10000;

std::string CounterName(int i) {
    return "Service" + std::to_string(i / 1000) + "/Request" + std::to_string(i) + "Time";
}

struct Published {
    Ref<Registry> registry;
    std::vector<Ref<MeterAccumulator>> meters;
    Published() {
        CreateCounterRegistry(registry);
        for (int i = 0; i < kCounters; ++i) {
            Ref<MeterAccumulator> m(new MeterAccumulator(registry.Get(), CounterName(i)));
            for (int s = 0; s < 3; ++s) m->Sample(i * 3 + s);
            m->Publish();
            meters.push_back(m);
        }
    }
    ~Published() {
        for (auto& m : meters) m->Unpublish();
    }
};

struct HandMeter {
    std::string name;
    std::string metric; // sanitised beforehand
    PlainMeter meter;
};

std::vector<HandMeter> HandMeters() {
    std::vector<HandMeter> out;
    for (int i = 0; i < kCounters; ++i) {
        HandMeter h{CounterName(i), SanitizeMetricName(CounterName(i)), PlainMeter()};
        for (int s = 0; s < 3; ++s) h.meter.Sample(i * 3 + s);
        out.push_back(h);
    }
    return out;
}

const char kPattern[] = "Service3/.*";

void CounterQuery_TesseraPattern(benchmark::State& state) {
    Published published;
    for (auto _ : state) {
        CounterValues values;
        published.registry->QueryPattern(kPattern, values);
        benchmark::DoNotOptimize(values.data());
        if (values.size() != 5000) state.SkipWithError("wrong match count");
    }
}

void CounterQuery_HandLoopRegex(benchmark::State& state) {
    const std::vector<HandMeter> meters = HandMeters();
    for (auto _ : state) {
        const boost::regex expression(kPattern, boost::regex::perl);
        CounterValues values;
        for (const HandMeter& h : meters) {
            if (!boost::regex_match(h.name, expression)) continue;
            const std::int64_t v[] = {h.meter.total, h.meter.numSamples, h.meter.min, h.meter.max,
                                      h.meter.mean};
            for (int s = 0; s < 5; ++s) values.push_back({h.name, Meter::CounterNames[s], v[s]});
        }
        benchmark::DoNotOptimize(values.data());
        if (values.size() != 5000) state.SkipWithError("wrong match count");
    }
}

void CounterExposition_Tessera(benchmark::State& state) {
    Published published;
    std::size_t size = 0;
    for (auto _ : state) {
        CounterValues values;
        published.registry->Snapshot(values);
        std::string text;
        WritePrometheusText(values, text);
        size = text.size();
        benchmark::DoNotOptimize(text.data());
    }
    state.counters["bytes"] = static_cast<double>(size);
}

void CounterExposition_HandSnprintf(benchmark::State& state) {
    const std::vector<HandMeter> meters = HandMeters();
    std::size_t size = 0;
    for (auto _ : state) {
        std::string text;
        text.reserve(static_cast<std::size_t>(kCounters) * 500);
        char line[512];
        for (const HandMeter& h : meters) {
            const char* m = h.metric.c_str();
            int n = std::snprintf(line, sizeof(line), "# HELP %s %s\n# TYPE %s gauge\n", m,
                                  h.name.c_str(), m);
            text.append(line, static_cast<std::size_t>(n));
            const std::int64_t v[] = {h.meter.total, h.meter.numSamples, h.meter.min, h.meter.max,
                                      h.meter.mean};
            for (int s = 0; s < 5; ++s) {
                n = std::snprintf(line, sizeof(line), "%s{statistic=\"%s\"} %" PRId64 "\n", m,
                                  Meter::CounterNames[s], v[s]);
                text.append(line, static_cast<std::size_t>(n));
            }
        }
        size = text.size();
        benchmark::DoNotOptimize(text.data());
    }
    state.counters["bytes"] = static_cast<double>(size);
}

} // namespace

BENCHMARK(MeterSample_LwMeterAccumulator);
BENCHMARK(MeterSample_LwMeterAccumulatorThroughBase);
BENCHMARK(MeterSample_LwPlainStruct);
BENCHMARK(MeterSample_LockedMeterAccumulator)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(MeterSample_LockedPlainStructStdMutex)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(CounterQuery_TesseraPattern)->Unit(benchmark::kMicrosecond);
BENCHMARK(CounterQuery_HandLoopRegex)->Unit(benchmark::kMicrosecond);
BENCHMARK(CounterExposition_Tessera)->Unit(benchmark::kMicrosecond);
BENCHMARK(CounterExposition_HandSnprintf)->Unit(benchmark::kMicrosecond);

} // namespace TesseraBench
