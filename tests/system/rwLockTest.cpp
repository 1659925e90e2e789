#include "tests/system/syncTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <vector>

using namespace SyncTest;

namespace {

struct Notified : RWLockableNotifiedObjectImpl {
    int value = 0; // guarded by the lock
};

// Holds the read lock while a writer waits for it (given `settle` to get
// there), then lets a third thread read; true when that reader got in.
bool ReaderPassesWaitingWriter(RWLockableObject::LockMode mode, std::chrono::milliseconds settle) {
    Ref<RWLock> lock = NewRWLock(mode);
    std::atomic<bool> readerIn{false};
    lock->ReadLock();
    std::thread writer([&] { WriteSynchronized hold(lock); });
    std::this_thread::sleep_for(settle);
    std::thread reader([&] {
        ReadSynchronized hold(lock);
        readerIn.store(true);
    });
    const auto end = std::chrono::steady_clock::now() + (mode ? settle : std::chrono::seconds(60));
    while (!readerIn.load() && std::chrono::steady_clock::now() < end) std::this_thread::yield();
    const bool passed = readerIn.load();
    lock->Unlock();
    writer.join();
    reader.join();
    return passed;
}

} // namespace

TEST(RWLock, RecursiveReadsConversionsAndSets) {
    Ref<RWLock> lock = NewRWLock(), other = NewRWLock(RWLockableObject::ReaderPreferring);
    lock->ReadLock();
    lock->ReadLock();
    EXPECT_FALSE(lock->UpgradeReadLock()); // held twice: refused, both holds kept
    lock->Unlock();
    EXPECT_TRUE(lock->IsReadLocked());
    lock->Unlock();
    EXPECT_TRUE(lock->IsUnlocked()); // read twice, unlocked twice: free

    std::vector<Ref<RWLock>> many(40); // more holds than a thread keeps in place
    for (auto& l : many) (l = NewRWLock())->ReadLock();
    many[3]->ReadLock();
    for (auto& l : many) l->Unlock();
    EXPECT_TRUE(many[3]->IsReadLocked());
    many[3]->Unlock();

    MultiReadWriteSynchronized both;
    both.AddLockable(other.Get());
    both.AddLockable(lock.Get());
    both.ReadLock();
    ASSERT_TRUE(lock->UpgradeReadLock()); // the only reader: at once
    EXPECT_TRUE(lock->IsWriteLocked() && other->IsReadLocked());
    std::atomic<bool> beside{false};
    std::thread reader([&] { // asleep on the write hold, woken by the downgrade
        ReadSynchronized hold(lock);
        beside.store(true);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    lock->DowngradeWriteLock();
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!beside.load() && std::chrono::steady_clock::now() < end) std::this_thread::yield();
    EXPECT_TRUE(beside.load());
    both.Unlock();
    reader.join();
    both.WriteLock();
    EXPECT_TRUE(lock->IsWriteLocked() && other->IsWriteLocked());
    both.Unlock();
    EXPECT_TRUE(lock->IsUnlocked() && other->IsUnlocked());
}

// Of two readers that upgrade at once, the second to ask is refused rather
// than wait for the first, which waits for it; once it unlocks, the first writes.
TEST(RWLock, OfTwoConcurrentUpgradesOneIsRefused) {
    for (int round = 0; round < 20; ++round) {
        Ref<RWLock> lock = NewRWLock(static_cast<RWLockableObject::LockMode>(round % 2));
        std::atomic<int> holding{0}, upgraded{0};
        auto upgrader = [&] {
            ReadSynchronized hold(lock);
            holding.fetch_add(1);
            while (holding.load() < 2) std::this_thread::yield();
            if (lock->UpgradeReadLock()) upgraded.fetch_add(lock->IsWriteLocked() ? 1 : 100);
        };
        std::thread a(upgrader), b(upgrader);
        a.join();
        b.join();
        EXPECT_EQ(upgraded.load(), 1);
    }
}

TEST(RWLock, ModeDecidesWhetherReadersPassAWaitingWriter) {
    EXPECT_TRUE(ReaderPassesWaitingWriter(RWLockableObject::ReaderPreferring,
                                          std::chrono::milliseconds(5)));
    // The writer may need a moment to start waiting, more on a busy machine:
    // later tries give it more, until one finds it waiting. A reader that
    // passes a waiting writer passes in every try.
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    bool heldBack = false;
    for (int attempt = 1; !heldBack && std::chrono::steady_clock::now() < end; ++attempt) {
        heldBack =
            !ReaderPassesWaitingWriter(RWLockableObject::WriterPreferring,
                                       std::chrono::milliseconds(20 * std::min(attempt, 10)));
    }
    EXPECT_TRUE(heldBack);
}

TEST(RWLockNotified, WaitForChangeGivesTheHoldUpAndTakesItBack) {
    Ref<Notified> object(new Notified);
    object->ReadLock();
    object->ReadLock();
    std::thread writer([&] { // gets in only while both read holds are given up
        WriteSynchronized hold(object);
        object->value = 1;
    });
    while (object->value == 0) ASSERT_TRUE(object->WaitForChange(InfiniteTimeDuration));
    writer.join();
    object->Unlock();
    EXPECT_TRUE(object->IsReadLocked());
    EXPECT_FALSE(object->WaitForChange(1000)); // nobody changes it
    object->Unlock();

    std::atomic<bool> reading{false};
    std::thread waiter([&] {
        ReadSynchronized hold(object);
        reading.store(true);
        while (object->value != 2) ASSERT_TRUE(object->WaitForChange(60 * 1000 * 1000));
    });
    while (!reading.load()) std::this_thread::yield();
    object->WriteLock(); // in once the waiter has given its hold up
    object->value = 2;
    object->DowngradeWriteLock();
    waiter.join(); // the read lock is still held here: only the downgrade woke it
    object->Unlock();
}

// Writers keep `a` and `b` equal and must be alone; readers must see them
// equal and no writer. Every kind of hold and conversion takes part.
void Hammer(RWLockableObject* lock, RWLockableNotifiedObject* notified) {
    long long a = 0, b = 0;
    std::atomic<int> readers{0}, writers{0}, started{0};
    auto read = [&] {
        const int before = readers.fetch_add(1);
        EXPECT_EQ(writers.load(), 0);
        if (before == 0) std::this_thread::yield();
        EXPECT_EQ(a, b);
        readers.fetch_sub(1);
    };
    auto write = [&] {
        EXPECT_EQ(writers.fetch_add(1) + readers.load(), 0);
        if (++a % 8 == 0) std::this_thread::yield(); // others run into the lock
        ++b;
        writers.fetch_sub(1);
    };
    auto body = [&](int kind) {
        started.fetch_add(1);
        while (started.load() < 4) std::this_thread::yield();
        for (int i = 0; i < 2000; ++i) {
            kind ? lock->WriteLock() : lock->ReadLock();
            kind ? write() : read();
            if (kind && i % 3 == 0) {
                lock->DowngradeWriteLock();
                read();
            } else if (!kind && i % 4 == 0) {
                ReadSynchronized again(lock);
                read();
            } else if (!kind && i % 5 == 1 && lock->UpgradeReadLock()) {
                write();
            }
            lock->Unlock();
        }
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) threads.emplace_back(body, t % 2);
    while (notified != nullptr && started.load() < 5) { // until the others are done
        ReadSynchronized hold(lock);
        read();
        notified->WaitForChange(500);
        read();
        if (a >= 4000) started.store(5);
    }
    for (auto& t : threads) t.join();
    EXPECT_GE(a, 4000);
    EXPECT_TRUE(lock->IsUnlocked());
}

TEST(RWLockStress, BothModesAndNotified) {
    Hammer(NewRWLock(RWLockableObject::WriterPreferring).Get(), nullptr);
    Hammer(NewRWLock(RWLockableObject::ReaderPreferring).Get(), nullptr);
    Ref<Notified> object(new Notified);
    Hammer(object.Get(), object.Get());
}

TEST(RWLockDeathTest, MisuseStops) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto report = [](const char* condition) { return AssertionReport(condition, "system/rwLock"); };
    Ref<RWLock> lock = NewRWLock();
    lock->WriteLock();
    EXPECT_DEATH(lock->WriteLock(), report("locks.find(this) == locks.end()"));
    EXPECT_DEATH(lock->ReadLock(), report("_status > 0"));
    EXPECT_DEATH(lock->UpgradeReadLock(), report("it != locks.end() && it->second == 1"));
    EXPECT_DEATH(std::thread([&] { lock->Unlock(); }).join(), report("it != locks.end()"));
    lock->DowngradeWriteLock();
    EXPECT_DEATH(lock->WriteLock(), report("locks.find(this) == locks.end()"));
    EXPECT_DEATH(lock->DowngradeWriteLock(), report("it != locks.end() && it->second == -1"));
    EXPECT_DEATH(lock.Reset(), report("_status == 0"));
    lock->Unlock();
    EXPECT_DEATH(Ref<Notified>(new Notified)->WaitForChange(-1),
                 report("microseconds == InfiniteTimeDuration || microseconds >= 0"));
}
