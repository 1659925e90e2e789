// Published accumulators, the map that per-thread builders feed, and reading
// a published meter back.

#include <tessera/assert.h>
#include <tessera/exception.h>
#include <tessera/perfCounter/accumulators.h>

#include <typeinfo>

namespace Tessera {
namespace PerfCounter {
namespace {

Registry* RegistryOrDefault(Registry* registry) {
    return registry != nullptr ? registry : GetCounterRegistry();
}

// An empty accumulator like `prototype`, without its name.
Ref<LwAccumulator> EmptyLike(const LwAccumulator& prototype) {
    Ref<LwAccumulator> empty(prototype.CloneEmpty());
    empty->SetName(std::string());
    return empty;
}

} // namespace

// ---- PublishedAccumulator ----

PublishedAccumulator::PublishedAccumulator(const LwAccumulator& prototype)
    : _accumulator(EmptyLike(prototype)) {}

PublishedAccumulator::~PublishedAccumulator() = default;

void PublishedAccumulator::Sample(std::int64_t value) {
    std::lock_guard<std::mutex> hold(_lock);
    _accumulator->Sample(value);
}

void PublishedAccumulator::Merge(const LwAccumulator& other) {
    std::lock_guard<std::mutex> hold(_lock);
    _accumulator->Merge(other);
}

void PublishedAccumulator::GetValues(const std::string& name, CounterValues& out) const {
    const std::size_t first = out.size();
    {
        std::lock_guard<std::mutex> hold(_lock);
        _accumulator->GetValues(out);
    }
    for (std::size_t i = first; i < out.size(); ++i) out[i].name = name;
}

void PublishedAccumulator::CollectValues(const std::string& name, CounterValues& out) {
    GetValues(name, out);
}

bool PublishedAccumulator::ReadMeter(Meter& out) {
    std::lock_guard<std::mutex> hold(_lock);
    const auto* meter = dynamic_cast<const LwMeterAccumulator*>(_accumulator.Get());
    if (meter == nullptr) return false;
    out = meter->GetMeter();
    return true;
}

// ---- PublishedAccumulatorMap ----

PublishedAccumulatorMap::Builder::Builder(const LwAccumulator& prototype)
    : _prototype(EmptyLike(prototype)) {}

PublishedAccumulatorMap::Builder::~Builder() = default;

LwAccumulator& PublishedAccumulatorMap::Builder::Get(const std::string& name) {
    auto it = _accumulators.find(name);
    if (it == _accumulators.end()) {
        it = _accumulators.emplace(name, Ref<LwAccumulator>(_prototype->CloneEmpty())).first;
        it->second->SetName(name);
    }
    return *it->second;
}

PublishedAccumulatorMap::PublishedAccumulatorMap(Registry* registry, const std::string& group,
                                                 const LwAccumulator& prototype)
    : _registry(RegistryOrDefault(registry)), _group(group), _prototype(EmptyLike(prototype)) {}

PublishedAccumulatorMap::~PublishedAccumulatorMap() = default;

void PublishedAccumulatorMap::Merge(Builder& builder) {
    const LwAccumulator& theirs = *builder._prototype;
    const LwAccumulator& ours = *_prototype;
    if (typeid(theirs) != typeid(ours)) throw std::bad_cast();
    std::map<std::string, Ref<LwAccumulator>> taken;
    taken.swap(builder._accumulators);
    std::lock_guard<std::mutex> hold(_lock);
    std::vector<Registry::Member> added;
    for (const auto& entry : taken) {
        auto it = _accumulators.find(entry.first);
        if (it == _accumulators.end()) {
            it = _accumulators.emplace(entry.first, new PublishedAccumulator(*_prototype)).first;
            added.emplace_back(entry.first, it->second);
        }
        it->second->Merge(*entry.second);
    }
    if (_published && !added.empty()) _registry->PublishGroup(_group, added);
}

void PublishedAccumulatorMap::Get(const std::string& name, Ref<PublishedAccumulator>& out) const {
    std::lock_guard<std::mutex> hold(_lock);
    const auto it = _accumulators.find(name);
    if (it == _accumulators.end()) throw NotFoundException("Counter '" + _group + "/" + name + "'");
    out = it->second;
}

void PublishedAccumulatorMap::GetNames(std::vector<std::string>& out) const {
    std::lock_guard<std::mutex> hold(_lock);
    out.clear();
    for (const auto& entry : _accumulators) out.push_back(entry.first);
}

void PublishedAccumulatorMap::Publish() {
    std::lock_guard<std::mutex> hold(_lock);
    if (_published) return;
    std::vector<Registry::Member> members(_accumulators.begin(), _accumulators.end());
    _registry->PublishGroup(_group, members);
    _published = true;
}

void PublishedAccumulatorMap::Unpublish() {
    std::lock_guard<std::mutex> hold(_lock);
    if (!_published) return;
    _registry->UnpublishGroup(_group);
    _published = false;
}

bool PublishedAccumulatorMap::IsPublished() const {
    std::lock_guard<std::mutex> hold(_lock);
    return _published;
}

// ---- MeterAccessor ----

MeterAccessor::MeterAccessor(Registry* registry, const std::string& name)
    : _registry(RegistryOrDefault(registry)), _name(name) {}

MeterAccessor::~MeterAccessor() = default;

Meter MeterAccessor::Read() const {
    Ref<Accumulator> accumulator;
    _registry->Lookup(_name, accumulator);
    Meter meter;
    if (!accumulator->ReadMeter(meter)) {
        throw TypeMismatchException("Counter '" + _name + "' is not a meter");
    }
    return meter;
}

bool MeterAccessor::TryRead(Meter& out) const {
    Ref<Accumulator> accumulator;
    try {
        _registry->Lookup(_name, accumulator);
    } catch (const NotFoundException&) {
        return false;
    }
    Meter meter;
    if (!accumulator->ReadMeter(meter)) return false;
    out = meter;
    return true;
}

} // namespace PerfCounter
} // namespace Tessera
