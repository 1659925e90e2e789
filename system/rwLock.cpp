// Read-write locks with per-thread checks of their use.
//
// The lock's state is one signed word, `_status`: the number of read holds,
// -1 while write-locked, 0 when free. Taking and releasing a hold that does not
// have to wait is one compare-and-swap or one atomic add on it; only a thread
// that must wait takes the inner mutex and sleeps on `_changed`. Every sleeper
// announces itself in `_sleepers` before it looks at `_status` for the last
// time, and every release changes `_status` before it looks at `_sleepers`
// (all sequentially consistent), so a release either sees the sleeper and wakes
// it under the inner mutex, or the sleeper sees the release.

#include <tessera/assert.h>
#include <tessera/system/rwLock.h>

#include <algorithm>
#include <chrono>
#include <type_traits>

namespace Tessera {
namespace System {
namespace {

// A thread's hold on one lock.
struct Hold {
    const void* lock;
    int kind;  // 1 read, -1 write
    int depth; // read holds this thread has taken; 1 for the write hold
};

// The locks the calling thread holds. A thread holds few locks at a time, so
// a short array searched from its end (the newest hold is released first,
// usually) beats a tree; it moves to the heap only past kInline holds. Plain
// data with nothing to destroy, so a thread's exit runs no code of ours.
class HoldList {
public:
    // The thread's hold on `lock`, or null.
    Hold* Find(const void* lock) noexcept {
        Hold* const holds = Holds();
        for (Hold* it = holds + _count; it != holds;) {
            --it;
            if (it->lock == lock) return it;
        }
        return nullptr;
    }
    void Add(const Hold& hold) {
        if (_count == (_heap != nullptr ? _heapCapacity : kInline)) Grow();
        Holds()[_count++] = hold;
    }
    void Remove(Hold* hold) noexcept {
        *hold = Holds()[--_count];
        if (_count == 0 && _heap != nullptr) {
            delete[] _heap;
            _heap = nullptr;
            _heapCapacity = 0;
        }
    }

private:
    static constexpr int kInline = 16;

    Hold* Holds() noexcept { return _heap != nullptr ? _heap : _local; }
    void Grow() {
        const int capacity = 2 * (_heap != nullptr ? _heapCapacity : kInline);
        Hold* grown = new Hold[capacity];
        std::copy(Holds(), Holds() + _count, grown);
        delete[] _heap;
        _heap = grown;
        _heapCapacity = capacity;
    }

    Hold _local[kInline];
    Hold* _heap;
    int _heapCapacity;
    int _count;
};
static_assert(std::is_trivially_destructible<HoldList>::value, "thread exit must run nothing");

thread_local HoldList tHolds;

} // namespace

RWLockableObjectImpl::~RWLockableObjectImpl() { TESSERA_ASSERT(_status == 0); }

bool RWLockableObjectImpl::TryEnterRead() noexcept {
    int status = _status.load();
    while (status >= 0 && !(_mode == WriterPreferring && _writerWaiting.load())) {
        if (_status.compare_exchange_weak(status, status + 1)) return true;
    }
    return false;
}

void RWLockableObjectImpl::EnterRead() {
    if (TryEnterRead()) return;
    std::unique_lock<std::mutex> hold(_inner);
    _sleepers.fetch_add(1);
    while (!TryEnterRead()) _changed.wait(hold);
    _sleepers.fetch_sub(1);
}

void RWLockableObjectImpl::EnterWrite() {
    int free = 0;
    if (_status.compare_exchange_strong(free, -1)) return;
    std::unique_lock<std::mutex> hold(_inner);
    _sleepers.fetch_add(1);
    bool counted = false;
    for (;;) {
        free = 0;
        if (_status.compare_exchange_strong(free, -1)) break;
        if (_mode == WriterPreferring && !counted) {
            counted = true;
            if (_waitingWriters++ == 0) _writerWaiting.store(true);
        }
        _changed.wait(hold);
    }
    if (counted && --_waitingWriters == 0) _writerWaiting.store(false);
    _sleepers.fetch_sub(1);
}

void RWLockableObjectImpl::LeaveRead(int holds) {
    const int status = _status.fetch_sub(holds) - holds;
    // Only a free lock lets a writer in, and only the last other reader's
    // leaving lets an upgrade through.
    if ((status == 0 || (status == 1 && _upgradePending.load())) && _sleepers.load() > 0) {
        WakeSleepers();
    }
}

void RWLockableObjectImpl::WakeSleepers() {
    std::lock_guard<std::mutex> hold(_inner);
    _changed.notify_all();
}

void RWLockableObjectImpl::ReadLock() {
    if (Hold* hold = tHolds.Find(this)) {
        // Recursive: the thread's own read hold keeps the lock read-locked,
        // so it enters at once, even past a waiting writer.
        TESSERA_ASSERT(_status > 0);
        _status.fetch_add(1);
        ++hold->depth;
        return;
    }
    EnterRead();
    tHolds.Add(Hold{this, 1, 1});
}

void RWLockableObjectImpl::WriteLock() {
    TESSERA_ASSERT_REPORT(tHolds.Find(this) == nullptr, "locks.find(this) == locks.end()");
    EnterWrite();
    tHolds.Add(Hold{this, -1, 1});
}

void RWLockableObjectImpl::Unlock() {
    Hold* hold = tHolds.Find(this);
    TESSERA_ASSERT_REPORT(hold != nullptr, "it != locks.end()");
    if (hold->kind == 1) {
        if (--hold->depth == 0) tHolds.Remove(hold);
        LeaveRead(1);
    } else {
        tHolds.Remove(hold);
        _status.store(0);
        if (_sleepers.load() > 0) WakeSleepers();
    }
}

bool RWLockableObjectImpl::UpgradeReadLock() {
    Hold* held = tHolds.Find(this);
    TESSERA_ASSERT_REPORT(held != nullptr && held->kind == 1,
                          "it != locks.end() && it->second == 1");
    if (held->depth != 1) return false;
    int alone = 1;
    if (!_status.compare_exchange_strong(alone, -1)) {
        std::unique_lock<std::mutex> hold(_inner);
        if (_upgradePending.load()) return false;
        _upgradePending.store(true);
        _sleepers.fetch_add(1);
        // Held back like a waiting writer, so new readers do not keep the
        // upgrade waiting in the writer-preferring mode.
        const bool counted = _mode == WriterPreferring;
        if (counted && _waitingWriters++ == 0) _writerWaiting.store(true);
        for (;;) {
            alone = 1;
            if (_status.compare_exchange_strong(alone, -1)) break;
            _changed.wait(hold);
        }
        if (counted && --_waitingWriters == 0) _writerWaiting.store(false);
        _sleepers.fetch_sub(1);
        _upgradePending.store(false);
    }
    *held = Hold{this, -1, 1};
    return true;
}

void RWLockableObjectImpl::DowngradeWriteLock() {
    Hold* held = tHolds.Find(this);
    TESSERA_ASSERT_REPORT(held != nullptr && held->kind == -1,
                          "it != locks.end() && it->second == -1");
    *held = Hold{this, 1, 1};
    _status.store(1); // from -1 straight to one read hold: never free
    if (_sleepers.load() > 0) WakeSleepers();
}

bool RWLockableObjectImpl::IsReadLocked() const { return _status.load() > 0; }

bool RWLockableObjectImpl::IsWriteLocked() const { return _status.load() == -1; }

bool RWLockableObjectImpl::IsUnlocked() const { return _status.load() == 0; }

RWLockableObjectImpl::SavedHold RWLockableObjectImpl::ReleaseHold() {
    Hold* held = tHolds.Find(this);
    if (held == nullptr) return SavedHold{0, 0};
    const SavedHold saved{held->kind, held->depth};
    tHolds.Remove(held);
    if (saved.kind == 1) {
        LeaveRead(saved.depth);
    } else {
        _status.store(0);
        if (_sleepers.load() > 0) WakeSleepers();
    }
    return saved;
}

void RWLockableObjectImpl::RestoreHold(const SavedHold& saved) {
    if (saved.kind == 1) {
        EnterRead();
        _status.fetch_add(saved.depth - 1); // the rest of a recursive hold
    } else if (saved.kind == -1) {
        EnterWrite();
    } else {
        return;
    }
    tHolds.Add(Hold{this, saved.kind, saved.depth});
}

// ---------------------------------------------------------------------------

RWLockableNotifiedObjectImpl::~RWLockableNotifiedObjectImpl() = default;

void RWLockableNotifiedObjectImpl::NotifyChange() {
    if (_changeWaiters.load() > 0) {
        std::lock_guard<std::mutex> hold(_changeLock);
        ++_generation;
        _change.notify_all();
    }
}

void RWLockableNotifiedObjectImpl::Unlock() {
    RWLockableObjectImpl::Unlock();
    NotifyChange();
}

void RWLockableNotifiedObjectImpl::DowngradeWriteLock() {
    RWLockableObjectImpl::DowngradeWriteLock();
    NotifyChange();
}

bool RWLockableNotifiedObjectImpl::WaitForChange(long long microseconds) {
    TESSERA_ASSERT(microseconds == InfiniteTimeDuration || microseconds >= 0);
    std::unique_lock<std::mutex> hold(_changeLock);
    // Counted before the hold goes: a change made once it is gone finds this
    // thread counted and has to take _changeLock, which it holds until it
    // sleeps.
    _changeWaiters.fetch_add(1);
    const SavedHold saved = ReleaseHold();
    if (saved.kind != 0 && _changeWaiters.load() > 1) {
        // Giving the hold up is a change for the others, not for this thread.
        ++_generation;
        _change.notify_all();
    }
    const unsigned long long seen = _generation;
    const auto changed = [&] { return _generation != seen; };
    bool woken = true;
    if (microseconds == InfiniteTimeDuration) {
        _change.wait(hold, changed);
    } else {
        woken = _change.wait_for(hold, std::chrono::microseconds(microseconds), changed);
    }
    _changeWaiters.fetch_sub(1);
    hold.unlock();
    RestoreHold(saved);
    return woken;
}

} // namespace System
} // namespace Tessera
