// Counting references: copying a live reference and letting it go, and the
// whole life of a short-lived object, against std::shared_ptr and
// boost::intrusive_ptr.

#include "benchObjects.h"

#include <benchmark/benchmark.h>

#include <boost/intrusive_ptr.hpp>

#include <memory>
#include <typeinfo>

namespace TesseraBench {
namespace {

// ---- copy a reference from a live one and let it go ----

void RefCopy_Tessera(benchmark::State& state) {
    const Tessera::Ref<CountedObject> live(new CountedObject);
    for (auto _ : state) {
        Tessera::Ref<CountedObject> copy(live);
        benchmark::DoNotOptimize(copy);
    }
}

// The same through the interface every object is reached by.
void RefCopy_TesseraViaObject(benchmark::State& state) {
    const Tessera::Ref<Tessera::Object> live(new CountedObject);
    for (auto _ : state) {
        Tessera::Ref<Tessera::Object> copy(live);
        benchmark::DoNotOptimize(copy);
    }
}

void RefCopy_SharedPtr(benchmark::State& state) {
    const std::shared_ptr<PlainObject> live = std::make_shared<PlainObject>();
    for (auto _ : state) {
        std::shared_ptr<PlainObject> copy(live);
        benchmark::DoNotOptimize(copy);
    }
}

void RefCopy_IntrusivePtr(benchmark::State& state) {
    const boost::intrusive_ptr<IntrusiveObject> live(new IntrusiveObject);
    for (auto _ : state) {
        boost::intrusive_ptr<IntrusiveObject> copy(live);
        benchmark::DoNotOptimize(copy);
    }
}

// ---- a new object, its first reference, its release ----

void Churn_Tessera(benchmark::State& state) {
    // The census table and this type's slot in it exist before the timing.
    { const Tessera::Ref<CountedObject> warm(new CountedObject); }
    for (auto _ : state) {
        Tessera::Ref<CountedObject> ref(new CountedObject);
        benchmark::DoNotOptimize(ref);
    }
}

void Churn_MakeShared(benchmark::State& state) {
    for (auto _ : state) {
        std::shared_ptr<PlainObject> ref = std::make_shared<PlainObject>();
        benchmark::DoNotOptimize(ref);
    }
}

void Churn_IntrusivePtr(benchmark::State& state) {
    for (auto _ : state) {
        boost::intrusive_ptr<IntrusiveObject> ref(new IntrusiveObject);
        benchmark::DoNotOptimize(ref);
    }
}

// For the analysis only: the same object with the census hooks emptied, which
// the library forbids, to show what the census costs. Not a usable object.
class UncensusedObject final : public Tessera::ObjectImpl {
public:
    int payload = 0;

protected:
    void FirstIncRef(const std::type_info&) const override {}
    void FinalDecRef(const std::type_info&) const override {}
};
static_assert(sizeof(UncensusedObject) == sizeof(CountedObject), "same size as the real one");

void Churn_TesseraWithoutCensus(benchmark::State& state) {
    for (auto _ : state) {
        Tessera::Ref<UncensusedObject> ref(new UncensusedObject);
        benchmark::DoNotOptimize(ref);
    }
}

BENCHMARK(RefCopy_Tessera);
BENCHMARK(RefCopy_TesseraViaObject);
BENCHMARK(RefCopy_IntrusivePtr);
BENCHMARK(RefCopy_SharedPtr);

BENCHMARK(Churn_Tessera);
BENCHMARK(Churn_IntrusivePtr);
BENCHMARK(Churn_MakeShared);
BENCHMARK(Churn_TesseraWithoutCensus);

// Two threads making and dropping objects of one type: each has objects of its
// own, but the census counter of the type is shared by both.
BENCHMARK(Churn_Tessera)->Threads(2)->UseRealTime();
BENCHMARK(Churn_IntrusivePtr)->Threads(2)->UseRealTime();
BENCHMARK(Churn_MakeShared)->Threads(2)->UseRealTime();

} // namespace
} // namespace TesseraBench
