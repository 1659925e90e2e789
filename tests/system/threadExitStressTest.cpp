// Short-lived threads, the library's and plain std::threads, that use every
// piece of per-thread state the library keeps (condition events, read-write
// holds, recursive locks, TLS slots, thread states, the logger's buffers) and
// then end. Their exit must free that state without crashing, hanging or
// reporting leaks.

#include <tessera/logger.h>
#include <tessera/system/runtime.h>
#include <tessera/system/thread.h>
#include <tessera/system/tls.h>

#include "tests/system/syncTestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <vector>

using namespace SyncTest;

namespace {

struct Shared {
    Ref<Condition> condition = NewCondition();
    Ref<Condition> other = NewCondition();
    Ref<RWLock> rwLock = NewRWLock();
    Ref<Mutex> mutex = NewMutex();
    TlsKey key = ReserveTlsKey();
    std::atomic<int> done{0};
    ~Shared() { ReleaseTlsKey(key); }
};

void UseEverything(Shared& shared, int i) {
    {
        Synchronized hold(shared.condition);
        shared.condition->TimedWait(1000);
    }
    {
        Synchronized hold(shared.other);
        shared.other->TimedWait(0);
    }
    {
        ReadSynchronized read(shared.rwLock);
        ReadSynchronized again(shared.rwLock);
    }
    { WriteSynchronized write(shared.rwLock); }
    {
        Synchronized outer(shared.mutex);
        Synchronized inner(shared.mutex);
    }
    int value = i;
    SetTlsValue(shared.key, &value);
    EXPECT_EQ(GetTlsValue(shared.key), &value);
    SetTlsValue(shared.key, nullptr);  // a slot still filled at exit is reported as a leak
    const std::uint64_t state = AddThreadState("stress");
    TESSERA_LOG(Service::DefaultLogger(), Service::Logger::LOG_VERBOSE, "thread %1 ends", i);
    RemoveThreadState(state);
    shared.done.fetch_add(1);
}

}  // namespace

TEST(ThreadExitStress, ThousandShortLivedThreadsEndCleanly) {
    Shared shared;
    Ref<ThreadControl> control;
    GetThreadControl(control);
    constexpr int kRounds = 50, kPerRound = 20;  // 1,000 threads, half of each kind
    int started = 0;
    for (int round = 0; round < kRounds; ++round) {
        std::vector<Ref<Thread>> library;
        std::vector<std::thread> plain;
        for (int i = 0; i < kPerRound; ++i, ++started) {
            if (i % 2 == 0) {
                Ref<Thread> thread;
                control->StartThread([&shared, started] { UseEverything(shared, started); }, 0,
                                     thread);
                library.push_back(thread);
            } else {
                plain.emplace_back([&shared, started] { UseEverything(shared, started); });
            }
        }
        for (auto& thread : library) control->JoinThread(thread.Get());
        for (auto& thread : plain) thread.join();
    }
    EXPECT_EQ(shared.done.load(), kRounds * kPerRound);
}
