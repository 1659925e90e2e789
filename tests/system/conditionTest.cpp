#include <tessera/system/syncRaii.h>
#include <tessera/system/system.h>
#include <tessera/weak.h>

#include "system/conditionTesting.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <deque>
#include <thread>
#include <vector>

using namespace Tessera;
using namespace Tessera::System;

namespace {

constexpr long long kSeconds = 1000 * 1000;

Ref<Condition> NewCondition() {
    Ref<Condition> condition;
    GetSystemFactory()->CreateCondition(condition);
    return condition;
}

// Spins, taking the object's lock each time, until `done` holds under it.
template <class Predicate> void UntilLocked(LockableObject* lockable, Predicate done) {
    for (;;) {
        {
            Synchronized hold(lockable);
            if (done()) return;
        }
        std::this_thread::yield();
    }
}

void SignalFromHook(void* condition) { static_cast<Condition*>(condition)->Signal(); }

} // namespace

TEST(Condition, WakesWaitersFirstComeFirstServed) {
    Ref<Condition> condition = NewCondition();
    int queued = -1;         // guarded by the condition's lock
    std::vector<int> woken;  // likewise
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&, i] {
            Synchronized hold(condition);
            queued = i;
            condition->Wait();
            woken.push_back(i);
        });
        // Thread i set `queued` under the lock and gave the lock up only in
        // its Wait, by when it was queued.
        UntilLocked(condition.Get(), [&] { return queued == i; });
    }
    for (std::size_t i = 0; i < threads.size(); ++i) {
        condition->Signal();
        UntilLocked(condition.Get(), [&] { return woken.size() == i + 1; });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(woken, (std::vector<int>{0, 1, 2}));
}

TEST(Condition, WaitGivesTheLockUpEntirelyAndTakesItBack) {
    Ref<Condition> condition = NewCondition();
    bool ready = false; // guarded by the condition's lock
    condition->Lock();
    condition->Lock();
    std::thread other([&] {
        Synchronized hold(condition); // only while the waiter waits
        ready = true;
        condition->Signal();
    });
    EXPECT_TRUE(condition->TimedWait(60 * kSeconds));
    EXPECT_TRUE(ready);
    condition->Unlock();
    EXPECT_TRUE(condition->IsLocked()); // at the depth it had
    condition->Unlock();
    EXPECT_FALSE(condition->IsLocked());
    other.join();

    // A signal with nobody waiting is not kept for a later wait.
    Synchronized hold(condition);
    condition->Signal();
    condition->Broadcast();
    EXPECT_FALSE(condition->TimedWait(0));
}

TEST(Condition, BroadcastWakesEveryWaiter) {
    Ref<Condition> condition = NewCondition();
    int waiting = 0, woken = 0; // guarded by the condition's lock
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&] {
            Synchronized hold(condition);
            ++waiting;
            EXPECT_TRUE(condition->TimedWait(60 * kSeconds));
            ++woken;
        });
    }
    UntilLocked(condition.Get(), [&] { return waiting == 3; });
    condition->Broadcast();
    for (auto& t : threads) t.join();
    EXPECT_EQ(woken, 3);
}

TEST(Condition, TimeoutsRoundDownToWholeMilliseconds) {
    Ref<Condition> condition = NewCondition();
    Synchronized hold(condition);
    auto twentyWaits = [&](long long microseconds) {
        const auto start = std::chrono::steady_clock::now();
        for (int i = 0; i < 20; ++i) EXPECT_FALSE(condition->TimedWait(microseconds));
        return std::chrono::steady_clock::now() - start;
    };
    EXPECT_GE(twentyWaits(1000), std::chrono::milliseconds(20));
    // 999 microseconds wait 0 milliseconds: twenty of them take well under
    // 20 ms, in at least one of a few tries on a busy machine.
    bool quick = false;
    for (int attempt = 0; attempt < 5 && !quick; ++attempt) {
        quick = twentyWaits(999) < std::chrono::milliseconds(10);
    }
    EXPECT_TRUE(quick);
}

TEST(Condition, ASignalJustAfterTheTimeoutCounts) {
    Ref<Condition> condition = NewCondition();
    Synchronized hold(condition);
    // The hook runs after the wait timed out and before the waiter looks
    // again: the waiter is still queued, so this Signal takes it out.
    Testing::SetTimedOutHook(&SignalFromHook, condition.Get());
    EXPECT_TRUE(condition->TimedWait(0));
    EXPECT_TRUE(condition->TimedWait(999));
    Testing::SetTimedOutHook(nullptr, nullptr);
    // Without the late signal the waiter times out and leaves the queue.
    EXPECT_FALSE(condition->TimedWait(0));
    condition->Signal(); // to nobody
    EXPECT_FALSE(condition->TimedWait(0));
}

TEST(Condition, WeakLinkableWaitableObject) {
    using Waitable = WeakLinkableImpl<WaitableObjectImpl>;
    Ref<Waitable> waitable(new Waitable);
    Ref<WeakLink> link;
    waitable->GetWeakLink(link);
    bool signalled = false, queued = false; // guarded by the object's lock
    std::thread waiter([&] {
        Ref<Object> strong;
        ASSERT_TRUE(link->Get(strong));
        auto* object = dynamic_cast<WaitableObject*>(strong.Get());
        ASSERT_NE(object, nullptr);
        Synchronized hold(object);
        queued = true;
        signalled = object->TimedWait(60 * kSeconds);
    });
    UntilLocked(waitable.Get(), [&] { return queued; });
    waitable->Signal();
    waiter.join();
    EXPECT_TRUE(signalled);
    waitable.Reset();
    EXPECT_TRUE(link->IsExpired());
}

// Producers hand items over to consumers that wait with short time-outs, so
// time-outs and signals cross all the time: every item arrives exactly once.
TEST(ConditionStress, ProducersAndTimedConsumers) {
    struct Queue : WaitableObjectImpl {
        std::deque<int> items;
        int producing = 0;
    };
    Ref<Queue> queue(new Queue);
    constexpr int kProducers = 2, kConsumers = 2, kItems = 2000;
    std::vector<int> received(kProducers * kItems, 0); // each slot written by one consumer
    queue->producing = kProducers;
    std::vector<std::thread> threads;
    for (int p = 0; p < kProducers; ++p) {
        threads.emplace_back([&, p] {
            for (int i = 0; i < kItems; ++i) {
                {
                    Synchronized hold(queue);
                    queue->items.push_back(p * kItems + i);
                    queue->Signal();
                }
                std::this_thread::yield(); // so that consumers run dry and wait
            }
            Synchronized hold(queue);
            --queue->producing;
            queue->Broadcast();
        });
    }
    for (int c = 0; c < kConsumers; ++c) {
        threads.emplace_back([&, c] {
            const long long timeouts[] = {0, 700, 1500, 3000};
            for (int n = c;; ++n) {
                Synchronized hold(queue);
                while (queue->items.empty() && queue->producing > 0) {
                    queue->TimedWait(timeouts[n++ % 4]);
                }
                if (queue->items.empty()) return;
                ++received[queue->items.front()];
                queue->items.pop_front();
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(std::count(received.begin(), received.end(), 1), kProducers * kItems);
}

// Strict turns: each signal has exactly one possible waiter, so a lost one
// leaves its waiter without a wake-up. One side waits with time-outs that
// keep expiring around the other side's signals.
TEST(ConditionStress, PingPongLosesNoWakeUp) {
    Ref<Condition> condition = NewCondition();
    int turn = 0; // guarded by the condition's lock; even: ping, odd: pong
    constexpr int kRounds = 2000;
    std::thread pong([&] {
        Synchronized hold(condition);
        for (int i = 0; i < kRounds; ++i) {
            while (turn % 2 == 0) ASSERT_TRUE(condition->TimedWait(30 * kSeconds));
            ++turn;
            condition->Signal();
        }
    });
    {
        Synchronized hold(condition);
        const long long timeouts[] = {0, 999, 1000, 2000};
        for (int i = 0; i < kRounds; ++i) {
            ++turn;
            condition->Signal();
            for (int n = 0; turn % 2 == 1; ++n) condition->TimedWait(timeouts[n % 4]);
        }
    }
    pong.join();
    EXPECT_EQ(turn, 2 * kRounds);
}

TEST(ConditionDeathTest, MisuseStops) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            Ref<Condition> condition = NewCondition();
            Synchronized hold(condition);
            condition->TimedWait(-1);
        },
        "PANIC: Assertion \"microseconds == InfiniteTimeDuration \\|\\| microseconds >= 0\" "
        "failed at system/condition:[0-9]+");
    EXPECT_DEATH(NewCondition()->Wait(),
                 "PANIC: Assertion \"_mutex.IsLockedByThisThread\\(\\)\" failed at "
                 "system/condition:[0-9]+");
    EXPECT_DEATH(
        {
            Ref<Condition> condition = NewCondition();
            Condition* raw = condition.Get();
            bool queued = false;
            std::thread([raw, &queued] {
                Synchronized hold(raw);
                queued = true;
                raw->Wait();
            }).detach();
            UntilLocked(raw, [&] { return queued; });
            condition.Reset(); // with a waiter queued
        },
        "PANIC: Assertion \"_waiters.empty\\(\\)\" failed at system/condition:[0-9]+");
}
