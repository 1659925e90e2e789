#include <tessera/system/tls.h>

#include <gtest/gtest.h>

#include <set>
#include <thread>
#include <vector>

using namespace Tessera::System;

namespace {
int IndexOf(TlsKey key) { return key & 0x1FFFF; }
unsigned VersionOf(TlsKey key) { return static_cast<unsigned>(key) >> 17; }
} // namespace

TEST(TlsKey, ReleasedIndexComesBackWithANewVersion) {
    const TlsKey first = ReserveTlsKey();
    const TlsKey other = ReserveTlsKey();
    EXPECT_NE(IndexOf(first), IndexOf(other));
    int value = 1;
    SetTlsValue(first, &value);
    EXPECT_EQ(GetTlsValue(first), &value);
    EXPECT_EQ(GetTlsValue(other), nullptr);
    SetTlsValue(first, nullptr);
    ReleaseTlsKey(first);

    const TlsKey again = ReserveTlsKey(); // last released, first reused
    EXPECT_EQ(IndexOf(again), IndexOf(first));
    EXPECT_NE(VersionOf(again), VersionOf(first));
    EXPECT_EQ(GetTlsValue(first), nullptr); // the old key finds nothing
    EXPECT_EQ(GetTlsValue(again), nullptr);

    // Each thread has its own slot.
    SetTlsValue(again, &value);
    void* seenElsewhere = &value;
    std::thread([&] { seenElsewhere = GetTlsValue(again); }).join();
    EXPECT_EQ(seenElsewhere, nullptr);
    EXPECT_EQ(GetTlsValue(again), &value);
    SetTlsValue(again, nullptr);
    ReleaseTlsKey(again);
    ReleaseTlsKey(other);
}

TEST(TlsKey, VersionWrapsWithoutZero) {
    // Two full turns of the 15-bit version through one index.
    std::set<unsigned> versions;
    for (int i = 0; i < 70000; ++i) {
        const TlsKey key = ReserveTlsKey();
        ASSERT_NE(VersionOf(key) & 0x7FFF, 0u) << i;
        versions.insert(VersionOf(key));
        ReleaseTlsKey(key);
    }
    EXPECT_EQ(versions.size(), 32767u);
}

TEST(TlsKeyDeathTest, MisuseStops) {
    EXPECT_DEATH(
        {
            std::vector<TlsKey> keys;
            for (int i = 0; i < 131071; ++i) keys.push_back(ReserveTlsKey());
        },
        "PANIC: Assertion \"_keys.size\\(\\) < MAX_INDEX\" failed at system/Tls:\\w+");
    EXPECT_DEATH(
        {
            const TlsKey key = ReserveTlsKey();
            ReleaseTlsKey(key);
            ReleaseTlsKey(key);
        },
        "PANIC: Assertion \"key == \\(TlsKey\\)_keys\\[index\\]\" failed at system/Tls:\\w+");
    EXPECT_DEATH(
        {
            int value = 0;
            const TlsKey stale = ReserveTlsKey();
            SetTlsValue(stale, &value);
            ReleaseTlsKey(stale);
            const TlsKey fresh = ReserveTlsKey();
            GetTlsValue(fresh);
        },
        "Found unexpected TLS object at index \\w+\\. Expected version=\\w+, found "
        "version=\\w+, found object=\\w+\n");
    EXPECT_DEATH(
        {
            int value = 0;
            const TlsKey key = ReserveTlsKey();
            std::thread([&] { SetTlsValue(key, &value); }).join();
            std::abort();
        },
        "Found leaked TLS object at index \\w+\\. Expected version=\\w+, found version=\\w+");
}
