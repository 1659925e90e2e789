// Turning a weak reference into a strong one and letting it go: a weak link's
// Get against std::weak_ptr::lock, on one thread and on two at once.

#include "benchObjects.h"

#include <tessera/weak.h>

#include <benchmark/benchmark.h>

#include <memory>

namespace TesseraBench {
namespace {

class WeakObject : public Tessera::WeakLinkableImpl<Tessera::ObjectImpl> {
public:
    int payload = 0;
};

// One observed object per kind, shared by every thread of a run and built
// before any of them starts timing.
struct Observed {
    Tessera::Ref<WeakObject> owner;
    Tessera::Ref<Tessera::WeakLink> link;
    std::shared_ptr<PlainObject> sharedOwner;
    std::weak_ptr<PlainObject> weak;

    Observed() : owner(new WeakObject), sharedOwner(std::make_shared<PlainObject>()) {
        owner->GetWeakLink(link);
        weak = sharedOwner;
    }
};

Observed& TheObserved() {
    static Observed observed;
    return observed;
}

void WeakGet_Tessera(benchmark::State& state) {
    Tessera::WeakLink* const link = TheObserved().link.Get();
    for (auto _ : state) {
        Tessera::Ref<Tessera::Object> strong;
        const bool alive = link->Get(strong);
        benchmark::DoNotOptimize(alive);
        benchmark::DoNotOptimize(strong);
    }
}

void WeakGet_WeakPtrLock(benchmark::State& state) {
    const std::weak_ptr<PlainObject>& weak = TheObserved().weak;
    for (auto _ : state) {
        std::shared_ptr<PlainObject> strong = weak.lock();
        benchmark::DoNotOptimize(strong);
    }
}

// With two threads, wall time per operation: the inverse of the combined rate.
BENCHMARK(WeakGet_Tessera)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(WeakGet_WeakPtrLock)->Threads(1)->Threads(2)->UseRealTime();

} // namespace
} // namespace TesseraBench
