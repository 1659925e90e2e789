#include <tessera/system/syncRaii.h>
#include <tessera/system/system.h>
#include <tessera/weak.h>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

using namespace Tessera;
using namespace Tessera::System;

namespace {

Ref<Mutex> NewMutex() {
    Ref<Mutex> mutex;
    GetSystemFactory()->CreateSimpleMutex(mutex);
    return mutex;
}

// Logs the order in which lock sets take their members.
class Recording : public LockableObjectImpl {
public:
    explicit Recording(std::vector<const LockableObject*>* log) : _log(log) {}
    void Lock() override {
        LockableObjectImpl::Lock();
        _log->push_back(this);
    }
    void Unlock() override {
        _log->push_back(nullptr);
        LockableObjectImpl::Unlock();
    }

private:
    std::vector<const LockableObject*>* _log;
};

} // namespace

TEST(Mutex, IsRecursiveAndOwnedByOneThread) {
    Ref<Mutex> mutex = NewMutex();
    EXPECT_FALSE(mutex->IsLocked());
    mutex->Lock();
    {
        Synchronized again(mutex); // the holder enters again at once
        EXPECT_TRUE(mutex->IsLocked());
    }
    EXPECT_TRUE(mutex->IsLocked()); // one Lock is still unmatched

    bool lockedElsewhere = false;
    std::thread([&] { lockedElsewhere = mutex->IsLocked(); }).join();
    EXPECT_TRUE(lockedElsewhere);
    mutex->Unlock();
    EXPECT_FALSE(mutex->IsLocked());

    // Free again: another thread takes it.
    std::thread([&] {
        Synchronized hold(mutex);
        lockedElsewhere = mutex->IsLocked();
    }).join();
    EXPECT_TRUE(lockedElsewhere);
    EXPECT_FALSE(mutex->IsLocked());
}

TEST(Mutex, WeakLinkableLockableObject) {
    using Guarded = WeakLinkableImpl<LockableObjectImpl>;
    Ref<Guarded> guarded(new Guarded);
    Ref<WeakLink> link;
    guarded->GetWeakLink(link);
    Ref<Object> strong;
    ASSERT_TRUE(link->Get(strong));
    auto* lockable = dynamic_cast<LockableObject*>(strong.Get());
    ASSERT_EQ(lockable, static_cast<LockableObject*>(guarded.Get()));
    {
        Synchronized hold(lockable);
        EXPECT_TRUE(guarded->IsLockedByThisThread());
    }
    strong.Reset();
    guarded.Reset();
    EXPECT_TRUE(link->IsExpired());
}

TEST(MultiSynchronized, SetsTakeSharedLocksInOneOrder) {
    std::vector<const LockableObject*> log;
    Ref<Recording> a(new Recording(&log));
    Ref<Recording> b(new Recording(&log));
    const LockableObject* low = std::min<const LockableObject*>(a.Get(), b.Get());
    const LockableObject* high = std::max<const LockableObject*>(a.Get(), b.Get());

    MultiSynchronized first;
    first.AddLockable(a.Get());
    first.AddLockable(b.Get());
    MultiSynchronized second;
    second.AddLockable(b.Get());
    second.AddLockable(a.Get());
    second.AddLockable(b.Get()); // taken once

    first.Lock();
    first.Unlock();
    second.Lock();
    EXPECT_TRUE(a->IsLocked() && b->IsLocked());
    second.Unlock();
    EXPECT_FALSE(a->IsLocked() || b->IsLocked());
    const std::vector<const LockableObject*> once{low, high, nullptr, nullptr};
    std::vector<const LockableObject*> twice = once;
    twice.insert(twice.end(), once.begin(), once.end());
    EXPECT_EQ(log, twice);

    {
        MultiSynchronized left;
        left.AddLockable(a.Get());
        left.Lock();
    } // unlocked by its destructor
    EXPECT_FALSE(a->IsLocked());
}

// Two sets built in opposite orders, each hammered by its own thread: in
// address order neither can hold one lock while waiting for the other's.
TEST(MultiSynchronizedStress, OppositeSetsDoNotDeadlock) {
    Ref<Mutex> a = NewMutex();
    Ref<Mutex> b = NewMutex();
    long long inA = 0, inB = 0; // guarded by a and b respectively
    constexpr int kRounds = 3000;
    auto hammer = [&](Mutex* x, Mutex* y) {
        for (int i = 0; i < kRounds; ++i) {
            MultiSynchronized both;
            both.AddLockable(x);
            both.AddLockable(y);
            both.Lock();
            ++inA;
            if (i % 4 == 0) std::this_thread::yield(); // holding both
            ++inB;
            both.Unlock();
            Synchronized one(x); // and a single lock between the sets
            ++(x == a.Get() ? inA : inB);
        }
    };
    std::thread t1(hammer, a.Get(), b.Get());
    std::thread t2(hammer, b.Get(), a.Get());
    t1.join();
    t2.join();
    EXPECT_EQ(inA, 3 * kRounds);
    EXPECT_EQ(inB, 3 * kRounds);
}

TEST(MutexStress, RecursiveHoldsExcludeOtherThreads) {
    Ref<Mutex> mutex = NewMutex();
    long long counter = 0;
    constexpr int kThreads = 3, kRounds = 5000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < kRounds; ++i) {
                Synchronized outer(mutex);
                const long long seen = counter;
                if (i % 8 == 0) std::this_thread::yield();
                Synchronized inner(mutex);
                counter = seen + 1;
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(counter, kThreads * kRounds);
}

TEST(MutexDeathTest, MisuseStops) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(NewMutex()->Unlock(),
                 "PANIC: Assertion \"_mutex.IsLocked\\(\\)\" failed at system/MutexImpl:[0-9]+");
    EXPECT_DEATH(
        {
            Ref<Mutex> mutex = NewMutex();
            mutex->Lock();
            mutex.Reset();
        },
        "PANIC: Assertion \"!_mutex.IsLocked\\(\\)\" failed at system/MutexImpl:[0-9]+");
    EXPECT_DEATH(
        {
            Ref<Mutex> mutex = NewMutex();
            mutex->Lock();
            std::thread([&] { mutex->Unlock(); }).join();
        },
        "PANIC: Assertion \"_mutex.IsLockedByThisThread\\(\\)\" failed at "
        "system/MutexImpl:[0-9]+");
}

TEST(MultiSynchronizedDeathTest, MisuseStops) {
    Ref<Mutex> mutex = NewMutex();
    EXPECT_DEATH(
        {
            MultiSynchronized set;
            set.AddLockable(mutex.Get());
            set.Lock();
            set.AddLockable(mutex.Get());
        },
        "PANIC: Assertion \"!_isLocked\" failed at public/tessera/system/syncRaii:[0-9]+");
    EXPECT_DEATH(
        {
            MultiSynchronized set;
            set.Lock();
            set.Lock();
        },
        "PANIC: Assertion \"!_isLocked\" failed at public/tessera/system/syncRaii:[0-9]+");
    EXPECT_DEATH(
        {
            MultiReadWriteSynchronized set;
            set.Unlock();
        },
        "PANIC: Assertion \"_isLocked\" failed at public/tessera/system/syncRaii:[0-9]+");
}
