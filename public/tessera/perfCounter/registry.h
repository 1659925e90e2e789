// The counter registry: what a running service publishes about its work.
//
// Accumulators are published under hierarchical names, their parts separated
// by '/': "Http/RequestTime", "ThreadPool/WorkQueueSize". The part before the
// last '/' names the group; a group is published and unpublished as a whole:
//
//     Tessera::PerfCounter::Registry* registry = Tessera::PerfCounter::GetCounterRegistry();
//     registry->PublishGauges("Queue", {{"Length", [&] { return queue.Size(); }}});
//     Tessera::PerfCounter::CounterValues values;
//     registry->QueryPattern("Queue/.*|Http/.*", values);   // name, statistic, value
//     registry->UnpublishGroup("Queue");
//
// Queries read each accumulator through its own lock, never under the
// registry's: the registry's lock is held only to find the accumulators, and
// sampling never takes it. A query therefore sees each accumulator at one
// moment, but not all of them at the same moment.
//
// Thread safety: every operation may be called from any thread. Gauge
// functions run on the querying thread, outside the registry's lock; they may
// publish and unpublish.
#pragma once

#include <tessera/api.h>
#include <tessera/object.h>
#include <tessera/perfCounter/meter.h>

#include <boost/function.hpp>

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace Tessera {
namespace PerfCounter {

// What the registry reads: a published source of values.
class TESSERA_EXPORT Accumulator : public virtual Object {
public:
    // Appends the visible values of the accumulator, published as `name`.
    virtual void CollectValues(const std::string& name, CounterValues& out) = 0;
    // For a meter, its five statistics, visible or not; false for other kinds.
    virtual bool ReadMeter(Meter& out) = 0;
};

// Something that puts itself into the registry, as one counter or a group.
class TESSERA_EXPORT GroupPublisher : public virtual Object {
public:
    // Adds the values to the registry; publishing again does nothing.
    virtual void Publish() = 0;
    // Removes them; unpublishing what is not published does nothing.
    virtual void Unpublish() = 0;
    virtual bool IsPublished() const = 0;
};

// A value read when a query asks for it, on the querying thread.
using GaugeFunction = boost::function<std::int64_t()>;

class TESSERA_EXPORT Registry : public virtual Object {
public:
    using Member = std::pair<std::string, Ref<Accumulator>>;
    using Gauge = std::pair<std::string, GaugeFunction>;

    // Publishes `accumulator` under `name`. A name must be non-empty, must not
    // begin or end with '/', hold an empty part ("A//B") or a control
    // character: InvalidArgumentException otherwise. A name already
    // published raises AlreadyExistsException.
    virtual void Publish(const std::string& name, const Ref<Accumulator>& accumulator) = 0;
    // False when nothing is published under `name`.
    virtual bool Unpublish(const std::string& name) = 0;

    // Publishes each member under "<group>/<member name>", all at once: a
    // query sees all of them or none. When one name is bad or taken, nothing
    // is published and the error is raised as Publish raises it.
    virtual void PublishGroup(const std::string& group, const std::vector<Member>& members) = 0;
    // Publishes each function as a gauge under "<group>/<name>", as
    // PublishGroup does. Its one value is the statistic "value". This is how
    // components with live figures (the thread pool's "ThreadPool/RunningThreads",
    // the log manager's records per level) publish them.
    virtual void PublishGauges(const std::string& group, const std::vector<Gauge>& gauges) = 0;
    // Removes every name that begins with "<group>/", all at once; the number
    // removed.
    virtual std::size_t UnpublishGroup(const std::string& group) = 0;

    virtual bool IsPublished(const std::string& name) = 0;
    // The accumulator published under `name`; NotFoundException when none is.
    virtual void Lookup(const std::string& name, Ref<Accumulator>& out) = 0;
    // Every published name, in order.
    virtual void GetNames(std::vector<std::string>& out) = 0;

    // The values of the counter named exactly `name`, appended to `out`;
    // NotFoundException when none is published.
    virtual void Query(const std::string& name, CounterValues& out) = 0;
    // The values of every counter whose whole name matches the regular
    // expression `pattern` (Perl syntax), in name order, appended to `out`. A
    // pattern that does not compile, is over 128 bytes, refers back to itself
    // (back-references, recursion, subroutine calls) or whose matching explodes
    // raises InvalidArgumentException naming it, as does one whose matching
    // over the published names takes over 200 ms (the registry is locked
    // meanwhile: publishing waits).
    virtual void QueryPattern(const std::string& pattern, CounterValues& out) = 0;
    // The values of every counter, in name order, appended to `out`.
    virtual void Snapshot(CounterValues& out) = 0;

protected:
    ~Registry() override = default;
};

// The process-wide registry, made on first use and never destroyed.
TESSERA_EXPORT Registry* GetCounterRegistry();
// A registry of its own, for components (and tests) that keep theirs apart.
TESSERA_EXPORT void CreateCounterRegistry(Ref<Registry>& out);

// A gauge as an accumulator, for PublishGroup.
TESSERA_EXPORT void CreateGauge(const GaugeFunction& function, Ref<Accumulator>& out);

} // namespace PerfCounter
} // namespace Tessera
