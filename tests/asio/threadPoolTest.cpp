// The thread pool: settings and their checks, work items, class limits and the
// idle exit, timers and their cancellation, deferred calls, membership,
// exceptions in handlers, statistics and shutdown.

#include <tessera/exception.h>
#include <tessera/perfCounter/registry.h>
#include <tessera/system/system.h>
#include <tessera/system/threadPool.h>

#include "system/threadPoolTesting.h"
#include "tests/asio/poolTestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

using namespace Tessera;
using namespace Tessera::System;
using Service::Logger;
using Tessera::PoolTest::LogCapture;
using Tessera::PoolTest::PoolConfig;
using Tessera::PoolTest::WaitFor;

namespace {

Ref<ThreadPool> MakePool(const std::vector<std::pair<std::string, std::string>>& settings) {
    Ref<Service::Config> config = PoolConfig(settings);
    const Service::Config::View view = config->GetView().GetChild("ThreadPool");
    Ref<ThreadPool> pool;
    GetSystemFactory()->CreateThreadPool(&view, pool);
    return pool;
}

std::int64_t Statistic(const ThreadPool& pool, const std::string& name) {
    std::vector<ThreadPool::Statistic> stats;
    pool.GetStatistics(stats);
    for (const auto& s : stats) {
        if (s.name == name) return s.value;
    }
    ADD_FAILURE() << "no statistic " << name;
    return -1;
}

// Holds work items until opened.
class Gate {
public:
    void Wait() {
        std::unique_lock<std::mutex> hold(_lock);
        _changed.wait(hold, [this] { return _open; });
    }
    void Open() {
        std::lock_guard<std::mutex> hold(_lock);
        _open = true;
        _changed.notify_all();
    }

private:
    std::mutex _lock;
    std::condition_variable _changed;
    bool _open = false;
};

} // namespace

// ---- settings ----

TEST(ThreadPoolConfig, DefaultsAndLaunchMessages) {
    LogCapture log;
    Ref<ThreadPool> pool = MakePool({});
    EXPECT_TRUE(
        log->Contains("Thread pool on asio: Min Io, Max Io, Min Task, Max Task, Max "
                      "Concurency: 2, 200, 2, 10, 2147483647"))
        << log->Text();
    EXPECT_TRUE(log->Contains("Thread pool launched"));
    EXPECT_TRUE(WaitFor([&] { return Statistic(*pool, "IOThreads") == 2; }));
    EXPECT_EQ(Statistic(*pool, "WorkerThreads"), 2);
    EXPECT_EQ(Statistic(*pool, "MaxIOThreads"), 200);
    EXPECT_EQ(Statistic(*pool, "MaxWorkerThreads"), 10);
    EXPECT_EQ(Statistic(*pool, "MaxTotalThreads"), 210);
    EXPECT_EQ(Statistic(*pool, "RunningThreads"), 0);
    EXPECT_EQ(Statistic(*pool, "TimeMapSize"), 0);
    EXPECT_EQ(Statistic(*pool, "WorkQueueSize"), 0);
    pool->Shutdown();
}

TEST(ThreadPoolConfig, CorrectionsAndLimitChecks) {
    {
        LogCapture log;
        Ref<ThreadPool> pool = MakePool({{"IoMax", "4"},
                                         {"IoMaxCorrection", "3"},
                                         {"TaskMax", "5"},
                                         {"TaskMaxCorrection", "-1"},
                                         {"maxConcurrency", "8"}});
        EXPECT_EQ(Statistic(*pool, "MaxIOThreads"), 7);
        EXPECT_EQ(Statistic(*pool, "MaxWorkerThreads"), 4);
        EXPECT_TRUE(log->Contains("Concurency: 2, 7, 2, 4, 8")) << log->Text();
        pool->Shutdown();
    }
    try {
        MakePool({{"IoMin", "300"}});
        FAIL() << "IoMin above IoMax accepted";
    } catch (const InvalidArgumentException& e) {
        EXPECT_STREQ(e.what(), "Invalid argument : 'IoMin' is greater than 'IoMax'");
    }
    try {
        MakePool({{"TaskMin", "3"}, {"TaskMax", "4"}, {"TaskMaxCorrection", "-2"}});
        FAIL() << "TaskMin above the corrected TaskMax accepted";
    } catch (const InvalidArgumentException& e) {
        EXPECT_STREQ(e.what(), "Invalid argument : 'TaskMin' is greater than 'TaskMax'");
    }
}

TEST(ThreadPoolConfig, StackSizeIsClampedWithWarnings) {
    struct Case {
        const char* value;
        const char* warning;
    } cases[] = {
        {"0", nullptr},
        {"4096", "Stack size value 4096 bigger than maxStackSize 2048, Set to max"},
        {"16", "Stack size value 16 smaller than minStackSize 32, Set to min"},
        {"2048", nullptr},
    };
    for (const Case& c : cases) {
        LogCapture log;
        Ref<ThreadPool> pool = MakePool({{"ThreadStackSizeKb", c.value}});
        if (c.warning) {
            EXPECT_TRUE(log->Contains(c.warning)) << c.value << ": " << log->Text();
        } else {
            EXPECT_FALSE(log->Contains("Stack size value")) << c.value << ": " << log->Text();
        }
        // The threads run on whatever stack they got.
        std::atomic<int> ran{0};
        pool->QueueWorkItem([&] { ++ran; });
        EXPECT_TRUE(WaitFor([&] { return ran.load() == 1; }));
        pool->Shutdown();
    }
}

TEST(ThreadPoolConfig, SetConfigChecksInOrderAndKeepsOldLimits) {
    LogCapture log;
    Ref<ThreadPool> pool = MakePool({{"IoMax", "8"}, {"TaskMax", "6"}});
    struct Case {
        std::vector<std::pair<std::string, std::string>> settings;
        const char* message;
    } refused[] = {
        // Every case breaks the later checks too: the first in order wins.
        {{{"TaskMax", "5"}, {"TaskMin", "9"}, {"IoMax", "1"}},
         "Invalid argument : Reducing TaskMax from 6 to 5 is not supported."},
        {{{"TaskMin", "9"}, {"IoMax", "1"}, {"IoMin", "5"}},
         "Invalid argument : TaskMin 9 is greater than TaskMax 6"},
        {{{"IoMax", "1"}, {"IoMin", "5"}},
         "Invalid argument : Reducing IoMax from 8 to 1 is not supported."},
        {{{"IoMin", "9"}}, "Invalid argument : IoMin 9 is greater than IoMax 8"},
    };
    for (const Case& c : refused) {
        Ref<Service::Config> config = PoolConfig(c.settings);
        try {
            pool->SetConfig(config->GetView().GetChild("ThreadPool"));
            ADD_FAILURE() << "accepted: " << c.message;
        } catch (const InvalidArgumentException& e) {
            EXPECT_STREQ(e.what(), c.message);
        }
        EXPECT_EQ(Statistic(*pool, "MaxIOThreads"), 8);
        EXPECT_EQ(Statistic(*pool, "MaxWorkerThreads"), 6);
    }
    EXPECT_FALSE(log->Contains("[SetConfig]"));

    Ref<Service::Config> raise =
        PoolConfig({{"TaskMax", "7"}, {"TaskMin", "3"}, {"IoMax", "9"}, {"IoMin", "1"}});
    pool->SetConfig(raise->GetView().GetChild("ThreadPool"));
    EXPECT_TRUE(
        log->Contains("[SetConfig] Thread info: IoMin: 1, IoMax: 9, TaskMin: 3, TaskMax: 7"))
        << log->Text();
    EXPECT_EQ(Statistic(*pool, "MaxWorkerThreads"), 7);
    EXPECT_EQ(Statistic(*pool, "MaxIOThreads"), 9);
    // A raised minimum starts its threads at once.
    EXPECT_TRUE(WaitFor([&] { return Statistic(*pool, "WorkerThreads") >= 3; }));
    pool->Shutdown();
}

// ---- work items ----

// Four threads post `perThread` items each through `post`; every item runs
// exactly once.
static void EveryItemRunsExactlyOnce(ThreadPool& pool, int perThread,
                                     bool (*post)(ThreadPool&, int, const ThreadPool::WorkItem&)) {
    constexpr int kThreads = 4;
    std::unique_ptr<std::atomic<unsigned char>[]> runs(
        new std::atomic<unsigned char>[perThread * kThreads]());
    std::atomic<int> done{0};
    std::vector<std::thread> posters;
    for (int t = 0; t < kThreads; ++t) {
        posters.emplace_back([&, t] {
            for (int i = 0; i < perThread; ++i) {
                const int index = t * perThread + i;
                ASSERT_TRUE(post(pool, i, [&runs, &done, index] {
                    runs[index].fetch_add(1, std::memory_order_relaxed);
                    done.fetch_add(1, std::memory_order_release);
                }));
            }
        });
    }
    for (std::thread& t : posters) t.join();
    ASSERT_TRUE(WaitFor([&] { return done.load() == perThread * kThreads; }, 60));
    pool.Shutdown();
    int wrong = 0;
    for (int i = 0; i < perThread * kThreads; ++i) wrong += runs[i].load() != 1;
    EXPECT_EQ(wrong, 0);
}

TEST(ThreadPoolWork, EveryItemFromFourThreadsRunsExactlyOnce) {
    Ref<ThreadPool> pool = MakePool({{"TaskMin", "4"}, {"TaskMax", "4"}});
#if defined(__SANITIZE_THREAD__)
    constexpr int kPerThread = 50 * 1000; // the race detector is some 20 times slower
#else
    constexpr int kPerThread = 250 * 1000; // a million in all
#endif
    EveryItemRunsExactlyOnce(*pool, kPerThread,
                             [](ThreadPool& p, int, const ThreadPool::WorkItem& f) {
                                 return p.QueueWorkItem(f, ThreadPool::WORK_TASK);
                             });
}

// Items that come one or a few at a time find the threads asleep, being woken
// or still looking: none may be left queued while every thread sleeps (this
// pool has no idle tick: nothing but a later post would look again).
TEST(ThreadPoolWork, TricklingItemsFromTwoThreadsNeverWaitForALaterPost) {
    Ref<ThreadPool> pool = MakePool({{"TaskMin", "4"}, {"TaskMax", "4"}});
    std::atomic<int> stuckRounds{0};
    std::vector<std::thread> posters;
    for (int t = 0; t < 2; ++t) {
        posters.emplace_back([&, t] {
            std::mt19937 random(t);
            std::atomic<int> done{0};
            int posted = 0;
            for (int round = 0; round < 1500; ++round) {
                const int burst = 1 + static_cast<int>(random() % 6);
                for (int i = 0; i < burst; ++i) {
                    pool->QueueWorkItem([&done] { done.fetch_add(1); }, ThreadPool::WORK_TASK);
                }
                posted += burst;
                if (!WaitFor([&] { return done.load() == posted; })) {
                    ++stuckRounds;
                    return;
                }
            }
        });
    }
    for (std::thread& t : posters) t.join();
    pool->Shutdown();
    EXPECT_EQ(stuckRounds.load(), 0);
}

// I/O work goes through the I/O service (one system call a post on Windows):
// fewer of them, half as completions.
TEST(ThreadPoolWork, IoItemsFromFourThreadsRunExactlyOnce) {
    Ref<ThreadPool> pool = MakePool({{"IoMin", "2"}, {"IoMax", "4"}});
    EveryItemRunsExactlyOnce(*pool, 5000, [](ThreadPool& p, int i, const ThreadPool::WorkItem& f) {
        return (i & 1) != 0 ? p.PostCompletion(f) : p.QueueWorkItem(f, ThreadPool::WORK_IO);
    });
}

#ifdef TESSERA_TEST_HOOKS
// A class grows while its threads are all blocked and work waits, never past
// its maximum; with the idle exit on, it falls back to its minimum.
class ThreadPoolClassLimits : public testing::TestWithParam<ThreadPool::WorkType> {};

TEST_P(ThreadPoolClassLimits, GrowToMaxThenExitBackToMin) {
    Testing::SetPoolIdleTickUsec(20 * 1000);
    const ThreadPool::WorkType type = GetParam();
    const bool io = type == ThreadPool::WORK_IO;
    // A check time of 5 s is under one tick: the check runs on every tick.
    Ref<ThreadPool> pool = MakePool({{"IoMin", "1"},
                                     {"IoMax", io ? "4" : "2"},
                                     {"TaskMin", "1"},
                                     {"TaskMax", io ? "2" : "4"},
                                     {"exitIdleThreads", "true"},
                                     {"ThreadCheckTimeSecs", "5"}});
    const char* threads = io ? "IOThreads" : "WorkerThreads";
    Gate gate;
    std::atomic<int> inside{0}, most{0}, finished{0};
    constexpr int kItems = 12;
    for (int i = 0; i < kItems; ++i) {
        pool->QueueWorkItem(
            [&] {
                const int now = ++inside;
                int seen = most.load();
                while (now > seen && !most.compare_exchange_weak(seen, now)) {}
                gate.Wait();
                --inside;
                ++finished;
            },
            type);
    }
    ASSERT_TRUE(WaitFor([&] { return most.load() == 4; })) << most.load();
    EXPECT_EQ(Statistic(*pool, threads), 4);
    EXPECT_EQ(Statistic(*pool, "WorkQueueSize"), kItems - 4);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(most.load(), 4);
    gate.Open();
    ASSERT_TRUE(WaitFor([&] { return finished.load() == kItems; }));
    EXPECT_EQ(most.load(), 4);
    // Surplus threads leave one a tick until the class is at its minimum.
    ASSERT_TRUE(WaitFor([&] { return Statistic(*pool, threads) == 1; }))
        << Statistic(*pool, threads);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(Statistic(*pool, threads), 1);
    EXPECT_EQ(Statistic(*pool, io ? "WorkerThreads" : "IOThreads"), 1);
    // And it grows again.
    std::atomic<int> again{0};
    for (int i = 0; i < 8; ++i) pool->QueueWorkItem([&] { ++again; }, type);
    EXPECT_TRUE(WaitFor([&] { return again.load() == 8; }));
    pool->Shutdown();
    Testing::SetPoolIdleTickUsec(0);
}

INSTANTIATE_TEST_SUITE_P(ThreadPool, ThreadPoolClassLimits,
                         testing::Values(ThreadPool::WORK_IO, ThreadPool::WORK_TASK));

TEST(ThreadPoolWork, WithoutIdleExitThreadsStay) {
    Testing::SetPoolIdleTickUsec(10 * 1000);
    Ref<ThreadPool> pool = MakePool({{"TaskMin", "1"}, {"TaskMax", "3"}});
    Gate gate;
    std::atomic<int> finished{0};
    for (int i = 0; i < 3; ++i) pool->QueueWorkItem([&] { gate.Wait(), ++finished; });
    ASSERT_TRUE(WaitFor([&] { return Statistic(*pool, "WorkerThreads") == 3; }));
    gate.Open();
    ASSERT_TRUE(WaitFor([&] { return finished.load() == 3; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(Statistic(*pool, "WorkerThreads"), 3);
    pool->Shutdown();
    Testing::SetPoolIdleTickUsec(0);
}
#endif // TESSERA_TEST_HOOKS

TEST(ThreadPoolWork, DeferRunsAfterTheCallingHandlerReturned) {
    Ref<ThreadPool> pool = MakePool({{"TaskMin", "1"}, {"TaskMax", "1"}, {"IoMin", "1"}});
    for (ThreadPool::WorkType type : {ThreadPool::WORK_TASK, ThreadPool::WORK_IO}) {
        std::atomic<bool> returned{false};
        std::atomic<int> seenReturned{-1};
        pool->QueueWorkItem(
            [&] {
                pool->Defer([&] { seenReturned = returned.load() ? 1 : 0; });
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
                returned = true;
            },
            type);
        ASSERT_TRUE(WaitFor([&] { return seenReturned.load() != -1; }));
        EXPECT_EQ(seenReturned.load(), 1);
    }
    // From a thread of no pool it simply runs on the pool.
    std::atomic<bool> ran{false};
    EXPECT_TRUE(pool->Defer([&] { ran = true; }));
    EXPECT_TRUE(WaitFor([&] { return ran.load(); }));
    pool->Shutdown();
}

// ---- timers ----

TEST(ThreadPoolTimers, FireInOrderOfDueTime) {
    Ref<ThreadPool> pool = MakePool({{"TaskMin", "1"}, {"TaskMax", "1"}});
    // The statistic counts the timers not yet fired or cancelled; these are
    // due in an hour.
    std::vector<Ref<Timer>> pending(20);
    for (auto& t : pending)
        pool->ScheduleTimer(
            3600LL * 1000 * 1000, [] {}, t);
    EXPECT_EQ(Statistic(*pool, "TimeMapSize"), 20);
    for (auto& t : pending) EXPECT_TRUE(t->Cancel());
    EXPECT_EQ(Statistic(*pool, "TimeMapSize"), 0);

    using Clock = std::chrono::steady_clock;
    std::mutex lock;
    std::vector<int> order;
    std::vector<Ref<Timer>> timers(20);
    // Scheduled in a shuffled order, due 20 ms apart. A timer's due time lies
    // between the clock read before its scheduling and the one after, plus
    // its delay: on a busy machine these spans may overlap, and only timers
    // whose spans do not are known to be due in a given order.
    std::vector<Clock::time_point> earliest(20), latest(20);
    for (int k = 0; k < 20; ++k) {
        const int i = (k * 7) % 20;
        const std::chrono::microseconds delay(5000 + i * 20000);
        earliest[i] = Clock::now() + delay;
        pool->ScheduleTimer(
            delay.count(),
            [&, i] {
                std::lock_guard<std::mutex> hold(lock);
                order.push_back(i);
            },
            timers[i]);
        latest[i] = Clock::now() + delay;
    }
    ASSERT_TRUE(WaitFor([&] {
        std::lock_guard<std::mutex> hold(lock);
        return order.size() == 20;
    }));
    for (int a = 0; a < 20; ++a) {
        for (int b = a + 1; b < 20; ++b) {
            EXPECT_FALSE(earliest[order[a]] > latest[order[b]])
                << order[a] << " fired before " << order[b] << ", due earlier";
        }
    }
    EXPECT_EQ(Statistic(*pool, "TimeMapSize"), 0);
    for (auto& t : timers) EXPECT_FALSE(t->Cancel()); // fired: too late
    pool->Shutdown();
}

TEST(ThreadPoolTimers, CancelRacingTheFiringAnswersExactly) {
    Ref<ThreadPool> pool = MakePool({{"TaskMin", "2"}, {"TaskMax", "4"}});
    constexpr int kTimers = 2000;
    std::unique_ptr<std::atomic<int>[]> runs(new std::atomic<int>[kTimers]());
    std::vector<Ref<Timer>> timers(kTimers);
    for (int i = 0; i < kTimers; ++i) {
        pool->ScheduleTimer(
            i % 50, [&runs, i] { ++runs[i]; }, timers[i]);
    }
    std::vector<int> answers(kTimers);
    std::thread canceller([&] {
        for (int i = kTimers - 1; i >= 0; --i) answers[i] = timers[i]->Cancel() ? 1 : 0;
    });
    canceller.join();
    // Every timer not cancelled runs, once; none cancelled ever runs.
    ASSERT_TRUE(WaitFor([&] { return Statistic(*pool, "TimeMapSize") == 0; }));
    pool->Shutdown();
    int cancelled = 0;
    for (int i = 0; i < kTimers; ++i) {
        EXPECT_EQ(runs[i].load(), answers[i] ? 0 : 1) << i;
        EXPECT_EQ(timers[i]->Cancel(), answers[i] == 1) << i; // the answer stays
        cancelled += answers[i];
    }
    RecordProperty("cancelled", cancelled);
}

TEST(ThreadPoolTimers, ShutdownDropsPendingTimersAndRunsQueuedWork) {
    Ref<ThreadPool> pool = MakePool({{"TaskMin", "1"}, {"TaskMax", "1"}});
    std::atomic<int> ranTimer{0}, ranWork{0};
    Ref<Timer> late;
    pool->ScheduleTimer(
        60 * 1000 * 1000, [&] { ++ranTimer; }, late);
    Gate gate;
    pool->QueueWorkItem([&] { gate.Wait(); });
    for (int i = 0; i < 10; ++i) pool->QueueWorkItem([&] { ++ranWork; });
    // Opened once Shutdown has begun (the pool refuses work): Shutdown must
    // wait for the work queued behind the gate.
    std::thread opener([&] {
        while (pool->PostCompletion([] {}))
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        gate.Open();
    });
    pool->Shutdown();
    opener.join();
    EXPECT_EQ(ranWork.load(), 10);
    EXPECT_EQ(ranTimer.load(), 0);
    EXPECT_TRUE(late->Cancel());
    EXPECT_FALSE(pool->QueueWorkItem([&] { ++ranWork; }));
    EXPECT_FALSE(pool->PostCompletion([&] { ++ranWork; }));
    Ref<Timer> after;
    pool->ScheduleTimer(
        0, [&] { ++ranTimer; }, after);
    EXPECT_TRUE(after->Cancel());
    pool->Shutdown(); // again: nothing
    EXPECT_EQ(ranWork.load(), 10);
    EXPECT_EQ(ranTimer.load(), 0);
}

// ---- membership ----

TEST(ThreadPoolMembership, EnlistDelist) {
    Ref<ThreadPool> pool = MakePool({});
    EXPECT_FALSE(pool->IsEnlisted());
    std::atomic<int> inside{-1};
    pool->QueueWorkItem([&] { inside = pool->IsEnlisted() ? 1 : 0; });
    ASSERT_TRUE(WaitFor([&] { return inside.load() != -1; }));
    EXPECT_EQ(inside.load(), 1);
    std::thread other([&] {
        LogCapture log(Logger::LOG_VERBOSE);
        Ref<ThreadPool> second = MakePool({});
        pool->Enlist();
        EXPECT_TRUE(pool->IsEnlisted());
        EXPECT_FALSE(second->IsEnlisted());
        pool->Delist();
        EXPECT_FALSE(pool->IsEnlisted());
        second->Shutdown();
    });
    other.join();
    pool->Shutdown();
}

TEST(ThreadPoolMembershipDeathTest, DelistChecksTheThread) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            Ref<ThreadPool> pool = MakePool({});
            pool->Delist();
        },
        "Assertion \"tlsInfo != 0\" failed at asio/ThreadPoolAsio");
    EXPECT_DEATH(
        {
            Ref<ThreadPool> a = MakePool({});
            Ref<ThreadPool> b = MakePool({});
            a->Enlist();
            b->Delist();
        },
        "Assertion \"this == tlsInfo->_pool\" failed");
}

// ---- exceptions in handlers ----

TEST(ThreadPoolExceptions, CaughtWhenConfiguredAndLogged) {
    LogCapture log;
    Ref<ThreadPool> pool = MakePool({{"catchWorkItemExceptions", "true"}});
    std::atomic<int> after{0};
    pool->QueueWorkItem([] { throw NotFoundException("the thing"); });
    pool->QueueWorkItem([] { throw std::runtime_error("plain"); }, ThreadPool::WORK_IO);
    pool->QueueWorkItem([] { throw 42; });
    ASSERT_TRUE(WaitFor([&] {
        return log->Contains("Worker: Unhandled exception of unknown type") &&
               log->Contains("Worker: Unhandled exception: plain") &&
               log->Contains("Worker: Unhandled exception:\nObject not found: the thing, ");
    })) << log->Text();
    EXPECT_TRUE(log->Contains("Worker: Unhandled exception: Object not found: the thing"));
    pool->QueueWorkItem([&] { ++after; });
    EXPECT_TRUE(WaitFor([&] { return after.load() == 1; }));
    pool->Shutdown();

    // The test switches throw in every handler of their class.
    LogCapture forced;
    Ref<ThreadPool> throwing = MakePool({{"catchWorkItemExceptions", "true"},
                                         {"generateExceptionOnWorkItem", "true"},
                                         {"generateExceptionOnIoHandler", "true"}});
    std::atomic<int> ran{0};
    throwing->QueueWorkItem([&] { ++ran; });
    throwing->QueueWorkItem([&] { ++ran; }, ThreadPool::WORK_IO);
    EXPECT_TRUE(WaitFor([&] {
        return forced->Contains("Exception generated on purpose in a work item") &&
               forced->Contains("Exception generated on purpose in an I/O handler");
    }));
    throwing->Shutdown();
    EXPECT_EQ(ran.load(), 0);
}

TEST(ThreadPoolExceptionsDeathTest, UncaughtEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            Ref<ThreadPool> pool = MakePool({});
            pool->QueueWorkItem([] { throw InvalidStateException("bad state"); });
            std::this_thread::sleep_for(std::chrono::seconds(60));
        },
        "Worker: unhandled exception");
    EXPECT_DEATH(
        {
            Ref<ThreadPool> pool = MakePool({});
            pool->QueueWorkItem([] { throw 7; }, ThreadPool::WORK_IO);
            std::this_thread::sleep_for(std::chrono::seconds(60));
        },
        "Unhandled exception of unknown type");
}

// ---- the process's pool ----

TEST(ThreadPoolProcess, GetThreadPoolMakesOneOnFirstUse) {
    ThreadPool* pool = GetThreadPool();
    ASSERT_NE(pool, nullptr);
    EXPECT_EQ(pool, GetThreadPool());
    EXPECT_FALSE(IsEnlisted());
    std::atomic<int> inside{-1};
    pool->QueueWorkItem([&] { inside = IsEnlisted() ? 1 : 0; });
    ASSERT_TRUE(WaitFor([&] { return inside.load() != -1; }));
    EXPECT_EQ(inside.load(), 1);

    // The process's pool publishes its statistics as counters, read live.
    std::vector<ThreadPool::Statistic> statistics;
    pool->GetStatistics(statistics);
    ASSERT_EQ(statistics.size(), 8u);
    for (const ThreadPool::Statistic& statistic : statistics) {
        PerfCounter::CounterValues values;
        PerfCounter::GetCounterRegistry()->Query("ThreadPool/" + statistic.name, values);
        ASSERT_FALSE(values.empty()) << statistic.name;
        if (statistic.name.rfind("Max", 0) == 0) {
            EXPECT_EQ(values.front().value, statistic.value) << statistic.name;
        }
    }
}
