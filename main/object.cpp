// Counted objects, the per-type census (scoreboard) and the ref tracker.

#include <tessera/assert.h>
#include <tessera/census.h>
#include <tessera/object.h>
#include <tessera/system/stacktrace.h>

#include "system/platform/diagnostics.h"

#include <boost/unordered_map.hpp>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <sstream>
#include <vector>

namespace Tessera {
namespace {

// ---------------------------------------------------------------------------
// ScoreboardHash2D: live objects per type, in a fixed table that is never
// locked and never shrinks. A type is keyed by the address of its
// type_info::name() string, so no text is compared or hashed. Each of the 2,003
// buckets has 8 slots and a fill counter; a type that finds no slot is counted
// in the overflow ("Other objects") counter. Two threads that bring in the same
// new type at once may each claim a slot for it; dumps then list both.
class ScoreboardHash2D final : public Scoreboard {
public:
    static constexpr int kBuckets = 2003;
    static constexpr int kSlots = 8;
    // Compared against the fill counter, which keeps rising past kSlots as
    // types overflow; once it reaches this value the bucket stops counting.
    static constexpr int kFillLimit = 2002;

    void Increment(const char* typeName) override { Update(typeName, +1); }
    void Decrement(const char* typeName) override { Update(typeName, -1); }
    void Dump(std::string& out) const override;
    void Dump(StatsSerializer& out) const override;

private:
    struct Slot {
        std::atomic<const char*> key{nullptr};
        Atomic<int> count;
    };
    struct Bucket {
        Atomic<int> fill;
        Slot slots[kSlots];
    };

    static int BucketOf(const char* key) noexcept;
    void Update(const char* key, int delta) noexcept;

    Bucket _buckets[kBuckets];
    Atomic<int> _otherCount;
};

// Thomas Wang's 64-bit integer mix of the key's address.
int ScoreboardHash2D::BucketOf(const char* key) noexcept {
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
    return static_cast<int>((low < 0 ? -low : low) % kBuckets);
}

void ScoreboardHash2D::Update(const char* key, int delta) noexcept {
    Bucket& bucket = _buckets[BucketOf(key)];
    const int fill = bucket.fill.Read();
    const int used = fill < kSlots ? fill : kSlots;
    for (int s = 0; s < used; ++s) {
        if (bucket.slots[s].key.load() == key) {
            bucket.slots[s].count.ReadAdd(delta);
            return;
        }
    }
    if (fill >= kFillLimit) {
        _otherCount.ReadAdd(delta);
        return;
    }
    const int claimed = bucket.fill.ReadInc();
    if (claimed >= kSlots) {
        _otherCount.ReadAdd(delta);
        return;
    }
    bucket.slots[claimed].key.store(key);
    bucket.slots[claimed].count.ReadAdd(delta);
}

void ScoreboardHash2D::Dump(std::string& out) const {
    int total = 0;
    int perSlot[kSlots] = {};
    char line[512];
    for (int b = 0; b < kBuckets; ++b) {
        for (int s = 0; s < kSlots; ++s) {
            const char* key = _buckets[b].slots[s].key.load();
            if (key == nullptr) {
                continue;
            }
            const int count = _buckets[b].slots[s].count.Read();
            const int n = std::snprintf(line, sizeof(line), "(%d,%d) => %s - %d", b, s, key, count);
            if (n < 0 || static_cast<std::size_t>(n) >= sizeof(line)) {
                out += "error in obtaining bucket value, or typename too long";
            } else {
                out += line;
            }
            out += "\n";
            total += count;
            perSlot[s] += count;
        }
    }
    std::snprintf(line, sizeof(line), "%d\n", total);
    out += "Total count: ";
    out += line;
    out += "Bucket counts:\n";
    for (int s = 0; s < kSlots; ++s) {
        std::snprintf(line, sizeof(line), "  %d - %d\n", s, perSlot[s]);
        out += line;
    }
    out += "Other objects: ";
    const int n = std::snprintf(line, sizeof(line), "%d\n", _otherCount.Read());
    out += (n < 0) ? "error" : line;
}

void ScoreboardHash2D::Dump(StatsSerializer& out) const {
    std::int64_t total = 0;
    out.BeginGroup("ObjectTypes");
    for (const Bucket& bucket : _buckets) {
        for (const Slot& slot : bucket.slots) {
            const char* key = slot.key.load();
            if (key == nullptr) {
                continue;
            }
            std::string name(key);
            for (std::size_t at = name.find("class "); at != std::string::npos;
                 at = name.find("class ", at)) {
                name.erase(at, 6);
            }
            const int count = slot.count.Read();
            out.WriteString("Class", name);
            out.WriteInt("Count", count);
            out.End();
            total += count;
        }
    }
    out.WriteInt("TotalCount", total);
    out.WriteInt("OtherCount", _otherCount.Read());
    out.End();
}

std::atomic<ScoreboardHash2D*> sScoreboard{nullptr};

ScoreboardHash2D* TheScoreboard() {
    ScoreboardHash2D* board = sScoreboard.load(std::memory_order_acquire);
    if (board != nullptr) {
        return board;
    }
    auto* created = new ScoreboardHash2D;
    if (sScoreboard.compare_exchange_strong(board, created)) {
        return created;
    }
    delete created; // another thread won the race; `board` holds its table
    return board;
}

// ---------------------------------------------------------------------------
// RefTrackerImpl: the creation stacks of the live objects of chosen types.
class RefTrackerImpl final : public RefTracker {
public:
    explicit RefTrackerImpl(const boost::unordered_set<std::string>& classNames)
        : _classNames(classNames) {}

    void Register(const ObjectImpl* obj, const char* typeName) override;
    void Unregister(const ObjectImpl* obj) override;
    void Dump(std::string& out) const override;

private:
    struct Record {
        const char* typeName;
        System::Stacktrace trace;
    };

    const boost::unordered_set<std::string> _classNames;
    mutable std::mutex _lock;
    boost::unordered_map<const ObjectImpl*, Record> _records;
};

void RefTrackerImpl::Register(const ObjectImpl* obj, const char* typeName) {
    TESSERA_ASSERT(obj != 0);
    if (_classNames.find(typeName) == _classNames.end()) {
        return;
    }
    Record record{typeName, {}};
    // Leave out Register, FirstIncRef, and IncRef or FirstReference.
    record.trace.Capture(3);
    std::lock_guard<std::mutex> hold(_lock);
    _records[obj] = record;
}

void RefTrackerImpl::Unregister(const ObjectImpl* obj) {
    std::lock_guard<std::mutex> hold(_lock);
    _records.erase(obj);
}

void RefTrackerImpl::Dump(std::string& out) const {
    std::map<std::string, std::map<System::Stacktrace, int>> groups;
    {
        std::lock_guard<std::mutex> hold(_lock);
        for (const auto& entry : _records) {
            ++groups[entry.second.typeName][entry.second.trace];
        }
    }
    // Naming the frames is slow; it happens outside the lock.
    for (const auto& type : groups) {
        for (const auto& trace : type.second) {
            out += "Trace (" + type.first + ", count:" + std::to_string(trace.second) + "):\n";
            out += System::Platform::DescribeFrames(trace.first.GetStackFrames(),
                                                    trace.first.GetNumStackFrames(), true);
            out += "\n";
        }
    }
}

std::atomic<RefTracker*> sRefTracker{nullptr};

} // namespace

// ---------------------------------------------------------------------------
// ObjectImpl

ObjectImpl::~ObjectImpl() { TESSERA_ASSERT(0 == _refCount); }

void ObjectImpl::IncRef() const {
    if (_refCount.ReadInc() == 0) {
        FirstIncRef(typeid(*this));
    }
}

void ObjectImpl::FirstReference() const { FirstIncRef(typeid(*this)); }

void ObjectImpl::DecRef() const {
    if (_refCount.ReadDec() == 1) {
        FinalDecRef(typeid(*this));
        delete this;
    }
}

int ObjectImpl::GetRefCount() const { return _refCount.Read(); }

std::string ObjectImpl::ToString() {
    std::ostringstream text;
    text << "[" << typeid(*this).name() << ":" << static_cast<const void*>(this) << "]";
    return text.str();
}

void ObjectImpl::FirstIncRef(const std::type_info& type) const {
    TheScoreboard()->Increment(type.name());
    if (RefTracker* tracker = sRefTracker.load(std::memory_order_acquire)) {
        tracker->Register(this, type.name());
    }
}

void ObjectImpl::FinalDecRef(const std::type_info& type) const {
    TheScoreboard()->Decrement(type.name());
    if (RefTracker* tracker = sRefTracker.load(std::memory_order_acquire)) {
        tracker->Unregister(this);
    }
}

void ObjectImpl::GetScores(std::string& out) {
    if (Scoreboard* board = GetScoreboard()) {
        board->Dump(out);
    }
    if (RefTracker* tracker = GetRefTracker()) {
        tracker->Dump(out);
    }
}

RefTracker* CreateRefTracker(const boost::unordered_set<std::string>& classNames) {
    TESSERA_ASSERT(sRefTracker==0);
    RefTracker* expected = nullptr;
    auto* tracker = new RefTrackerImpl(classNames);
    const bool installed = sRefTracker.compare_exchange_strong(expected, tracker);
    TESSERA_ASSERT(installed);
    return tracker;
}

RefTracker* GetRefTracker() { return sRefTracker.load(std::memory_order_acquire); }

Scoreboard* GetScoreboard() { return sScoreboard.load(std::memory_order_acquire); }

} // namespace Tessera
