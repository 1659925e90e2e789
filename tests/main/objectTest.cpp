#include <tessera/census.h>
#include <tessera/object.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using namespace Tessera;

namespace {

class Shape : public virtual Object {
public:
    virtual int Sides() = 0;
};

class Square : public ObjectImpl, public Shape {
public:
    explicit Square(int* destroyed = nullptr) : _destroyed(destroyed) {}
    ~Square() override {
        if (_destroyed) ++*_destroyed;
    }
    int Sides() override { return 4; }

private:
    int* _destroyed;
};

// The live count the census shows for a type, or -1 when it has no slot.
int CensusCount(const char* typeName) {
    std::string scores;
    ObjectImpl::GetScores(scores);
    std::istringstream lines(scores);
    const std::string marker = std::string(" => ") + typeName + " - ";
    int total = 0;
    bool found = false;
    for (std::string line; std::getline(lines, line);) {
        const auto at = line.find(marker);
        if (at != std::string::npos) {
            total += std::atoi(line.c_str() + at + marker.size());
            found = true;
        }
    }
    return found ? total : -1;
}

int OtherObjects() {
    std::string scores;
    ObjectImpl::GetScores(scores);
    const auto at = scores.find("Other objects: ");
    return at == std::string::npos ? -1 : std::atoi(scores.c_str() + at + 15);
}

} // namespace

TEST(Ref, CountsFollowOwnership) {
    int destroyed = 0;
    auto* raw = new Square(&destroyed);
    EXPECT_EQ(raw->GetRefCount(), 0);
    {
        Ref<Shape> a(raw);
        EXPECT_EQ(a->GetRefCount(), 1);
        Ref<Shape> b = a;
        Ref<Object> base = b; // converting copy
        EXPECT_EQ(raw->GetRefCount(), 3);
        Ref<Shape> moved = std::move(b);
        EXPECT_TRUE(b.IsNull());
        EXPECT_EQ(raw->GetRefCount(), 3);
        a = a; // self-assignment keeps the object
        moved = nullptr;
        base.Reset();
        EXPECT_EQ(raw->GetRefCount(), 1);
        EXPECT_EQ(destroyed, 0);
        EXPECT_EQ(a->Sides(), 4);

        // Detach hands the reference to the caller; Adopt takes it back.
        Shape* owned = a.Detach();
        EXPECT_EQ(owned->GetRefCount(), 1);
        Ref<Shape> again = Ref<Shape>::Adopt(owned);
        EXPECT_EQ(again->GetRefCount(), 1);
    }
    EXPECT_EQ(destroyed, 1);

    // Replacing the target releases the old one.
    int first = 0, second = 0;
    Ref<Shape> r(new Square(&first));
    r = new Square(&second);
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 0);
    r = r.Get(); // re-assigning the same pointer must not free it on the way
    EXPECT_EQ(second, 0);
    r.Reset();
    EXPECT_EQ(second, 1);
}

TEST(Ref, ConcurrentCopiesDestroyOnce) {
    int destroyed = 0;
    {
        Ref<Shape> shared(new Square(&destroyed));
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([shared] {
                for (int i = 0; i < 20000; ++i) {
                    Ref<Shape> copy = shared;
                    Ref<Object> other(copy);
                }
            });
        }
        for (auto& t : threads) t.join();
        EXPECT_EQ(shared->GetRefCount(), 1);
    }
    EXPECT_EQ(destroyed, 1);
}

TEST(Object, ToStringNamesTypeAndAddress) {
    Ref<Square> square(new Square);
    std::ostringstream expected;
    expected << "[" << typeid(Square).name() << ":" << static_cast<const void*>(square.Get())
             << "]";
    EXPECT_EQ(square->ToString(), expected.str());
}

TEST(Census, CountsLiveObjectsPerTypeAndKeepsTheSlot) {
    const char* name = typeid(Square).name();
    Ref<Square> keep(new Square);
    const int before = CensusCount(name);
    ASSERT_GE(before, 1);
    {
        std::vector<Ref<Square>> squares;
        for (int i = 0; i < 5; ++i) squares.emplace_back(new Square);
        EXPECT_EQ(CensusCount(name), before + 5);
    }
    EXPECT_EQ(CensusCount(name), before);
    keep.Reset();
    EXPECT_EQ(CensusCount(name), before - 1); // the slot stays, at its new count

    std::string scores;
    ObjectImpl::GetScores(scores);
    EXPECT_NE(scores.find("Total count: "), std::string::npos);
    EXPECT_NE(scores.find("Bucket counts:\n  0 - "), std::string::npos);
    EXPECT_NE(scores.find("\n  7 - "), std::string::npos);
}

namespace {

// The bucket of a key as the census defines it: Thomas Wang's 64-bit mix of
// the key's address, absolute value of the low 32 bits, modulo 2003.
int BucketOf(const void* key) {
    std::uint64_t k = reinterpret_cast<std::uintptr_t>(key);
    k += ~(k << 32);
    k ^= (k >> 22);
    k += ~(k << 13);
    k ^= (k >> 8);
    k += (k << 3);
    k ^= (k >> 15);
    k += ~(k << 27);
    k ^= (k >> 31);
    const std::int64_t low = static_cast<std::int32_t>(static_cast<std::uint32_t>(k));
    return static_cast<int>((low < 0 ? -low : low) % 2003);
}

} // namespace

// Nine keys that land in one bucket: eight take its slots, the ninth is
// counted under "Other objects", in both directions.
TEST(Census, FullBucketOverflowsIntoOtherObjects) {
    Ref<Square> first(new Square); // the census exists from the first reference on
    Scoreboard* board = GetScoreboard();
    ASSERT_NE(board, nullptr);
    std::string scores;
    board->Dump(scores);

    // Names live for the rest of the process, as type names do.
    static std::vector<char> pool(1 << 22);
    std::vector<std::vector<char*>> byBucket(2003);
    int chosen = -1;
    for (std::size_t at = 0; at + 16 <= pool.size() && chosen < 0; at += 16) {
        char* key = &pool[at];
        const int b = BucketOf(key);
        // Only a bucket that no real type uses yet.
        if (scores.find("(" + std::to_string(b) + ",") != std::string::npos) continue;
        byBucket[b].push_back(key);
        if (byBucket[b].size() == 9) chosen = b;
    }
    ASSERT_GE(chosen, 0);
    const std::vector<char*>& keys = byBucket[chosen];
    for (std::size_t i = 0; i < keys.size(); ++i) {
        std::snprintf(keys[i], 16, "Fake%d", static_cast<int>(i) % 10);
    }

    const int othersBefore = OtherObjects();
    for (int i = 0; i < 9; ++i) board->Increment(keys[i]);
    board->Increment(keys[8]);
    scores.clear();
    board->Dump(scores);
    for (int s = 0; s < 8; ++s) {
        const std::string line = "(" + std::to_string(chosen) + "," + std::to_string(s) +
                                 ") => Fake" + std::to_string(s) + " - 1\n";
        EXPECT_NE(scores.find(line), std::string::npos) << line;
    }
    EXPECT_EQ(scores.find("Fake8"), std::string::npos);
    EXPECT_EQ(OtherObjects(), othersBefore + 2);
    board->Decrement(keys[8]);
    board->Decrement(keys[8]);
    for (int i = 0; i < 8; ++i) board->Decrement(keys[i]);
    EXPECT_EQ(OtherObjects(), othersBefore);
}

namespace {

struct RecordingSerializer : StatsSerializer {
    std::vector<std::string> events;
    void BeginGroup(const std::string& name) override { events.push_back("begin " + name); }
    void WriteString(const std::string& name, const std::string& value) override {
        events.push_back(name + "=" + value);
    }
    void WriteInt(const std::string& name, std::int64_t value) override {
        events.push_back(name + "=" + std::to_string(value));
    }
    void End() override { events.push_back("end"); }
};

} // namespace

TEST(Census, StructuredDumpListsEveryTypeThenTotals) {
    Ref<Square> keep(new Square);
    RecordingSerializer out;
    GetScoreboard()->Dump(out);
    ASSERT_GE(out.events.size(), 6u);
    EXPECT_EQ(out.events.front(), "begin ObjectTypes");
    EXPECT_EQ(out.events.back(), "end");
    // Triples of Class, Count, end; then the two totals and the final end.
    const std::size_t n = out.events.size();
    ASSERT_EQ((n - 4) % 3, 0u);
    long long sum = 0;
    bool sawSquare = false;
    for (std::size_t i = 1; i + 3 < n; i += 3) {
        ASSERT_EQ(out.events[i].rfind("Class=", 0), 0u);
        EXPECT_EQ(out.events[i].find("class "), std::string::npos);
        ASSERT_EQ(out.events[i + 1].rfind("Count=", 0), 0u);
        EXPECT_EQ(out.events[i + 2], "end");
        sum += std::atoll(out.events[i + 1].c_str() + 6);
        sawSquare |= out.events[i] == std::string("Class=") + typeid(Square).name();
    }
    EXPECT_TRUE(sawSquare);
    EXPECT_EQ(out.events[n - 3], "TotalCount=" + std::to_string(sum));
    EXPECT_EQ(out.events[n - 2].rfind("OtherCount=", 0), 0u);
}

TEST(CensusDeathTest, NothingToReportBeforeTheFirstReference) {
    // A fresh process: the census is made by the first reference of its life.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            std::string scores;
            ObjectImpl::GetScores(scores);
            const bool empty =
                scores.empty() && GetScoreboard() == nullptr && GetRefTracker() == nullptr;
            Ref<Square> first(new Square);
            std::exit(empty && GetScoreboard() != nullptr ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

namespace {
class Tracked : public ObjectImpl {};
class Untracked : public ObjectImpl {};

Ref<Tracked> MakeTrackedHere() { return Ref<Tracked>(new Tracked); }
Ref<Tracked> MakeTrackedThere() { return Ref<Tracked>(new Tracked); }

int CountOf(const std::string& text, const std::string& what) {
    int n = 0;
    for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}
} // namespace

TEST(RefTrackerDeathTest, GroupsLiveObjectsByCreationStack) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // In a child process of its own, as the tracker is made once per process.
    EXPECT_DEATH(
        {
            boost::unordered_set<std::string> names{typeid(Tracked).name()};
            RefTracker* tracker = CreateRefTracker(names);
            if (tracker == nullptr || GetRefTracker() != tracker) std::exit(10);
            std::vector<Ref<Tracked>> live;
            for (int i = 0; i < 3; ++i) live.push_back(MakeTrackedHere());
            live.push_back(MakeTrackedThere());
            Ref<Untracked> ignored(new Untracked);
            std::string dump;
            tracker->Dump(dump);
            const std::string name = typeid(Tracked).name();
            if (CountOf(dump, "Trace (" + name + ", count:3):\n") != 1) std::exit(11);
            if (CountOf(dump, "Trace (" + name + ", count:1):\n") != 1) std::exit(12);
            if (CountOf(dump, "Trace (") != 2) std::exit(13);
            if (dump.find("#0 0x") == std::string::npos) std::exit(14);
            live.clear();
            dump.clear();
            tracker->Dump(dump);
            if (!dump.empty()) std::exit(15);
            CreateRefTracker(names); // the second one stops the process
            std::exit(16);
        },
        "PANIC: Assertion \"sRefTracker==0\" failed at main/object:\\w+");
}
