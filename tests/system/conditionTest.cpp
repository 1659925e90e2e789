#include <tessera/weak.h>

#include "system/conditionTesting.h"
#include "tests/system/syncTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <vector>

using namespace SyncTest;

TEST(Condition, WakesWaitersFirstComeFirstServed) {
    Ref<Condition> condition = NewCondition();
    int queued = -1; // guarded by the condition's lock
    std::vector<int> woken; // likewise
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&, i] {
            Synchronized hold(condition);
            Synchronized again(condition); // Wait gives up both and takes both back
            queued = i;
            condition->Wait();
            woken.push_back(i);
        });
        // Thread i set `queued` under the lock and gives the lock up only in
        // its Wait, once it is queued.
        UntilLocked(condition.Get(), [&] { return queued == i; });
    }
    condition->Signal();
    UntilLocked(condition.Get(), [&] { return woken.size() == 1; });
    condition->Signal();
    UntilLocked(condition.Get(), [&] { return woken.size() == 2; });
    condition->Broadcast();
    for (auto& t : threads) t.join();
    ASSERT_EQ(woken.size(), 4u);
    EXPECT_EQ(woken[0], 0);
    EXPECT_EQ(woken[1], 1);
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
    // 999 microseconds wait 0 ms: twenty take well under 20 ms, which a busy
    // machine shows in one try of many. Waits of 1 ms never do, however long
    // the tries go on.
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    bool quick = false;
    while (!quick && std::chrono::steady_clock::now() < end) {
        quick = twentyWaits(999) < std::chrono::milliseconds(10);
    }
    EXPECT_TRUE(quick);
}

TEST(Condition, ASignalJustAfterTheTimeoutCounts) {
    using Waitable = WeakLinkableImpl<WaitableObjectImpl>;
    Ref<Waitable> waitable(new Waitable);
    Ref<WeakLink> link;
    waitable->GetWeakLink(link);
    Ref<Object> strong;
    ASSERT_TRUE(link->Get(strong));
    auto* object = dynamic_cast<WaitableObject*>(strong.Get());
    Synchronized hold(object);
    // Runs after the wait timed out, before the waiter looks again: the
    // waiter is still queued, so this Signal takes it out and sets its event.
    Testing::SetTimedOutHook([](void* o) { static_cast<WaitableObject*>(o)->Signal(); }, object);
    EXPECT_TRUE(object->TimedWait(999));
    Testing::SetTimedOutHook(nullptr, nullptr);
    EXPECT_FALSE(object->TimedWait(0)); // timed out, and out of the queue
    object->Signal(); // to nobody: not kept for a later wait
    EXPECT_FALSE(object->TimedWait(0));
}

// Producers hand items to consumers that wait with short time-outs, so
// time-outs and signals keep crossing: every item arrives exactly once.
TEST(ConditionStress, ProducersAndTimedConsumers) {
    struct Queue : WaitableObjectImpl {
        std::deque<int> items;
        int producing = 2;
    };
    Ref<Queue> queue(new Queue);
    constexpr int kItems = 2000;
    std::vector<int> received(2 * kItems, 0);
    std::vector<std::thread> threads;
    for (int p = 0; p < 2; ++p) {
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
        threads.emplace_back([&, p] {
            const long long timeouts[] = {0, 700, 1500, 3000};
            for (int n = p;; ++n) {
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
    EXPECT_EQ(std::count(received.begin(), received.end(), 1), 2 * kItems);
}

TEST(ConditionDeathTest, MisuseStops) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::string source = "system/condition";
    Ref<Condition> condition = NewCondition();
    EXPECT_DEATH(condition->Wait(), AssertionReport("_mutex.IsLockedByThisThread()", source));
    Synchronized hold(condition);
    EXPECT_DEATH(
        condition->TimedWait(-1),
        AssertionReport("microseconds == InfiniteTimeDuration || microseconds >= 0", source));
    EXPECT_DEATH(
        {
            bool queued = false;
            std::thread([&] {
                Synchronized waiting(condition);
                queued = true;
                condition->Wait();
            }).detach();
            condition->Unlock();
            UntilLocked(condition.Get(), [&] { return queued; });
            condition.Reset(); // with a waiter queued
        },
        AssertionReport("_waiters.empty()", source));
}
