// The process-wide thread pool.

#include <tessera/assert.h>
#include <tessera/system/system.h>
#include <tessera/system/threadPool.h>

#include <mutex>

namespace Tessera {
namespace System {
namespace {

std::mutex sPoolLock;
ThreadPool* sPool = nullptr; // each pool installed is kept for the process

} // namespace

ThreadPool* GetThreadPool() {
    std::lock_guard<std::mutex> hold(sPoolLock);
    if (sPool == nullptr) {
        Ref<ThreadPool> pool;
        GetSystemFactory()->CreateThreadPool(nullptr, pool);
        sPool = pool.Detach();
    }
    return sPool;
}

void SetThreadPool(ThreadPool* pool) {
    TESSERA_ASSERT(pool != 0);
    pool->IncRef();
    std::lock_guard<std::mutex> hold(sPoolLock);
    sPool = pool;
}

bool IsEnlisted() { return GetThreadPool()->IsEnlisted(); }

} // namespace System
} // namespace Tessera
