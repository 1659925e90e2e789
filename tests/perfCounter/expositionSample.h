// A registry with every kind of counter a service publishes, and its
// exposition: shared by the exposition tests and the promtool check.
#pragma once

#include <tessera/logger.h>
#include <tessera/perfCounter/accumulators.h>
#include <tessera/perfCounter/exposition.h>
#include <tessera/perfCounter/registry.h>

#include <gtest/gtest.h>

#include <string>

namespace ExpositionSample {

inline std::string Path() {
    return testing::TempDir() + "tessera-exposition.txt";
}

// The process registry (with the log manager's counters) and a registry of
// the sample's own, in one text.
inline void Write(std::string& text) {
    using namespace Tessera;
    using namespace Tessera::PerfCounter;
    Ref<Service::Logger> logger;  // the log manager comes with the first logger
    Service::GetDefaultLogger(logger);
    Ref<Registry> registry;
    CreateCounterRegistry(registry);
    Ref<MeterAccumulator> time(new MeterAccumulator(registry.Get(), "Http/RequestTime"));
    for (std::int64_t v : {120, 80, 4000}) time->Sample(v);
    time->Publish();
    registry->PublishGauges("ThreadPool", {{"IOThreads", [] { return std::int64_t(2); }},
                                           {"WorkQueueSize", [] { return std::int64_t(0); }}});
    Ref<PublishedAccumulatorMap> map(
        new PublishedAccumulatorMap(registry.Get(), "Svc", LwHistoryMeterAccumulator(0)));
    map->Publish();
    PublishedAccumulatorMap::Builder builder(map->GetPrototype());
    for (int i = 1; i <= 100; ++i) builder.Sample("Latency", i);
    map->Merge(builder);
    PublishedAccumulatorMap::Builder more(LwCounter(0));
    Ref<PublishedAccumulatorMap> jobs(
        new PublishedAccumulatorMap(registry.Get(), "Jobs", LwCounter()));
    jobs->Publish();
    more.Sample("Total", 5);
    more.Sample("Failed/Count", 1);
    jobs->Merge(more);

    CounterValues values;
    GetCounterRegistry()->Snapshot(values);
    registry->Snapshot(values);
    WritePrometheusText(values, text);
    time->Unpublish();
    map->Unpublish();
    jobs->Unpublish();
}

}  // namespace ExpositionSample
