// The counter registry, the locked accumulators and reading them back.

#include <tessera/exception.h>
#include <tessera/formatter.h>
#include <tessera/logger.h>
#include <tessera/perfCounter/accumulators.h>
#include <tessera/perfCounter/registry.h>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

using namespace Tessera;
using namespace Tessera::PerfCounter;

namespace {

Ref<Registry> NewRegistry() {
    Ref<Registry> registry;
    CreateCounterRegistry(registry);
    return registry;
}

Ref<Accumulator> Gauge(std::int64_t value) {
    Ref<Accumulator> gauge;
    CreateGauge([value] { return value; }, gauge);
    return gauge;
}

std::string Describe(const CounterValues& values) {
    std::string text;
    for (const CounterValue& v : values) {
        text += v.name + "." + v.statistic + "=" + std::to_string(v.value) + " ";
    }
    return text;
}

std::string MessageOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "(nothing thrown)";
}

} // namespace

// ---- names, queries, groups ----

TEST(CounterRegistry, PublishesQueriesAndUnpublishesByNameAndPattern) {
    Ref<Registry> registry = NewRegistry();
    registry->Publish("Http/RequestCount", Gauge(12));
    Ref<MeterAccumulator> time(new MeterAccumulator(registry.Get(), "Http/RequestTime"));
    for (std::int64_t v : {5, -3, 4}) time->Sample(v);
    time->Publish();
    time->Publish(); // again: nothing
    registry->Publish("Journal/Entries", Gauge(3));

    CounterValues values;
    registry->Query("Http/RequestTime", values);
    EXPECT_EQ(Describe(values),
              "Http/RequestTime.total=6 Http/RequestTime.numSamples=3 Http/RequestTime.min=-3 "
              "Http/RequestTime.max=5 Http/RequestTime.mean=2 ");
    values.clear();
    registry->QueryPattern("Http/.*", values);
    EXPECT_EQ(values.size(), 6u);
    EXPECT_EQ(values[0].name, "Http/RequestCount"); // name order
    EXPECT_EQ(values[0].statistic, "value");
    EXPECT_EQ(values[0].value, 12);
    values.clear();
    registry->QueryPattern("Http", values); // the whole name must match
    EXPECT_TRUE(values.empty());
    registry->QueryPattern(".*Entries|.*Count", values);
    EXPECT_EQ(Describe(values), "Http/RequestCount.value=12 Journal/Entries.value=3 ");

    // Hidden statistics are left out of queries, but a meter accessor sees them.
    time->SetCounterVisible(Meter::MIN, false);
    time->SetCounterVisible(Meter::MAX, false);
    time->SetCounterVisible(Meter::MAX, true);
    EXPECT_FALSE(time->IsCounterVisible(Meter::MIN));
    values.clear();
    registry->Query("Http/RequestTime", values);
    EXPECT_EQ(values.size(), 4u);
    EXPECT_EQ(values[2].statistic, "max");
    const Meter read = MeterAccessor(registry.Get(), "Http/RequestTime").Read();
    EXPECT_TRUE(read.Equals(Meter(6, 3, -3, 5)));

    // Failures: unknown names, non-meters, bad names, taken names, bad patterns.
    EXPECT_EQ(MessageOf([&] { registry->Query("Http/Nothing", values); }),
              "Object not found: Counter 'Http/Nothing'");
    EXPECT_THROW(MeterAccessor(registry.Get(), "Http/Nothing").Read(), NotFoundException);
    EXPECT_THROW(MeterAccessor(registry.Get(), "Journal/Entries").Read(), TypeMismatchException);
    Meter untouched(77);
    EXPECT_FALSE(MeterAccessor(registry.Get(), "Journal/Entries").TryRead(untouched));
    EXPECT_EQ(untouched.GetTotal(), 77);
    for (const char* bad : {"", "/A", "A/", "A//B", "A\nB"}) {
        EXPECT_THROW(registry->Publish(bad, Gauge(1)), InvalidArgumentException) << bad;
    }
    EXPECT_EQ(MessageOf([&] { registry->Publish("Journal/Entries", Gauge(1)); }),
              "Already exists: Counter 'Journal/Entries'");
    EXPECT_EQ(MessageOf([&] {
                  registry->QueryPattern("Http/(", values);
              }).rfind("Invalid argument : Bad counter pattern 'Http/(': ", 0),
              0u);

    // A pattern whose matching explodes is refused, not left to run.
    registry->Publish("xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx/Q", Gauge(1));
    EXPECT_EQ(MessageOf([&] {
                  registry->QueryPattern("(x+x+)+y", values);
              }).rfind("Invalid argument : Counter pattern '(x+x+)+y' too complex: ", 0),
              0u);
    registry->Unpublish("xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx/Q");

    // Long patterns are refused: the matcher's effort grows with the square of
    // their size (a fuzzed one of 303 bytes took seconds to be given up on).
    const std::string longest = "Http/RequestTime|" + std::string(111, 'x');
    ASSERT_EQ(longest.size(), 128u);
    EXPECT_NO_THROW(registry->QueryPattern(longest, values));
    EXPECT_EQ(MessageOf([&] { registry->QueryPattern(longest + "y", values); }),
              "Invalid argument : Counter pattern '" + longest + "y' too long (over 128 bytes)");

    // A pattern that costs milliseconds a name without tripping the matcher's
    // own bound (found by fuzzing: 3.5 ms a name in a release build) is
    // stopped by the query's time budget, not run over every name.
    {
        const std::string slow =
            "T*\\H*t*t*\\H*+#*I*+t*\\H*\\H*\\H*+#*I*+t*\\t*\\H*\\H*\\H*+#*"
            "I*+t*\\H*\\H#I*+te*\\H*\\H*+#*I*+t*\\H*+\\*+" +
            std::string(24, '#');
        Ref<Registry> many;
        CreateCounterRegistry(many);
        for (int i = 0; i < 1000; ++i) {
            many->Publish(MessageFormatter::ASPrint("Service/Group%1/Counter%2", i / 100, i),
                          Gauge(i));
        }
        CounterValues none;
        EXPECT_EQ(MessageOf([&] { many->QueryPattern(slow, none); }),
                  "Invalid argument : Counter pattern '" + slow +
                      "' too complex: matching took over 200 ms");
        EXPECT_TRUE(none.empty());
        many->QueryPattern("Service/Group9/.*", none);
        EXPECT_EQ(none.size(), 100u);
    }

    // Patterns that refer back to themselves are refused before matching: the
    // matcher spent seconds on some of a few dozen bytes (the last two came
    // from fuzzing). Look-alikes that are literal or flags still match.
    for (const std::string& bad : std::vector<std::string>{
             "(Http)/\\1", "(?R)", "(?1)", "H(?-1)", "(?&n)", "(?<n>H)(?P>n)", "(?P<n>H)(?P=n)",
             "(H)\\g{1}", "(?<n>H)\\k<n>", ".*(0X~\\?)*(?0)\\X\\~-",
             std::string(".*(?0)\\(.+CX~t\0\0", 16)}) {
        // The message is a C string: it ends at the pattern's first NUL.
        const std::string message = "Invalid argument : Counter pattern '" + bad +
                                    "' refers back to itself (back-references and recursion "
                                    "are not supported)";
        EXPECT_EQ(MessageOf([&] { registry->QueryPattern(bad, values); }), message.c_str()) << bad;
    }
    for (const char* fine : {"(?i)HTTP/REQUESTTIME", "\\Q(?R)\\E|Http/RequestTime",
                             "Http/[(?R)]*RequestTime", "(?:Http)/Request(?-i)Time"}) {
        CounterValues picked;
        registry->QueryPattern(fine, picked);
        ASSERT_FALSE(picked.empty()) << fine;
        EXPECT_EQ(picked.front().name, "Http/RequestTime") << fine;
    }

    // Unpublishing.
    time->Unpublish();
    EXPECT_FALSE(time->IsPublished());
    EXPECT_FALSE(registry->IsPublished("Http/RequestTime"));
    time->Unpublish(); // again: nothing
    EXPECT_TRUE(registry->Unpublish("Journal/Entries"));
    EXPECT_FALSE(registry->Unpublish("Journal/Entries"));
    std::vector<std::string> names;
    registry->GetNames(names);
    EXPECT_EQ(names, std::vector<std::string>{"Http/RequestCount"});
    // Sampling goes on unpublished; publishing again shows the figures so far.
    time->Sample(10);
    time->Publish();
    EXPECT_EQ(MeterAccessor(registry.Get(), "Http/RequestTime").Read().GetNumSamples(), 4);
    time->Unpublish();
}

TEST(CounterRegistry, GroupsArePublishedAndUnpublishedWhole) {
    Ref<Registry> registry = NewRegistry();
    std::atomic<int> reads{0};
    std::int64_t queue = 4;
    registry->PublishGauges("ThreadPool", {{"WorkQueueSize",
                                            [&] {
                                                ++reads;
                                                return queue;
                                            }},
                                           {"RunningThreads", [] { return std::int64_t(2); }}});
    registry->Publish("ThreadPoolExtra/Size", Gauge(1)); // shares the text, not the group
    registry->Publish("ThreadPool", Gauge(9)); // the group's own name is no member
    EXPECT_EQ(reads.load(), 0); // read only when asked
    queue = 6;
    CounterValues values;
    registry->QueryPattern("ThreadPool/.*", values);
    EXPECT_EQ(Describe(values),
              "ThreadPool/RunningThreads.value=2 "
              "ThreadPool/WorkQueueSize.value=6 ");
    EXPECT_EQ(reads.load(), 1);

    // All or nothing: one taken name, or a name twice, publishes none.
    EXPECT_THROW(registry->PublishGroup("ThreadPool",
                                        {{"IOThreads", Gauge(1)}, {"WorkQueueSize", Gauge(1)}}),
                 AlreadyExistsException);
    EXPECT_THROW(registry->PublishGroup("Cache", {{"Hits", Gauge(1)}, {"Hits", Gauge(1)}}),
                 AlreadyExistsException);
    EXPECT_THROW(registry->PublishGroup("Cache", {{"Hits", Gauge(1)}, {"", Gauge(1)}}),
                 InvalidArgumentException);
    EXPECT_FALSE(registry->IsPublished("ThreadPool/IOThreads"));
    EXPECT_FALSE(registry->IsPublished("Cache/Hits"));

    EXPECT_EQ(registry->UnpublishGroup("ThreadPool"), 2u);
    std::vector<std::string> names;
    registry->GetNames(names);
    EXPECT_EQ(names, (std::vector<std::string>{"ThreadPool", "ThreadPoolExtra/Size"}));
    EXPECT_EQ(registry->UnpublishGroup("ThreadPool"), 0u);
    // Groups nest: the outer group takes the inner ones with it.
    registry->PublishGauges("Svc/Http", {{"Open", [] { return std::int64_t(1); }}});
    registry->PublishGauges("Svc", {{"Up", [] { return std::int64_t(1); }}});
    EXPECT_EQ(registry->UnpublishGroup("Svc"), 2u);
}

TEST(CounterRegistry, TheLogManagerPublishesRecordsPerLevel) {
    // The manager is made by the first logger; the test binary has made it.
    Ref<Service::Logger> logger;
    Service::GetDefaultLogger(logger);
    CounterValues before;
    GetCounterRegistry()->QueryPattern("LogManager/RecordsWritten/.*", before);
    ASSERT_EQ(before.size(), 7u);
    EXPECT_EQ(before[6].name, "LogManager/RecordsWritten/warning");
    Ref<Service::Logger> quiet;
    logger->CreateLogger("countersTest", Service::Logger::MASK_WARNING, quiet);
    TESSERA_LOG(quiet, Service::Logger::LOG_WARNING, "not counted: no writer yet");
    Ref<Writer> sink(new NullWriter);
    Service::LogManager::AddWriter("countersTest", sink, Service::Logger::MASK_TRIVIA);
    TESSERA_LOG(quiet, Service::Logger::LOG_WARNING, "counted");
    TESSERA_LOG(quiet, Service::Logger::LOG_WARNING, "counted");
    TESSERA_LOG(quiet, Service::Logger::LOG_INFO, "not written: below the logger's level");
    Service::LogManager::RemoveWriter("countersTest");
    CounterValues after;
    GetCounterRegistry()->QueryPattern("LogManager/RecordsWritten/(warning|info)", after);
    ASSERT_EQ(after.size(), 2u);
    EXPECT_EQ(after[0].value, before[1].value); // info
    EXPECT_EQ(after[1].value, before[6].value + 2);
}

// ---- per-thread builders and the published map ----

TEST(PublishedAccumulatorMap, BuildersMergeIntoThePublishedGroup) {
    Ref<Registry> registry = NewRegistry();
    Ref<PublishedAccumulatorMap> map(
        new PublishedAccumulatorMap(registry.Get(), "Io", LwHistoryMeterAccumulator(4)));
    PublishedAccumulatorMap::Builder a(map->GetPrototype()), b(map->GetPrototype());
    a.Sample("Read", 10);
    a.Sample("Read", 20);
    b.Sample("Read", 30);
    b.Sample("Write", 5);
    map->Merge(a);
    EXPECT_TRUE(a.IsEmpty());
    EXPECT_FALSE(registry->IsPublished("Io/Read")); // not published yet
    map->Publish();
    map->Merge(b); // "Write" is new: published as it comes
    EXPECT_TRUE(registry->IsPublished("Io/Write"));
    CounterValues values;
    registry->Query("Io/Read", values);
    ASSERT_EQ(values.size(), 8u);
    EXPECT_EQ(values[0].value, 60); // total
    EXPECT_EQ(values[1].value, 3); // numSamples
    EXPECT_EQ(values[5].statistic, "p50");
    EXPECT_EQ(values[5].value, 20);
    EXPECT_TRUE(MeterAccessor(registry.Get(), "Io/Read").Read().Equals(Meter(60, 3, 10, 30)));
    Ref<PublishedAccumulator> write;
    map->Get("Write", write);
    write->Sample(7); // a published accumulator may also be sampled directly
    EXPECT_EQ(MeterAccessor(registry.Get(), "Io/Write").Read().GetTotal(), 12);
    EXPECT_THROW(map->Get("Seek", write), NotFoundException);

    // A builder of another kind is refused whole.
    PublishedAccumulatorMap::Builder counters{LwCounter()};
    counters.Sample("Read", 1);
    EXPECT_THROW(map->Merge(counters), std::bad_cast);
    EXPECT_EQ(MeterAccessor(registry.Get(), "Io/Read").Read().GetNumSamples(), 3);

    map->Unpublish();
    std::vector<std::string> names;
    registry->GetNames(names);
    EXPECT_TRUE(names.empty());
    map->GetNames(names);
    EXPECT_EQ(names, (std::vector<std::string>{"Read", "Write"}));

    // Counters through a map: totals only.
    Ref<PublishedAccumulatorMap> jobs(
        new PublishedAccumulatorMap(registry.Get(), "Jobs", LwCounter()));
    jobs->Publish();
    PublishedAccumulatorMap::Builder done(jobs->GetPrototype());
    done.Get("Done").Sample(3);
    done.Sample("Done", 4);
    jobs->Merge(done);
    values.clear();
    registry->Query("Jobs/Done", values);
    EXPECT_EQ(Describe(values), "Jobs/Done.total=7 ");
    jobs->Unpublish();
}

// ---- threads ----

// Eight threads sample one shared meter; eight others each fill builders of
// their own and merge them now and then. Every total and count is exact.
TEST(CounterConcurrency, SharedMeterAndMergedBuildersCountExactly) {
    constexpr int kThreads = 8;
    constexpr int kSamples = 20000;
    Ref<Registry> registry = NewRegistry();
    Ref<MeterAccumulator> shared(new MeterAccumulator(registry.Get(), "Shared/Meter"));
    shared->Publish();
    Ref<PublishedAccumulatorMap> map(
        new PublishedAccumulatorMap(registry.Get(), "Built", LwMeterAccumulator()));
    map->Publish();
    std::atomic<bool> done{false};
    std::thread reader([&] { // queries while the figures move
        while (!done.load()) {
            CounterValues values;
            registry->QueryPattern(".*", values);
            for (std::size_t i = 0; i + 4 < values.size(); i += 5) {
                // min <= mean <= max within one accumulator's reading
                if (values[i + 1].value > 0) {
                    EXPECT_LE(values[i + 2].value, values[i + 4].value);
                    EXPECT_LE(values[i + 4].value, values[i + 3].value);
                }
            }
        }
    });
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 1; i <= kSamples; ++i) shared->Sample(t * kSamples + i);
        });
        threads.emplace_back([&, t] {
            PublishedAccumulatorMap::Builder builder(map->GetPrototype());
            for (int i = 1; i <= kSamples; ++i) {
                builder.Sample(i % 2 == 0 ? "Even" : "Odd", t * kSamples + i);
                if (i % 1000 == 0) map->Merge(builder);
            }
            map->Merge(builder);
        });
    }
    for (std::thread& t : threads) t.join();
    done = true;
    reader.join();

    const std::int64_t n = std::int64_t(kThreads) * kSamples;
    const std::int64_t sum = n * (n + 1) / 2; // every value 1..n exactly once
    const Meter m = shared->GetMeter();
    EXPECT_EQ(m.GetNumSamples(), n);
    EXPECT_EQ(m.GetTotal(), sum);
    EXPECT_EQ(m.GetMin(), 1);
    EXPECT_EQ(m.GetMax(), n);
    EXPECT_EQ(m.GetMean(), sum / n);
    const Meter even = MeterAccessor(registry.Get(), "Built/Even").Read();
    const Meter odd = MeterAccessor(registry.Get(), "Built/Odd").Read();
    EXPECT_EQ(even.GetNumSamples() + odd.GetNumSamples(), n);
    EXPECT_EQ(even.GetTotal() + odd.GetTotal(), sum);
    EXPECT_EQ(odd.GetMin(), 1);
    EXPECT_EQ(even.GetMax(), n);
    EXPECT_EQ(even.GetTotal() - odd.GetTotal(), n / 2); // each even one above its odd
    shared->Unpublish();
    map->Unpublish();
}

// Queries run while other threads publish and unpublish whole groups: a query
// sees a group complete or not at all, and never a value of a wrong group.
TEST(CounterConcurrency, QueriesSeeGroupsWholeWhileOthersPublish) {
    Ref<Registry> registry = NewRegistry();
    constexpr int kPublishers = 4;
    std::atomic<bool> done{false};
    std::vector<std::thread> publishers;
    for (int p = 0; p < kPublishers; ++p) {
        publishers.emplace_back([&, p] {
            const std::string group = "Worker" + std::to_string(p);
            for (int round = 0; round < 300; ++round) {
                registry->PublishGauges(group, {{"A", [p] { return std::int64_t(p); }},
                                                {"B", [p] { return std::int64_t(p); }},
                                                {"C", [p] { return std::int64_t(p); }}});
                Ref<MeterAccumulator> meter(
                    new MeterAccumulator(registry.Get(), group + "Meter/M"));
                meter->Publish();
                meter->Sample(round);
                meter->Unpublish();
                EXPECT_EQ(registry->UnpublishGroup(group), 3u);
            }
        });
    }
    std::vector<std::thread> readers;
    std::atomic<long> seen{0};
    for (int r = 0; r < 2; ++r) {
        readers.emplace_back([&] {
            while (!done.load()) {
                CounterValues values;
                registry->QueryPattern("Worker\\d/[ABC]", values);
                int perGroup[kPublishers] = {0};
                for (const CounterValue& v : values) {
                    const int p = v.name[6] - '0';
                    ASSERT_EQ(v.value, p);
                    ++perGroup[p];
                }
                for (int count : perGroup) ASSERT_TRUE(count == 0 || count == 3);
                seen += static_cast<long>(values.size());
                values.clear();
                registry->Snapshot(values);
            }
        });
    }
    for (std::thread& t : publishers) t.join();
    done = true;
    for (std::thread& t : readers) t.join();
    std::vector<std::string> names;
    registry->GetNames(names);
    EXPECT_TRUE(names.empty());
}
