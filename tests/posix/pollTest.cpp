// Pollable handles: a descriptor's functor runs once it is readable; at most
// 64 are registered at once; an unregistered one never runs.

#include <tessera/exception.h>
#include <tessera/system/system.h>
#include <tessera/system/threadPool.h>

#include "tests/asio/poolTestSupport.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <vector>

using namespace Tessera;
using namespace Tessera::System;

TEST(ThreadPoolPoll, ReadableDescriptorRunsItsFunctorOnce) {
    Ref<ThreadPool> pool;
    GetSystemFactory()->CreateThreadPool(nullptr, pool);
    std::vector<int> fds;
    std::atomic<int> ran{0};
    for (int i = 0; i < 64; ++i) {
        int p[2];
        ASSERT_EQ(pipe(p), 0);
        fds.push_back(p[0]);
        fds.push_back(p[1]);
        pool->RegisterPollable(p[0], [&ran] { ++ran; });
    }
    int extra[2];
    ASSERT_EQ(pipe(extra), 0);
    EXPECT_THROW(pool->RegisterPollable(extra[0], [] {}), FullException);

    EXPECT_TRUE(pool->UnregisterPollable(fds[2])); // the second pipe's
    EXPECT_FALSE(pool->UnregisterPollable(fds[2]));
    ASSERT_EQ(write(fds[1], "x", 1), 1);
    ASSERT_EQ(write(fds[3], "x", 1), 1);
    ASSERT_TRUE(PoolTest::WaitFor([&] { return ran.load() == 1; }));
    // Now there is room again, and a registration is one-shot.
    pool->RegisterPollable(extra[0], [&ran] { ++ran; });
    ASSERT_EQ(write(extra[1], "x", 1), 1);
    ASSERT_TRUE(PoolTest::WaitFor([&] { return ran.load() == 2; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(ran.load(), 2);
    pool->Shutdown();
    for (int fd : fds) close(fd);
    close(extra[0]);
    close(extra[1]);
}
