// Meters, the lightweight accumulators and the locked meter.

#include <tessera/assert.h>
#include <tessera/perfCounter/accumulators.h>
#include <tessera/perfCounter/meter.h>

#include <algorithm>
#include <cmath>
#include <typeinfo>

namespace Tessera {
namespace PerfCounter {

// ---- Meter ----

const char* const Meter::CounterNames[Meter::NUM_STATISTICS] = {"total", "numSamples", "min", "max",
                                                                "mean"};

void Meter::Merge(const Meter& other) {
    MergeMeter(&other);
}

void Meter::MergeMeter(const Meter* src) {
    _total += src->_total;
    TESSERA_ASSERT(src->_numSamples >= 0);
    // An empty meter takes the other's extremes even when it has no samples
    // either: they may carry figures given at construction.
    if (_numSamples == 0 || src->_min < _min) _min = src->_min;
    if (_numSamples == 0 || src->_max > _max) _max = src->_max;
    _numSamples += src->_numSamples;
    if (_numSamples >= 1) _mean = _total / _numSamples;
}

std::int64_t Meter::Get(Statistic statistic) const noexcept {
    switch (statistic) {
        case TOTAL:
            return _total;
        case NUM_SAMPLES:
            return _numSamples;
        case MIN:
            return _min;
        case MAX:
            return _max;
        case MEAN:
            return _mean;
    }
    return 0;
}

void Meter::AppendValues(const std::string& name, CounterValues& out) const {
    const std::int64_t values[NUM_STATISTICS] = {_total, _numSamples, _min, _max, _mean};
    for (int i = 0; i < NUM_STATISTICS; ++i) out.push_back({name, CounterNames[i], values[i]});
}

// ---- the lightweight kinds ----

LwAccumulator::~LwAccumulator() = default;

void LwCounter::Merge(const LwAccumulator& other) {
    _total += dynamic_cast<const LwCounter&>(other)._total;
}

void LwCounter::GetValues(CounterValues& out) const {
    out.push_back({GetName(), Meter::CounterNames[Meter::TOTAL], _total});
}

LwAccumulator* LwCounter::CloneEmpty() const {
    auto* clone = new LwCounter;
    clone->SetName(GetName());
    return clone;
}

void LwMeterAccumulator::Merge(const LwAccumulator& other) {
    // Exactly this class: a history meter is merged by its own class.
    if (typeid(other) != typeid(*this)) throw std::bad_cast();
    const auto* src = &static_cast<const LwMeterAccumulator&>(other);
    MergeMeter(src);
}

void LwMeterAccumulator::GetValues(CounterValues& out) const {
    AppendValues(GetName(), out);
}

LwAccumulator* LwMeterAccumulator::CloneEmpty() const {
    auto* clone = new LwMeterAccumulator;
    clone->SetName(GetName());
    return clone;
}

void LwHistoryMeterAccumulator::Merge(const LwAccumulator& other) {
    if (typeid(other) != typeid(*this)) throw std::bad_cast();
    const auto* src = &static_cast<const LwHistoryMeterAccumulator&>(other);
    const std::vector<std::int64_t> incoming(src->_history.begin(), src->_history.end());
    MergeMeter(src);
    for (std::int64_t value : incoming) Remember(value);
}

void LwHistoryMeterAccumulator::GetValues(CounterValues& out) const {
    AppendValues(GetName(), out);
    static const struct {
        double percent;
        const char* name;
    } kPercentiles[] = {{50, "p50"}, {90, "p90"}, {99, "p99"}};
    if (_history.empty()) return;
    std::vector<std::int64_t> sorted(_history.begin(), _history.end());
    std::sort(sorted.begin(), sorted.end());
    for (const auto& p : kPercentiles) {
        const auto rank = static_cast<std::size_t>(std::ceil(p.percent / 100 * sorted.size()));
        out.push_back({GetName(), p.name, sorted[std::max<std::size_t>(rank, 1) - 1]});
    }
}

LwAccumulator* LwHistoryMeterAccumulator::CloneEmpty() const {
    auto* clone = new LwHistoryMeterAccumulator(_capacity);
    clone->SetName(GetName());
    return clone;
}

void LwHistoryMeterAccumulator::GetHistory(std::vector<std::int64_t>& out) const {
    out.assign(_history.begin(), _history.end());
}

bool LwHistoryMeterAccumulator::GetPercentile(double percent, std::int64_t& out) const {
    if (_history.empty() || !(percent > 0 && percent <= 100)) return false;
    std::vector<std::int64_t> sorted(_history.begin(), _history.end());
    const auto rank = static_cast<std::size_t>(std::ceil(percent / 100 * sorted.size()));
    const std::size_t index = std::min(std::max<std::size_t>(rank, 1), sorted.size()) - 1;
    std::nth_element(sorted.begin(), sorted.begin() + static_cast<std::ptrdiff_t>(index),
                     sorted.end());
    out = sorted[index];
    return true;
}

// ---- MeterAccumulator ----

namespace {
Registry* RegistryOrDefault(Registry* registry) {
    return registry != nullptr ? registry : GetCounterRegistry();
}
}  // namespace

MeterAccumulator::MeterAccumulator(Registry* registry, const std::string& name)
    : _name(name), _registry(RegistryOrDefault(registry)) {}

MeterAccumulator::MeterAccumulator(Registry* registry, const std::string& name, std::int64_t total,
                                   std::int64_t min, std::int64_t max)
    : Meter(total, 0, min, max), _name(name), _registry(RegistryOrDefault(registry)) {}

MeterAccumulator::~MeterAccumulator() = default;

void MeterAccumulator::Sample(std::int64_t value) {
    std::lock_guard<std::mutex> hold(_lock);
    Meter::Sample(value);
}

void MeterAccumulator::Merge(const Meter& other) {
    const Meter copy = other;  // `other` may be this very meter
    std::lock_guard<std::mutex> hold(_lock);
    MergeMeter(&copy);
}

void MeterAccumulator::Merge(const MeterAccumulator& other) {
    Merge(other.GetMeter());
}

Meter MeterAccumulator::GetMeter() const {
    std::lock_guard<std::mutex> hold(_lock);
    return *this;
}

std::int64_t MeterAccumulator::GetTotal() const {
    return GetMeter().GetTotal();
}
std::int64_t MeterAccumulator::GetNumSamples() const {
    return GetMeter().GetNumSamples();
}
std::int64_t MeterAccumulator::GetMin() const {
    return GetMeter().GetMin();
}
std::int64_t MeterAccumulator::GetMax() const {
    return GetMeter().GetMax();
}
std::int64_t MeterAccumulator::GetMean() const {
    return GetMeter().GetMean();
}

void MeterAccumulator::SetCounterVisible(Statistic statistic, bool visible) {
    TESSERA_ASSERT(statistic >= TOTAL && statistic <= MEAN);
    std::lock_guard<std::mutex> hold(_lock);
    if (visible) {
        _visible |= 1u << statistic;
    } else {
        _visible &= ~(1u << statistic);
    }
}

bool MeterAccumulator::IsCounterVisible(Statistic statistic) const {
    std::lock_guard<std::mutex> hold(_lock);
    return (_visible & (1u << statistic)) != 0;
}

void MeterAccumulator::Publish() {
    std::lock_guard<std::mutex> hold(_publishLock);
    if (_published) return;
    _registry->Publish(_name, Ref<Accumulator>(this));
    _published = true;
}

void MeterAccumulator::Unpublish() {
    std::lock_guard<std::mutex> hold(_publishLock);
    if (!_published) return;
    _registry->Unpublish(_name);
    _published = false;
}

bool MeterAccumulator::IsPublished() const {
    std::lock_guard<std::mutex> hold(_publishLock);
    return _published;
}

void MeterAccumulator::CollectValues(const std::string& name, CounterValues& out) {
    Meter meter;
    unsigned visible;
    {
        std::lock_guard<std::mutex> hold(_lock);
        meter = *this;
        visible = _visible;
    }
    for (int i = 0; i < NUM_STATISTICS; ++i) {
        if ((visible & (1u << i)) == 0) continue;
        out.push_back({name, CounterNames[i], meter.Get(static_cast<Statistic>(i))});
    }
}

bool MeterAccumulator::ReadMeter(Meter& out) {
    out = GetMeter();
    return true;
}

}  // namespace PerfCounter
}  // namespace Tessera
