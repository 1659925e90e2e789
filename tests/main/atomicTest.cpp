#include <tessera/atomic.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <thread>
#include <utility>
#include <vector>

using Tessera::Atomic;
using Pair = std::pair<int, int>;

namespace {
Atomic<int> sEarly{Tessera::RelyOnZeroInitialization()};
} // namespace

TEST(Atomic, CompareExchangeReportsWhatItFound) {
    Atomic<bool> flag(true);
    EXPECT_TRUE(flag.ReadIfEqualWrite(false, false)); // no store: returns the true it found
    EXPECT_TRUE(flag.Read());
    EXPECT_TRUE(flag.ReadIfEqualWrite(true, false)); // stored: returns the old true
    EXPECT_FALSE(flag.Read());
    EXPECT_TRUE(!flag);
    EXPECT_FALSE(flag.IfEqualWrite(true, true));
    EXPECT_TRUE(flag.IfEqualWrite(false, true));
    EXPECT_TRUE(flag.ReadWrite(false));
    EXPECT_EQ(sizeof(Atomic<bool>), 4u);

    Atomic<long long> wide(1LL << 40);
    EXPECT_EQ(wide.ReadInc(), 1LL << 40);
    EXPECT_EQ(wide.ReadAdd(-2), (1LL << 40) + 1);
    EXPECT_EQ(wide.ReadIfEqualWrite(0, 7), (1LL << 40) - 1);
    Atomic<unsigned long long> top(~0ull);
    top.Inc();
    EXPECT_EQ(top.Read(), 0u);
    EXPECT_EQ(sEarly.Read(), 0);
}

TEST(Atomic, PairHalvesChangeIndependently) {
    Atomic<Pair> pair(Pair(1, 2));
    pair.AddFirst(5);
    EXPECT_EQ(pair.Read(), Pair(6, 2));
    EXPECT_EQ(pair.ReadAddSecond(-1), Pair(6, 2));
    EXPECT_EQ(pair.Read(), Pair(6, 1));
    // Negative halves survive packing, and a carry does not cross halves.
    pair = Pair(-1, -1);
    pair.AddSecond(1);
    EXPECT_EQ(pair.Read(), Pair(-1, 0));
    pair.AddFirst(1);
    EXPECT_EQ(pair.Read(), Pair(0, 0));
    EXPECT_TRUE(pair.IfEqualWrite(Pair(0, 0), Pair(INT32_MIN, INT32_MAX)));
    EXPECT_EQ(pair.ReadAddFirst(0), Pair(INT32_MIN, INT32_MAX));
    EXPECT_EQ(sizeof(Atomic<Pair>), 8u);
}

// Concurrent read-modify-write on every kind of word: nothing is lost.
TEST(Atomic, ConcurrentUpdatesAreNotLost) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 20000;
    Atomic<int> counter;
    Atomic<long long> wide;
    Atomic<Pair> pair;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < kRounds; ++i) {
                counter.Inc();
                wide.ReadAdd(3);
                pair.AddFirst(1);
                pair.ReadAddSecond(-1);
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(counter.Read(), kThreads * kRounds);
    EXPECT_EQ(wide.Read(), 3LL * kThreads * kRounds);
    EXPECT_EQ(pair.Read(), Pair(kThreads * kRounds, -kThreads * kRounds));
}
