// The process-wide thread pool.

#include <tessera/assert.h>
#include <tessera/perfCounter/registry.h>
#include <tessera/system/system.h>
#include <tessera/system/threadPool.h>

#include <mutex>
#include <string>
#include <vector>

namespace Tessera {
namespace System {
namespace {

std::mutex sPoolLock;
ThreadPool* sPool = nullptr; // each pool installed is kept for the process

// The process's pool publishes its statistics as the counter group
// "ThreadPool", read from the pool when a query asks. Call with sPoolLock held.
void PublishStatistics(ThreadPool* pool) {
    PerfCounter::Registry* registry = PerfCounter::GetCounterRegistry();
    registry->UnpublishGroup("ThreadPool");
    std::vector<ThreadPool::Statistic> statistics;
    pool->GetStatistics(statistics);
    std::vector<PerfCounter::Registry::Gauge> gauges;
    for (const ThreadPool::Statistic& statistic : statistics) {
        const std::string name = statistic.name;
        gauges.emplace_back(name, [pool, name]() -> std::int64_t {
            std::vector<ThreadPool::Statistic> now;
            pool->GetStatistics(now);
            for (const ThreadPool::Statistic& s : now) {
                if (s.name == name) return s.value;
            }
            return 0;
        });
    }
    registry->PublishGauges("ThreadPool", gauges);
}

} // namespace

ThreadPool* GetThreadPool() {
    std::lock_guard<std::mutex> hold(sPoolLock);
    if (sPool == nullptr) {
        Ref<ThreadPool> pool;
        GetSystemFactory()->CreateThreadPool(nullptr, pool);
        sPool = pool.Detach();
        PublishStatistics(sPool);
    }
    return sPool;
}

void SetThreadPool(ThreadPool* pool) {
    TESSERA_ASSERT(pool != 0);
    pool->IncRef();
    std::lock_guard<std::mutex> hold(sPoolLock);
    sPool = pool;
    PublishStatistics(pool);
}

bool IsEnlisted() { return GetThreadPool()->IsEnlisted(); }

} // namespace System
} // namespace Tessera
