#include <tessera/weak.h>

#include "tests/system/syncTestSupport.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

using namespace SyncTest;

namespace {

// One step of a lock set: which lock, taken (true) or released (false).
using Step = std::pair<const LockableObject*, bool>;

// Logs the order in which lock sets take and release it.
class Recording : public WeakLinkableImpl<LockableObjectImpl> {
public:
    explicit Recording(std::vector<Step>* log) : _log(log) {}
    void Lock() override {
        LockableObjectImpl::Lock();
        _log->push_back({this, true});
    }
    void Unlock() override {
        _log->push_back({this, false});
        LockableObjectImpl::Unlock();
    }

private:
    std::vector<Step>* _log;
};

} // namespace

TEST(MultiSynchronized, SetsTakeSharedLocksInAddressOrder) {
    std::vector<Step> log;
    Ref<Recording> a(new Recording(&log)), b(new Recording(&log));
    const LockableObject* low = std::min<const LockableObject*>(a.Get(), b.Get());
    const LockableObject* high = std::max<const LockableObject*>(a.Get(), b.Get());
    {
        MultiSynchronized first, second;
        first.AddLockable(a.Get());
        first.AddLockable(b.Get());
        second.AddLockable(b.Get());
        second.AddLockable(a.Get());
        second.AddLockable(b.Get()); // taken once
        first.Lock();
        first.Unlock();
        second.Lock(); // unlocked by its destructor
    }
    // Taken in address order, released in the reverse.
    const std::vector<Step> cycle{{low, true}, {high, true}, {high, false}, {low, false}};
    std::vector<Step> expected = cycle;
    expected.insert(expected.end(), cycle.begin(), cycle.end());
    EXPECT_EQ(log, expected);
    // A lockable object behind a weak link.
    Ref<WeakLink> link;
    a->GetWeakLink(link);
    Ref<Object> strong;
    ASSERT_TRUE(link->Get(strong));
    Synchronized hold(dynamic_cast<LockableObject*>(strong.Get()));
    EXPECT_TRUE(a->IsLockedByThisThread());
}

// Two sets built in opposite orders, hammered by a thread each: in address
// order neither can hold one lock while waiting for the other's.
TEST(MultiSynchronizedStress, OppositeSetsDoNotDeadlock) {
    Ref<Mutex> a = NewMutex(), b = NewMutex();
    long long inA = 0, inB = 0; // guarded by a and b
    constexpr int kRounds = 3000;
    auto hammer = [&](Mutex* x, Mutex* y) {
        for (int i = 0; i < kRounds; ++i) {
            MultiSynchronized both;
            both.AddLockable(x);
            both.AddLockable(y);
            both.Lock();
            ++inA;
            if (i % 4 == 0) std::this_thread::yield(); // holding both
            ++inB;
            both.Unlock();
            Synchronized one(x), again(x);
            ++(x == a.Get() ? inA : inB);
        }
    };
    std::thread t1(hammer, a.Get(), b.Get()), t2(hammer, b.Get(), a.Get());
    t1.join();
    t2.join();
    EXPECT_EQ(inA, 3 * kRounds);
    EXPECT_EQ(inB, 3 * kRounds);
}

TEST(MutexDeathTest, MisuseStops) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::string source = "system/MutexImpl", header = "public/tessera/system/syncRaii";
    EXPECT_DEATH(NewMutex()->Unlock(), AssertionReport("_mutex.IsLocked()", source));
    EXPECT_DEATH(NewMutex()->Lock(), AssertionReport("!_mutex.IsLocked()", source));
    Ref<Mutex> mutex = NewMutex();
    mutex->Lock();
    EXPECT_DEATH(std::thread([&] { mutex->Unlock(); }).join(),
                 AssertionReport("_mutex.IsLockedByThisThread()", source));
    mutex->Unlock();

    MultiSynchronized set;
    EXPECT_DEATH(set.Unlock(), AssertionReport("_isLocked", header));
    set.Lock();
    EXPECT_DEATH(set.Lock(), AssertionReport("!_isLocked", header));
    EXPECT_DEATH(set.AddLockable(nullptr), AssertionReport("!_isLocked", header));
}
