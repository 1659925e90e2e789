// The thread pool against Boost.Asio, side by side in one run:
//
//   PoolPost1M_*     1,000,000 tiny work items posted from one thread, then
//                    waited for: our pool (4 task threads) against
//                    boost::asio::thread_pool(4)
//   PoolRoundTrip_*  post one work item and wait for it: the same two
//   TimerCancel_*    schedule a timer 1 s out and cancel it: ours against
//                    boost::asio::steady_timer on an io_context run by one
//                    thread
//
// Ours are reached as a caller reaches them, through the factory and virtual
// calls.

#include <tessera/config.h>
#include <tessera/system/system.h>
#include <tessera/system/threadPool.h>

#include <benchmark/benchmark.h>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/thread_pool.hpp>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace TesseraBench {
namespace {

using namespace Tessera;
using namespace Tessera::System;

Ref<ThreadPool> MakePool() {
    Xml::Node root("config");
    Xml::Node& node = root.AddChild("ThreadPool");
    Xml::Node min("TaskMin");
    min.SetText("4");
    node.AddChild(std::move(min));
    Xml::Node max("TaskMax");
    max.SetText("4");
    node.AddChild(std::move(max));
    Ref<Service::Config> config(new Service::Config(std::move(root)));
    const Service::Config::View view = config->GetView().GetChild("ThreadPool");
    Ref<ThreadPool> pool;
    GetSystemFactory()->CreateThreadPool(&view, pool);
    return pool;
}

constexpr int kItems = 1000 * 1000;

void PoolPost1M_Tessera(benchmark::State& state) {
    Ref<ThreadPool> pool = MakePool();
    for (auto _ : state) {
        std::atomic<int> done{0};
        for (int i = 0; i < kItems; ++i) {
            pool->QueueWorkItem([&done] { done.fetch_add(1, std::memory_order_relaxed); });
        }
        while (done.load() != kItems) std::this_thread::yield();
    }
    state.SetItemsProcessed(state.iterations() * kItems);
    pool->Shutdown();
}
BENCHMARK(PoolPost1M_Tessera)->Unit(benchmark::kMillisecond)->UseRealTime();

void PoolPost1M_AsioThreadPool(benchmark::State& state) {
    boost::asio::thread_pool pool(4);
    for (auto _ : state) {
        std::atomic<int> done{0};
        for (int i = 0; i < kItems; ++i) {
            boost::asio::post(pool, [&done] { done.fetch_add(1, std::memory_order_relaxed); });
        }
        while (done.load() != kItems) std::this_thread::yield();
    }
    state.SetItemsProcessed(state.iterations() * kItems);
    pool.join();
}
BENCHMARK(PoolPost1M_AsioThreadPool)->Unit(benchmark::kMillisecond)->UseRealTime();

// One item there and back: a condition wakes the poster.
struct Reply {
    std::mutex lock;
    std::condition_variable changed;
    bool done = false;
    void Set() {
        std::lock_guard<std::mutex> hold(lock);
        done = true;
        changed.notify_one();
    }
    void Wait() {
        std::unique_lock<std::mutex> hold(lock);
        changed.wait(hold, [this] { return done; });
        done = false;
    }
};

void PoolRoundTrip_Tessera(benchmark::State& state) {
    Ref<ThreadPool> pool = MakePool();
    Reply reply;
    for (auto _ : state) {
        pool->QueueWorkItem([&reply] { reply.Set(); });
        reply.Wait();
    }
    pool->Shutdown();
}
BENCHMARK(PoolRoundTrip_Tessera)->UseRealTime();

void PoolRoundTrip_AsioThreadPool(benchmark::State& state) {
    boost::asio::thread_pool pool(4);
    Reply reply;
    for (auto _ : state) {
        boost::asio::post(pool, [&reply] { reply.Set(); });
        reply.Wait();
    }
    pool.join();
}
BENCHMARK(PoolRoundTrip_AsioThreadPool)->UseRealTime();

void TimerCancel_Tessera(benchmark::State& state) {
    Ref<ThreadPool> pool = MakePool();
    for (auto _ : state) {
        Ref<Timer> timer;
        pool->ScheduleTimer(
            1000 * 1000, [] {}, timer);
        benchmark::DoNotOptimize(timer->Cancel());
    }
    pool->Shutdown();
}
BENCHMARK(TimerCancel_Tessera);

void TimerCancel_AsioSteadyTimer(benchmark::State& state) {
    boost::asio::io_context context;
    auto guard = boost::asio::make_work_guard(context);
    std::thread runner([&] { context.run(); });
    for (auto _ : state) {
        boost::asio::steady_timer timer(context);
        timer.expires_after(std::chrono::seconds(1));
        timer.async_wait([](const boost::system::error_code&) {});
        benchmark::DoNotOptimize(timer.cancel());
    }
    guard.reset();
    runner.join();
}
BENCHMARK(TimerCancel_AsioSteadyTimer);

} // namespace
} // namespace TesseraBench
