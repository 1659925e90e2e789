// Locks and conditions against their peers, side by side in one run:
//
//   RWLockRead_*   read lock and unlock, uncontended: our checked read-write
//                  lock (both modes, and the notified variant) against
//                  std::shared_mutex and Poco::RWLock
//   Mutex_*        lock and unlock, uncontended: our recursive mutex against
//                  std::mutex
//   PingPong_*     one round trip between two threads taking turns on a
//                  condition: ours against std::condition_variable with
//                  std::mutex; wall time per round trip, and the rate as
//                  round_trips
//
// Ours are reached as a caller reaches them, through a reference from the
// factory and a virtual call.

#include <tessera/system/syncRaii.h>
#include <tessera/system/system.h>

#include <Poco/RWLock.h>
#include <benchmark/benchmark.h>

#include <condition_variable>
#include <mutex>
#include <shared_mutex>
#include <thread>

namespace TesseraBench {
namespace {

using namespace Tessera;
using namespace Tessera::System;

Ref<RWLock> NewRWLock(RWLockableObject::LockMode mode) {
    Ref<RWLock> lock;
    GetSystemFactory()->CreateRWLock(mode, lock);
    return lock;
}

void RWLockRead_Tessera(benchmark::State& state) {
    Ref<RWLock> lock = NewRWLock(static_cast<RWLockableObject::LockMode>(state.range(0)));
    for (auto _ : state) {
        lock->ReadLock();
        lock->Unlock();
    }
}

struct NotifiedLock : RWLockableNotifiedObjectImpl {};

void RWLockRead_TesseraNotified(benchmark::State& state) {
    Ref<NotifiedLock> lock(new NotifiedLock);
    RWLockableObject* object = lock.Get();
    for (auto _ : state) {
        object->ReadLock();
        object->Unlock();
    }
}

void RWLockRead_StdSharedMutex(benchmark::State& state) {
    std::shared_mutex lock;
    for (auto _ : state) {
        lock.lock_shared();
        lock.unlock_shared();
        benchmark::ClobberMemory();
    }
}

void RWLockRead_Poco(benchmark::State& state) {
    Poco::RWLock lock;
    for (auto _ : state) {
        lock.readLock();
        lock.unlock();
        benchmark::ClobberMemory();
    }
}

void Mutex_Tessera(benchmark::State& state) {
    Ref<Mutex> mutex;
    GetSystemFactory()->CreateSimpleMutex(mutex);
    for (auto _ : state) {
        mutex->Lock();
        mutex->Unlock();
    }
}

void Mutex_StdMutex(benchmark::State& state) {
    std::mutex mutex;
    for (auto _ : state) {
        mutex.lock();
        mutex.unlock();
        benchmark::ClobberMemory();
    }
}

// Two threads take turns: the benchmark's thread passes the turn and waits
// for it to come back; a partner thread waits for it and passes it back.
void PingPong_Tessera(benchmark::State& state) {
    Ref<Condition> condition;
    GetSystemFactory()->CreateCondition(condition);
    bool theirs = false, stop = false; // guarded by the condition's lock
    std::thread partner([&] {
        Synchronized hold(condition);
        for (;;) {
            while (!theirs && !stop) condition->Wait();
            if (stop) return;
            theirs = false;
            condition->Signal();
        }
    });
    {
        Synchronized hold(condition);
        for (auto _ : state) {
            theirs = true;
            condition->Signal();
            while (theirs) condition->Wait();
        }
        stop = true;
        condition->Signal();
    }
    partner.join();
    state.counters["round_trips"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

void PingPong_StdConditionVariable(benchmark::State& state) {
    std::mutex mutex;
    std::condition_variable condition;
    bool theirs = false, stop = false; // guarded by mutex
    std::thread partner([&] {
        std::unique_lock<std::mutex> hold(mutex);
        for (;;) {
            while (!theirs && !stop) condition.wait(hold);
            if (stop) return;
            theirs = false;
            condition.notify_one();
        }
    });
    {
        std::unique_lock<std::mutex> hold(mutex);
        for (auto _ : state) {
            theirs = true;
            condition.notify_one();
            while (theirs) condition.wait(hold);
        }
        stop = true;
        condition.notify_one();
    }
    partner.join();
    state.counters["round_trips"] =
        benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

BENCHMARK(RWLockRead_Tessera)
    ->Arg(RWLockableObject::WriterPreferring)
    ->Arg(RWLockableObject::ReaderPreferring);
BENCHMARK(RWLockRead_TesseraNotified);
BENCHMARK(RWLockRead_StdSharedMutex);
BENCHMARK(RWLockRead_Poco);
BENCHMARK(Mutex_Tessera);
BENCHMARK(Mutex_StdMutex);
BENCHMARK(PingPong_Tessera)->UseRealTime();
BENCHMARK(PingPong_StdConditionVariable)->UseRealTime();

} // namespace
} // namespace TesseraBench
