// Meters and the lightweight accumulators.
//
// A meter folds a stream of signed 64-bit samples into five statistics, in
// this order and published under these names (Meter::CounterNames):
//     "total"  "numSamples"  "min"  "max"  "mean"
// The mean is an integer: total / numSamples, truncated toward zero and
// recomputed from the running total at every sample, so that it never drifts.
// A counter only sums.
//
//     Tessera::Ref<Tessera::PerfCounter::LwMeterAccumulator> sizes(
//         new Tessera::PerfCounter::LwMeterAccumulator);   // one per thread
//     sizes->Sample(512);
//     sizes->Sample(-3);
//     published->Merge(*sizes);   // by its owner, into a PublishedAccumulator
//
// Meter itself is a plain value: the statistics without a name or a count.
//
// The Lw kinds take no lock and use no atomic operation.
// Thread safety: distinct objects, safe; shared objects, unsafe. Each is used
// by one thread at a time and merged into shared state by its owner
// (tessera/perfCounter/accumulators.h has the locked kinds).
//
// Merging requires both sides to be of one class: merging a counter into a
// meter, or a plain meter into a history meter, throws std::bad_cast. A meter
// whose sample count is negative (only a constructor can make one) stops the
// process when it is merged: "src->_numSamples >= 0".
#pragma once

#include <tessera/api.h>
#include <tessera/object.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

namespace Tessera {
namespace PerfCounter {

// One published value: the counter's hierarchical name ("Http/RequestTime"),
// the statistic ("total", "mean", "p99", ...) and its value.
struct CounterValue {
    std::string name;
    std::string statistic;
    std::int64_t value;
};
using CounterValues = std::vector<CounterValue>;

// The five statistics of a sample stream. A copyable value.
class TESSERA_EXPORT Meter {
public:
    enum Statistic { TOTAL = 0, NUM_SAMPLES = 1, MIN = 2, MAX = 3, MEAN = 4 };
    static constexpr int NUM_STATISTICS = 5;
    // "total", "numSamples", "min", "max", "mean", indexed by Statistic.
    static const char* const CounterNames[NUM_STATISTICS];

    // The empty meter: every statistic 0.
    Meter() noexcept = default;
    // total, min, max and mean set to `initial`; no samples.
    explicit Meter(std::int64_t initial) noexcept
        : _total(initial), _min(initial), _max(initial), _mean(initial) {}
    // The statistics as given; the mean is total / numSamples, or 0 without
    // samples.
    Meter(std::int64_t total, std::int64_t numSamples, std::int64_t min, std::int64_t max) noexcept
        : _total(total),
          _numSamples(numSamples),
          _min(min),
          _max(max),
          _mean(numSamples != 0 ? total / numSamples : 0) {}

    void Sample(std::int64_t value) noexcept {
        ++_numSamples;
        _total += value;
        if (_numSamples == 1) {
            _min = value;
            _max = value;
            _mean = value;
        } else {
            if (value < _min) _min = value;
            if (value > _max) _max = value;
            _mean = _total / _numSamples;
        }
    }
    // Folds `other` into this meter (its sample count must not be negative).
    void Merge(const Meter& other);

    bool Equals(const Meter& other) const noexcept {
        return _total == other._total && _numSamples == other._numSamples && _min == other._min &&
               _max == other._max && _mean == other._mean;
    }

    std::int64_t GetTotal() const noexcept { return _total; }
    std::int64_t GetNumSamples() const noexcept { return _numSamples; }
    std::int64_t GetMin() const noexcept { return _min; }
    std::int64_t GetMax() const noexcept { return _max; }
    std::int64_t GetMean() const noexcept { return _mean; }
    // The statistic by its index.
    std::int64_t Get(Statistic statistic) const noexcept;

    // Appends the five statistics of `name`, in their order.
    void AppendValues(const std::string& name, CounterValues& out) const;

protected:
    // The merge step shared by every meter kind.
    void MergeMeter(const Meter* src);

    std::int64_t _total = 0;
    std::int64_t _numSamples = 0;
    std::int64_t _min = 0;
    std::int64_t _max = 0;
    std::int64_t _mean = 0;
};

// The base of the lightweight kinds: a named, unlocked accumulator.
class TESSERA_EXPORT LwAccumulator : public ObjectImpl {
public:
    virtual void Sample(std::int64_t value) = 0;
    // Folds `other`, which must be of this object's class, into this one;
    // throws std::bad_cast otherwise. `other` is left as it was.
    virtual void Merge(const LwAccumulator& other) = 0;
    // Appends the values to publish, each under this accumulator's name.
    virtual void GetValues(CounterValues& out) const = 0;
    // A new, empty accumulator of this one's class and settings (name, history
    // capacity), with no samples.
    virtual LwAccumulator* CloneEmpty() const = 0;

    const std::string& GetName() const noexcept { return _name; }
    void SetName(const std::string& name) { _name = name; }
    void SwapName(std::string& name) noexcept { _name.swap(name); }

protected:
    LwAccumulator() = default;
    ~LwAccumulator() override;

private:
    std::string _name;
};

// Sums its samples.
class TESSERA_EXPORT LwCounter : public LwAccumulator {
public:
    explicit LwCounter(std::int64_t total = 0) noexcept : _total(total) {}

    void Sample(std::int64_t value) override { _total += value; }
    void Merge(const LwAccumulator& other) override;
    // One value: "total".
    void GetValues(CounterValues& out) const override;
    LwAccumulator* CloneEmpty() const override;

    std::int64_t GetTotal() const noexcept { return _total; }

private:
    std::int64_t _total;
};

// The five statistics of a meter.
class TESSERA_EXPORT LwMeterAccumulator : public LwAccumulator, protected Meter {
public:
    LwMeterAccumulator() noexcept = default;
    // The statistics as given: the mean is total / numSamples, or 0 without
    // samples.
    LwMeterAccumulator(std::int64_t total, std::int64_t numSamples, std::int64_t min,
                       std::int64_t max) noexcept
        : Meter(total, numSamples, min, max) {}

    // Final, so that a call through an LwMeterAccumulator (or a Ref to one)
    // is bound statically and inlined; only a meter that keeps a history
    // pays for a second, virtual step.
    void Sample(std::int64_t value) final {
        Meter::Sample(value);
        if (_keepsHistory) Remember(value);
    }
    void Merge(const LwAccumulator& other) override;
    // The five statistics, in their order.
    void GetValues(CounterValues& out) const override;
    LwAccumulator* CloneEmpty() const override;

    const Meter& GetMeter() const noexcept { return *this; }
    using Meter::GetMax;
    using Meter::GetMean;
    using Meter::GetMin;
    using Meter::GetNumSamples;
    using Meter::GetTotal;

protected:
    // For the kinds that also see every sample.
    explicit LwMeterAccumulator(bool keepsHistory) noexcept : _keepsHistory(keepsHistory) {}
    LwMeterAccumulator(std::int64_t total, std::int64_t numSamples, std::int64_t min,
                       std::int64_t max, bool keepsHistory) noexcept
        : Meter(total, numSamples, min, max), _keepsHistory(keepsHistory) {}
    virtual void Remember(std::int64_t) {}

private:
    bool _keepsHistory = false;
};

// A meter that also keeps its most recent samples, oldest first: at most
// `capacity` of them, or every sample when the capacity is 0.
class TESSERA_EXPORT LwHistoryMeterAccumulator : public LwMeterAccumulator {
public:
    explicit LwHistoryMeterAccumulator(std::size_t capacity)
        : LwMeterAccumulator(true), _capacity(capacity) {}
    LwHistoryMeterAccumulator(std::int64_t total, std::int64_t numSamples, std::int64_t min,
                              std::int64_t max, std::size_t capacity)
        : LwMeterAccumulator(total, numSamples, min, max, true), _capacity(capacity) {}

    // The statistics as a meter's; the other's history follows this one's, as
    // if its samples had come after, within this one's capacity.
    void Merge(const LwAccumulator& other) override;
    // The five statistics, then "p50", "p90" and "p99" of the history when
    // it is not empty.
    void GetValues(CounterValues& out) const override;
    LwAccumulator* CloneEmpty() const override;

    std::size_t GetCapacity() const noexcept { return _capacity; }
    // The samples kept, oldest first.
    void GetHistory(std::vector<std::int64_t>& out) const;
    // The nearest-rank percentile of the history: the smallest kept sample
    // that at least `percent` percent of the kept samples do not exceed.
    // `percent` lies in (0, 100]; false when the history is empty.
    bool GetPercentile(double percent, std::int64_t& out) const;

protected:
    void Remember(std::int64_t value) override {
        if (_capacity != 0 && _history.size() >= _capacity) _history.pop_front();
        _history.push_back(value);
    }

private:
    std::size_t _capacity;
    std::deque<std::int64_t> _history;
};

} // namespace PerfCounter
} // namespace Tessera
