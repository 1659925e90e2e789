// The counter registry: published accumulators by name.
//
// The map of names is guarded by one mutex that is held only to change the map
// or to pick accumulators out of it; their values are read after it is let go,
// each under the accumulator's own lock. Sampling never touches the registry.
// The pattern query is in perfCounter/QueryImpl.cpp.

#include <tessera/assert.h>
#include <tessera/exception.h>
#include <tessera/perfCounter/registry.h>

#include "perfCounter/query.h"

#include <cstdint>
#include <map>
#include <mutex>

namespace Tessera {
namespace PerfCounter {
namespace {

class GaugeImpl final : public ObjectImpl, public Accumulator {
public:
    explicit GaugeImpl(const GaugeFunction& function) : _function(function) {}

    // Accumulator:
    void CollectValues(const std::string& name, CounterValues& out) override {
        out.push_back({name, "value", _function()});
    }
    bool ReadMeter(Meter&) override { return false; }

private:
    const GaugeFunction _function;
};

void CheckName(const std::string& name) {
    bool good = !name.empty() && name.front() != '/' && name.back() != '/';
    for (std::size_t i = 0; good && i < name.size(); ++i) {
        const auto c = static_cast<unsigned char>(name[i]);
        if (c < 0x20 || c == 0x7F || (c == '/' && name[i + 1] == '/')) good = false;
    }
    if (!good) throw InvalidArgumentException("Bad counter name '" + name + "'");
}

void CollectAll(const Picked& picked, CounterValues& out) {
    for (const auto& p : picked) p.second->CollectValues(p.first, out);
}

class RegistryImpl final : public ObjectImpl, public Registry {
public:
    // Registry:
    void Publish(const std::string& name, const Ref<Accumulator>& accumulator) override {
        TESSERA_ASSERT(!accumulator.IsNull());
        CheckName(name);
        std::lock_guard<std::mutex> hold(_lock);
        if (_counters.count(name) != 0) throw AlreadyExistsException("Counter '" + name + "'");
        _counters.emplace(name, accumulator);
    }

    bool Unpublish(const std::string& name) override {
        Ref<Accumulator> removed; // released after the lock
        std::lock_guard<std::mutex> hold(_lock);
        const auto it = _counters.find(name);
        if (it == _counters.end()) return false;
        removed.Swap(it->second);
        _counters.erase(it);
        return true;
    }

    void PublishGroup(const std::string& group, const std::vector<Member>& members) override {
        CheckName(group);
        std::vector<std::string> names;
        names.reserve(members.size());
        for (const Member& m : members) {
            TESSERA_ASSERT(!m.second.IsNull());
            names.push_back(group + "/" + m.first);
            CheckName(m.first);
        }
        std::lock_guard<std::mutex> hold(_lock);
        for (std::size_t i = 0; i < names.size(); ++i) {
            bool twice = false;
            for (std::size_t j = 0; j < i && !twice; ++j) twice = names[j] == names[i];
            if (twice || _counters.count(names[i]) != 0) {
                throw AlreadyExistsException("Counter '" + names[i] + "'");
            }
        }
        for (std::size_t i = 0; i < names.size(); ++i) {
            _counters.emplace(std::move(names[i]), members[i].second);
        }
    }

    void PublishGauges(const std::string& group, const std::vector<Gauge>& gauges) override {
        std::vector<Member> members;
        members.reserve(gauges.size());
        for (const Gauge& g : gauges) {
            TESSERA_ASSERT(!g.second.empty());
            members.emplace_back(g.first, new GaugeImpl(g.second));
        }
        PublishGroup(group, members);
    }

    std::size_t UnpublishGroup(const std::string& group) override {
        const std::string prefix = group + "/";
        std::vector<Ref<Accumulator>> removed; // released after the lock
        std::lock_guard<std::mutex> hold(_lock);
        auto it = _counters.lower_bound(prefix);
        while (it != _counters.end() && it->first.compare(0, prefix.size(), prefix) == 0) {
            removed.push_back(std::move(it->second));
            it = _counters.erase(it);
        }
        return removed.size();
    }

    bool IsPublished(const std::string& name) override {
        std::lock_guard<std::mutex> hold(_lock);
        return _counters.count(name) != 0;
    }

    void Lookup(const std::string& name, Ref<Accumulator>& out) override {
        std::lock_guard<std::mutex> hold(_lock);
        const auto it = _counters.find(name);
        if (it == _counters.end()) throw NotFoundException("Counter '" + name + "'");
        out = it->second;
    }

    void GetNames(std::vector<std::string>& out) override {
        std::lock_guard<std::mutex> hold(_lock);
        out.clear();
        out.reserve(_counters.size());
        for (const auto& c : _counters) out.push_back(c.first);
    }

    void Query(const std::string& name, CounterValues& out) override {
        Ref<Accumulator> accumulator;
        Lookup(name, accumulator);
        accumulator->CollectValues(name, out);
    }

    void QueryPattern(const std::string& pattern, CounterValues& out) override {
        Picked picked;
        PickByPattern(pattern, _lock, _counters, picked);
        CollectAll(picked, out);
    }

    void Snapshot(CounterValues& out) override {
        Picked picked;
        {
            std::lock_guard<std::mutex> hold(_lock);
            picked.assign(_counters.begin(), _counters.end());
        }
        out.reserve(out.size() + picked.size() * Meter::NUM_STATISTICS);
        CollectAll(picked, out);
    }

private:
    std::mutex _lock;
    CounterMap _counters;
};

} // namespace

Registry* GetCounterRegistry() {
    static Registry* const registry = [] {
        auto* created = new RegistryImpl;
        created->IncRef(); // the process keeps it
        return created;
    }();
    return registry;
}

void CreateCounterRegistry(Ref<Registry>& out) { out = new RegistryImpl; }

void CreateGauge(const GaugeFunction& function, Ref<Accumulator>& out) {
    TESSERA_ASSERT(!function.empty());
    out = new GaugeImpl(function);
}

} // namespace PerfCounter
} // namespace Tessera
