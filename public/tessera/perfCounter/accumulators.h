// The locked accumulators that live in the registry, and reading them back.
//
// MeterAccumulator is a meter shared between threads: every thread samples it
// directly, and each sample takes the accumulator's own lock.
//
//     Ref<MeterAccumulator> requestTime(new MeterAccumulator(nullptr, "Http/RequestTime"));
//     requestTime->Publish();               // into GetCounterRegistry()
//     requestTime->Sample(elapsedMicros);   // from any thread
//
// PublishedAccumulatorMap is for figures sampled so often that even an
// uncontended lock is too much: each thread samples a Builder of its own,
// which takes no lock, and merges it into the published map when it chooses
// (after a batch of work, say). Only the merge takes locks.
//
//     PublishedAccumulatorMap::Builder sizes(map->GetPrototype());  // one per thread
//     sizes.Sample("Read", n);
//     map->Merge(sizes);     // folds and empties the builder
//
// MeterAccessor reads a published meter back by its name.
//
// Thread safety: MeterAccumulator, PublishedAccumulator and
// PublishedAccumulatorMap may be used from any thread. A Builder belongs to one
// thread at a time. MeterAccessor may be used from any thread.
#pragma once

#include <tessera/api.h>
#include <tessera/object.h>
#include <tessera/perfCounter/meter.h>
#include <tessera/perfCounter/registry.h>

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace Tessera {
namespace PerfCounter {

class TESSERA_EXPORT MeterAccumulator : public Meter,
                                        public ObjectImpl,
                                        public Accumulator,
                                        public GroupPublisher {
public:
    // Bound to `registry` (GetCounterRegistry() when null) under `name`;
    // empty, every statistic visible, not published.
    MeterAccumulator(Registry* registry, const std::string& name);
    // As above, starting from a total, a minimum and a maximum carried over
    // (from an earlier run, say) with no samples: the first sample replaces
    // the minimum and maximum, the total keeps growing from `total`.
    MeterAccumulator(Registry* registry, const std::string& name, std::int64_t total,
                     std::int64_t min, std::int64_t max);
    ~MeterAccumulator() override;

    // Meter::Sample and Meter::Merge under the lock.
    void Sample(std::int64_t value);
    void Merge(const Meter& other);
    // Another accumulator's meter, read under its lock.
    void Merge(const MeterAccumulator& other);
    // The five statistics at one moment.
    Meter GetMeter() const;
    // Each statistic under the lock (hiding Meter's unlocked reads).
    std::int64_t GetTotal() const;
    std::int64_t GetNumSamples() const;
    std::int64_t GetMin() const;
    std::int64_t GetMax() const;
    std::int64_t GetMean() const;

    // Whether a query sees `statistic`; all are visible at first.
    void SetCounterVisible(Statistic statistic, bool visible);
    bool IsCounterVisible(Statistic statistic) const;

    const std::string& GetName() const noexcept { return _name; }

    // GroupPublisher: the accumulator under its name in its registry.
    void Publish() override;
    void Unpublish() override;
    bool IsPublished() const override;

    // Accumulator:
    void CollectValues(const std::string& name, CounterValues& out) override;
    bool ReadMeter(Meter& out) override;

private:
    mutable std::mutex _lock;  // guards the statistics and the visibility
    unsigned _visible = (1u << NUM_STATISTICS) - 1;
    const std::string _name;
    Ref<Registry> _registry;
    mutable std::mutex _publishLock;  // orders Publish and Unpublish
    bool _published = false;
};

// One lightweight accumulator of any kind behind a lock, for the registry.
class TESSERA_EXPORT PublishedAccumulator : public ObjectImpl, public Accumulator {
public:
    // An empty accumulator of `prototype`'s class and settings.
    explicit PublishedAccumulator(const LwAccumulator& prototype);
    ~PublishedAccumulator() override;

    void Sample(std::int64_t value);
    // Folds `other` in; std::bad_cast when it is of another class.
    void Merge(const LwAccumulator& other);
    // The values as published under `name`.
    void GetValues(const std::string& name, CounterValues& out) const;

    // Accumulator:
    void CollectValues(const std::string& name, CounterValues& out) override;
    bool ReadMeter(Meter& out) override;

private:
    mutable std::mutex _lock;
    Ref<LwAccumulator> _accumulator;
};

// Published accumulators of one kind under one group, fed by per-thread
// builders.
class TESSERA_EXPORT PublishedAccumulatorMap : public ObjectImpl, public GroupPublisher {
public:
    // The per-thread side: accumulators by name, made on first use from the
    // map's prototype. No lock.
    class TESSERA_EXPORT Builder {
    public:
        explicit Builder(const LwAccumulator& prototype);
        Builder(const Builder&) = delete;
        Builder& operator=(const Builder&) = delete;
        ~Builder();

        // The accumulator for `name`, valid until the next merge.
        LwAccumulator& Get(const std::string& name);
        void Sample(const std::string& name, std::int64_t value) { Get(name).Sample(value); }
        bool IsEmpty() const noexcept { return _accumulators.empty(); }

    private:
        friend class PublishedAccumulatorMap;
        Ref<LwAccumulator> _prototype;
        std::map<std::string, Ref<LwAccumulator>> _accumulators;
    };

    // Accumulators like `prototype` (an LwCounter, an LwMeterAccumulator, an
    // LwHistoryMeterAccumulator with its capacity...) published in `registry`
    // (GetCounterRegistry() when null) as "<group>/<name>".
    PublishedAccumulatorMap(Registry* registry, const std::string& group,
                            const LwAccumulator& prototype);
    ~PublishedAccumulatorMap() override;

    const LwAccumulator& GetPrototype() const noexcept { return *_prototype; }
    const std::string& GetGroup() const noexcept { return _group; }

    // Folds every accumulator of `builder` into the one of its name, making
    // (and, while the map is published, publishing) those not seen before,
    // and empties the builder. The builder must have been made from this
    // map's prototype: std::bad_cast otherwise.
    void Merge(Builder& builder);
    // The published accumulator of `name`; NotFoundException when there is none.
    void Get(const std::string& name, Ref<PublishedAccumulator>& out) const;
    void GetNames(std::vector<std::string>& out) const;

    // GroupPublisher: every accumulator of the map, now and later, as the group.
    void Publish() override;
    void Unpublish() override;
    bool IsPublished() const override;

private:
    Ref<Registry> _registry;
    const std::string _group;
    Ref<LwAccumulator> _prototype;
    mutable std::mutex _lock;  // guards the map and the published flag
    std::map<std::string, Ref<PublishedAccumulator>> _accumulators;
    bool _published = false;
};

// Reads the meter published under a name, whatever accumulator publishes it.
class TESSERA_EXPORT MeterAccessor {
public:
    // `registry`: GetCounterRegistry() when null.
    MeterAccessor(Registry* registry, const std::string& name);
    ~MeterAccessor();

    // The meter published under the name now: NotFoundException when nothing
    // is, TypeMismatchException when what is published is not a meter.
    Meter Read() const;
    // False, leaving `out` alone, where Read would throw.
    bool TryRead(Meter& out) const;
    const std::string& GetName() const noexcept { return _name; }

private:
    Ref<Registry> _registry;
    std::string _name;
};

}  // namespace PerfCounter
}  // namespace Tessera
