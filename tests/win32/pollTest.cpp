// Pollable handles on Windows: a handle's functor runs once it is signalled;
// at most 64 are registered at once; an unregistered one never runs.

#include <tessera/exception.h>
#include <tessera/system/system.h>
#include <tessera/system/threadPool.h>

#include "tests/asio/poolTestSupport.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <vector>

using namespace Tessera;
using namespace Tessera::System;

TEST(ThreadPoolPoll, SignalledHandleRunsItsFunctorOnce) {
    Ref<ThreadPool> pool;
    GetSystemFactory()->CreateThreadPool(nullptr, pool);
    std::vector<HANDLE> events;
    std::atomic<int> ran{0};
    auto handle = [](HANDLE h) { return reinterpret_cast<std::intptr_t>(h); };
    for (int i = 0; i < 64; ++i) {
        events.push_back(CreateEventW(nullptr, TRUE, FALSE, nullptr));
        ASSERT_NE(events.back(), nullptr);
        pool->RegisterPollable(handle(events.back()), [&ran] { ++ran; });
    }
    HANDLE extra = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    EXPECT_THROW(pool->RegisterPollable(handle(extra), [] {}), FullException);

    EXPECT_TRUE(pool->UnregisterPollable(handle(events[1])));
    EXPECT_FALSE(pool->UnregisterPollable(handle(events[1])));
    SetEvent(events[0]);
    SetEvent(events[1]);
    ASSERT_TRUE(PoolTest::WaitFor([&] { return ran.load() == 1; }));
    // Now there is room again, and a registration is one-shot: the event
    // stays signalled, yet the functor runs once.
    pool->RegisterPollable(handle(extra), [&ran] { ++ran; });
    SetEvent(extra);
    ASSERT_TRUE(PoolTest::WaitFor([&] { return ran.load() == 2; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(ran.load(), 2);
    // A handle closed by its owner after registering is waited on through
    // the pool's own duplicate.
    HANDLE late = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    HANDLE signaller = nullptr;
    ASSERT_TRUE(DuplicateHandle(GetCurrentProcess(), late, GetCurrentProcess(), &signaller, 0,
                                FALSE, DUPLICATE_SAME_ACCESS));
    pool->RegisterPollable(handle(late), [&ran] { ++ran; });
    CloseHandle(late);
    SetEvent(signaller);
    ASSERT_TRUE(PoolTest::WaitFor([&] { return ran.load() == 3; }));
    pool->Shutdown();
    for (HANDLE h : events) CloseHandle(h);
    CloseHandle(extra);
    CloseHandle(signaller);
}
