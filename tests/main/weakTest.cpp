#include <tessera/weak.h>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

using namespace Tessera;

namespace {

class Watched : public WeakLinkableImpl<ObjectImpl> {
public:
    explicit Watched(std::atomic<int>* destroyed = nullptr) : _destroyed(destroyed) {}
    ~Watched() override {
        _dying.store(true);
        if (_destroyed) _destroyed->fetch_add(1);
    }
    bool IsDying() const { return _dying.load(); }

private:
    std::atomic<int>* _destroyed;
    std::atomic<bool> _dying{false};
};

} // namespace

TEST(WeakLink, YieldsTheObjectWhileItLivesAndNothingAfter) {
    std::atomic<int> destroyed{0};
    Ref<Watched> strong(new Watched(&destroyed));
    Ref<WeakLink> link;
    strong->GetWeakLink(link);
    EXPECT_TRUE(strong->HasWeakLink(link.Get()));
    EXPECT_FALSE(strong->HasWeakLink(nullptr));
    EXPECT_FALSE(link->IsExpired());

    Ref<Object> got;
    EXPECT_TRUE(link->Get(got));
    EXPECT_EQ(got.Get(), static_cast<Object*>(strong.Get()));
    EXPECT_EQ(strong->GetRefCount(), 2); // exactly one more
    got.Reset();
    EXPECT_EQ(strong->GetRefCount(), 1);

    // The last strong reference destroys the object; the link survives it.
    Ref<Object> stale(new Watched); // Get must drop what `out` held
    strong.Reset();
    EXPECT_EQ(destroyed.load(), 1);
    EXPECT_TRUE(link->IsExpired());
    EXPECT_FALSE(link->Get(stale));
    EXPECT_TRUE(stale.IsNull());
    EXPECT_EQ(link->GetRefCount(), 1); // only the holder keeps the link now

    // A reference taken through the link keeps the object alive on its own.
    Ref<Watched> second(new Watched(&destroyed));
    second->GetWeakLink(link);
    EXPECT_TRUE(link->Get(got));
    second.Reset();
    EXPECT_EQ(destroyed.load(), 1);
    EXPECT_FALSE(link->IsExpired());
    got.Reset();
    EXPECT_EQ(destroyed.load(), 2);
    EXPECT_TRUE(link->IsExpired());
}

TEST(WeakLink, CopiesHaveLinksOfTheirOwn) {
    using Plain = WeakLinkableImpl<ObjectImpl>;
    Ref<Plain> a(new Plain);
    Ref<Plain> b(new Plain(*a));
    Ref<WeakLink> linkA, linkB;
    a->GetWeakLink(linkA);
    b->GetWeakLink(linkB);
    EXPECT_NE(linkA.Get(), linkB.Get());
    EXPECT_FALSE(a->HasWeakLink(linkB.Get()));
    a.Reset();
    EXPECT_TRUE(linkA->IsExpired());
    EXPECT_FALSE(linkB->IsExpired());
}

// Many threads call Get while the last strong reference goes. Each Get either
// fails or yields an object that is not being destroyed, and every object is
// destroyed exactly once. Run under ThreadSanitizer and AddressSanitizer.
TEST(WeakLinkStress, GetRacesTheLastRelease) {
    constexpr int kRounds = 1000;
    constexpr int kReaders = 2;
    std::atomic<int> destroyed{0};
    std::atomic<int> round{-1};
    std::atomic<int> ready{0};
    std::atomic<bool> sawDying{false};
    std::vector<Ref<WeakLink>> links(kRounds);

    std::vector<std::thread> readers;
    for (int t = 0; t < kReaders; ++t) {
        readers.emplace_back([&] {
            for (int r = 0; r < kRounds; ++r) {
                while (round.load() < r) std::this_thread::yield();
                ready.fetch_add(1);
                Ref<Object> got;
                while (links[r]->Get(got)) {
                    if (static_cast<Watched*>(dynamic_cast<WeakLinkable*>(got.Get()))->IsDying()) {
                        sawDying.store(true);
                    }
                    got.Reset();
                }
            }
        });
    }
    for (int r = 0; r < kRounds; ++r) {
        Ref<Watched> strong(new Watched(&destroyed));
        strong->GetWeakLink(links[r]);
        ready.store(0);
        round.store(r);
        while (ready.load() < kReaders) std::this_thread::yield();
        strong.Reset(); // races the readers' Get
    }
    for (auto& t : readers) t.join();
    EXPECT_FALSE(sawDying.load());
    EXPECT_EQ(destroyed.load(), kRounds);
    for (auto& link : links) EXPECT_TRUE(link->IsExpired());
}

TEST(WeakLinkDeathTest, LinkOfAnUnreferencedObjectIsRefused) {
    EXPECT_DEATH(
        {
            Watched* lonely = new Watched;
            Ref<WeakLink> link;
            lonely->GetWeakLink(link);
        },
        "PANIC: Assertion \"0 != this->_refCount\" failed at public/tessera/weak:\\w+");
}

TEST(ObjectDeathTest, DestroyingAReferencedObjectStops) {
    struct OnStack : ObjectImpl {
        ~OnStack() override = default;
    };
    EXPECT_DEATH(
        {
            OnStack object;
            object.IncRef();
        },
        "PANIC: Assertion \"0 == _refCount\" failed at main/object:\\w+\nBacktrace:\n#0 ");
}
