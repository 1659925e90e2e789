#include <tessera/system/syncRaii.h>
#include <tessera/system/system.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

using namespace Tessera;
using namespace Tessera::System;

namespace {

Ref<RWLock> NewRWLock(RWLockableObject::LockMode mode) {
    Ref<RWLock> lock;
    GetSystemFactory()->CreateRWLock(mode, lock);
    return lock;
}

class Notified : public RWLockableNotifiedObjectImpl {
public:
    int value = 0; // guarded by the lock
};

void SpinUntil(const std::atomic<bool>& flag) {
    while (!flag.load()) std::this_thread::yield();
}

bool WaitFor(const std::atomic<bool>& flag, std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!flag.load() && std::chrono::steady_clock::now() < end) std::this_thread::yield();
    return flag.load();
}

// Holds the read lock while another thread waits for the write lock, then
// lets a third thread try to read; true when that reader got in.
bool ReaderPassesWaitingWriter(RWLockableObject::LockMode mode, std::chrono::milliseconds settle) {
    Ref<RWLock> lock = NewRWLock(mode);
    std::atomic<bool> writerStarted{false}, readerIn{false};
    lock->ReadLock();
    std::thread writer([&] {
        writerStarted.store(true);
        WriteSynchronized hold(lock);
    });
    SpinUntil(writerStarted);
    std::this_thread::sleep_for(settle); // for the writer to reach its wait
    std::thread reader([&] {
        ReadSynchronized hold(lock);
        readerIn.store(true);
    });
    const bool passed = WaitFor(readerIn, std::chrono::milliseconds(
        mode == RWLockableObject::WriterPreferring ? 50 : 5000));
    lock->Unlock();
    writer.join();
    reader.join();
    return passed;
}

} // namespace

TEST(RWLock, RecursiveReadsAndConversions) {
    Ref<RWLock> lock = NewRWLock(RWLockableObject::WriterPreferring);
    EXPECT_TRUE(lock->IsUnlocked());
    lock->ReadLock();
    lock->ReadLock();
    EXPECT_TRUE(lock->IsReadLocked());
    EXPECT_FALSE(lock->UpgradeReadLock()); // held twice: refused, both holds kept
    lock->Unlock();
    EXPECT_TRUE(lock->IsReadLocked());
    lock->Unlock();
    EXPECT_TRUE(lock->IsUnlocked()); // read twice, unlocked twice: free

    lock->ReadLock();
    ASSERT_TRUE(lock->UpgradeReadLock()); // the only reader: at once
    EXPECT_TRUE(lock->IsWriteLocked());
    lock->DowngradeWriteLock();
    EXPECT_TRUE(lock->IsReadLocked());
    std::thread([&] { ReadSynchronized beside(lock); }).join();
    lock->Unlock();
    EXPECT_TRUE(lock->IsUnlocked());
}

// Two readers upgrade at once: the second to ask is refused instead of
// waiting for the first, which waits for it; once it unlocks, the first gets
// the write lock.
TEST(RWLock, OfTwoConcurrentUpgradesOneIsRefused) {
    for (int round = 0; round < 20; ++round) {
        Ref<RWLock> lock = NewRWLock(round % 2 ? RWLockableObject::ReaderPreferring
                                               : RWLockableObject::WriterPreferring);
        std::atomic<int> holding{0}, upgraded{0}, refused{0};
        auto upgrader = [&] {
            lock->ReadLock();
            holding.fetch_add(1);
            while (holding.load() < 2) std::this_thread::yield();
            if (lock->UpgradeReadLock()) {
                EXPECT_TRUE(lock->IsWriteLocked());
                upgraded.fetch_add(1);
            } else {
                refused.fetch_add(1);
            }
            lock->Unlock();
        };
        std::thread a(upgrader), b(upgrader);
        a.join();
        b.join();
        EXPECT_EQ(upgraded.load(), 1);
        EXPECT_EQ(refused.load(), 1);
        EXPECT_TRUE(lock->IsUnlocked());
    }
}

TEST(RWLock, ModeDecidesWhetherReadersPassAWaitingWriter) {
    // A reader never waits for a writer that only waits.
    EXPECT_TRUE(ReaderPassesWaitingWriter(RWLockableObject::ReaderPreferring,
                                          std::chrono::milliseconds(5)));
    // Held back once the writer waits; the writer may need a moment to get
    // there, so a later attempt gives it longer.
    bool heldBack = false;
    for (int attempt = 1; attempt <= 5 && !heldBack; ++attempt) {
        heldBack = !ReaderPassesWaitingWriter(RWLockableObject::WriterPreferring,
                                              std::chrono::milliseconds(5 * attempt));
    }
    EXPECT_TRUE(heldBack);
}

TEST(RWLockNotified, WaitForChangeGivesTheHoldUpAndTakesItBack) {
    Ref<Notified> object(new Notified);
    object->ReadLock();
    object->ReadLock();
    // The writer gets in only while the waiter has given up both read holds.
    std::thread writer([&] {
        WriteSynchronized hold(object);
        object->value = 1;
    });
    while (object->value == 0) ASSERT_TRUE(object->WaitForChange(InfiniteTimeDuration));
    writer.join();
    EXPECT_TRUE(object->IsReadLocked());
    object->Unlock();
    EXPECT_TRUE(object->IsReadLocked());
    object->Unlock();
    EXPECT_TRUE(object->IsUnlocked());

    object->WriteLock();
    EXPECT_FALSE(object->WaitForChange(1000)); // nobody changes it
    EXPECT_TRUE(object->IsWriteLocked());
    object->Unlock();

    // A downgrade wakes the waiter, which reads beside the downgraded hold.
    std::atomic<bool> reading{false};
    std::thread waiter([&] {
        ReadSynchronized hold(object);
        reading.store(true);
        while (object->value != 2) {
            ASSERT_TRUE(object->WaitForChange(10 * 1000 * 1000));
        }
    });
    SpinUntil(reading);
    object->WriteLock(); // in once the waiter has given its hold up
    object->value = 2;
    object->DowngradeWriteLock();
    waiter.join(); // still holding the read lock: only the downgrade woke it
    object->Unlock();
}

namespace {

// Readers and writers of every kind on one lock. Writers keep `a` and `b`
// equal and must be alone; readers must see them equal and no writer.
void Hammer(RWLockableObject* lock, RWLockableNotifiedObject* notified) {
    long long a = 0, b = 0;
    std::atomic<int> readers{0}, writers{0};
    std::atomic<bool> done{false};
    constexpr int kRounds = 1500;
    auto checkRead = [&] {
        const int before = readers.fetch_add(1);
        EXPECT_EQ(writers.load(), 0);
        if (before == 0) std::this_thread::yield();
        EXPECT_EQ(a, b);
        readers.fetch_sub(1);
    };
    auto write = [&] {
        EXPECT_EQ(writers.fetch_add(1), 0);
        EXPECT_EQ(readers.load(), 0);
        ++a;
        if (a % 8 == 0) std::this_thread::yield(); // let the others run into the lock
        ++b;
        writers.fetch_sub(1);
    };
    std::atomic<int> started{0};
    auto startTogether = [&] {
        started.fetch_add(1);
        while (started.load() < 4) std::this_thread::yield();
    };
    auto writer = [&] {
        startTogether();
        for (int i = 0; i < kRounds; ++i) {
            lock->WriteLock();
            write();
            if (i % 3 == 0) {
                lock->DowngradeWriteLock();
                checkRead();
            }
            lock->Unlock();
        }
    };
    auto reader = [&] {
        startTogether();
        for (int i = 0; i < kRounds; ++i) {
            lock->ReadLock();
            checkRead();
            if (i % 4 == 0) {
                lock->ReadLock();
                checkRead();
                lock->Unlock();
            }
            if (i % 5 == 0 && lock->UpgradeReadLock()) write();
            lock->Unlock();
        }
    };
    std::vector<std::thread> threads;
    threads.emplace_back(writer);
    threads.emplace_back(writer);
    threads.emplace_back(reader);
    threads.emplace_back(reader);
    std::thread watcher;
    if (notified != nullptr) {
        watcher = std::thread([&] {
            while (!done.load()) {
                ReadSynchronized hold(lock);
                checkRead();
                notified->WaitForChange(500);
                checkRead();
            }
        });
    }
    for (auto& t : threads) t.join();
    done.store(true);
    if (watcher.joinable()) watcher.join();
    EXPECT_GE(a, 2 * kRounds);
    EXPECT_TRUE(lock->IsUnlocked());
}

} // namespace

TEST(RWLockStress, WriterPreferring) {
    Hammer(NewRWLock(RWLockableObject::WriterPreferring).Get(), nullptr);
}

TEST(RWLockStress, ReaderPreferring) {
    Hammer(NewRWLock(RWLockableObject::ReaderPreferring).Get(), nullptr);
}

TEST(RWLockStress, NotifiedWithAWaiter) {
    Ref<Notified> object(new Notified);
    Hammer(object.Get(), object.Get());
}

TEST(RWLockStress, OppositeReadWriteSetsDoNotDeadlock) {
    Ref<RWLock> x = NewRWLock(RWLockableObject::WriterPreferring);
    Ref<RWLock> y = NewRWLock(RWLockableObject::ReaderPreferring);
    long long count = 0; // written under both write locks
    constexpr int kRounds = 2000;
    auto hammer = [&](RWLock* first, RWLock* second) {
        for (int i = 0; i < kRounds; ++i) {
            MultiReadWriteSynchronized both;
            both.AddLockable(first);
            both.AddLockable(second);
            if (i % 2) {
                both.ReadLock();
                EXPECT_GE(count, 0);
            } else {
                both.WriteLock();
                ++count;
            }
        }
    };
    std::thread t1(hammer, x.Get(), y.Get());
    std::thread t2(hammer, y.Get(), x.Get());
    t1.join();
    t2.join();
    EXPECT_EQ(count, kRounds);
}

TEST(RWLockDeathTest, MisuseStops) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const char* where = "\" failed at system/rwLock:[0-9]+";
    auto lock = [] { return NewRWLock(RWLockableObject::WriterPreferring); };
    EXPECT_DEATH(
        {
            Ref<RWLock> l = lock();
            l->WriteLock();
            l->WriteLock();
        },
        std::string("PANIC: Assertion \"locks.find\\(this\\) == locks.end\\(\\)") + where);
    EXPECT_DEATH(
        {
            Ref<RWLock> l = lock();
            l->ReadLock();
            l->WriteLock();
        },
        std::string("PANIC: Assertion \"locks.find\\(this\\) == locks.end\\(\\)") + where);
    EXPECT_DEATH(
        {
            Ref<RWLock> l = lock();
            l->WriteLock();
            l->ReadLock();
        },
        std::string("PANIC: Assertion \"_status > 0") + where);
    EXPECT_DEATH(lock()->Unlock(),
                 std::string("PANIC: Assertion \"it != locks.end\\(\\)") + where);
    EXPECT_DEATH(
        {
            Ref<RWLock> l = lock();
            l->ReadLock();
            std::thread([&] { l->Unlock(); }).join(); // not this thread's hold
        },
        std::string("PANIC: Assertion \"it != locks.end\\(\\)") + where);
    EXPECT_DEATH(
        {
            Ref<RWLock> l = lock();
            l->WriteLock();
            l->UpgradeReadLock();
        },
        std::string("PANIC: Assertion \"it != locks.end\\(\\) && it->second == 1") + where);
    EXPECT_DEATH(
        {
            Ref<RWLock> l = lock();
            l->ReadLock();
            l->DowngradeWriteLock();
        },
        std::string("PANIC: Assertion \"it != locks.end\\(\\) && it->second == -1") + where);
    EXPECT_DEATH(
        {
            Ref<Notified> n(new Notified);
            n->WaitForChange(-1);
        },
        std::string("PANIC: Assertion \"microseconds == InfiniteTimeDuration \\|\\| "
                    "microseconds >= 0") + where);
    EXPECT_DEATH(
        {
            Ref<RWLock> l = lock();
            l->ReadLock();
            l.Reset();
        },
        std::string("PANIC: Assertion \"_status == 0") + where);
}
