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

// A thread's hold on one lock. It compares equal to its kind, so that the
// checks read "it->second == 1" for a read hold and "it->second == -1" for the
// write hold, whatever the depth of a recursive read hold.
struct Hold {
    int kind;  // 1 read, -1 write
    int depth; // read holds this thread has taken; 1 for the write hold

    bool operator==(int k) const noexcept { return kind == k; }
};

// The locks the calling thread holds. A thread holds few locks at a time, so
// a short array searched from its end (the newest hold is released first,
// usually) beats a tree; it moves to the heap only past kInline holds. Plain
// data with nothing to destroy, so a thread's exit runs no code of ours.
class HoldMap {
public:
    struct Entry {
        const void* first; // the lock
        Hold second;
    };
    using iterator = Entry*;

    iterator find(const void* lock) noexcept {
        Entry* const entries = Entries();
        for (Entry* it = entries + _count; it != entries;) {
            --it;
            if (it->first == lock) return it;
        }
        return end();
    }
    iterator end() noexcept { return Entries() + _count; }
    void insert(const void* lock, Hold hold) {
        if (_count == (_heap != nullptr ? _heapCapacity : kInline)) Grow();
        Entries()[_count++] = Entry{lock, hold};
    }
    void erase(iterator it) noexcept {
        *it = Entries()[--_count];
        if (_count == 0 && _heap != nullptr) {
            delete[] _heap;
            _heap = nullptr;
            _heapCapacity = 0;
        }
    }

private:
    static constexpr int kInline = 16;

    Entry* Entries() noexcept { return _heap != nullptr ? _heap : _local; }
    void Grow() {
        const int capacity = 2 * (_heap != nullptr ? _heapCapacity : kInline);
        Entry* grown = new Entry[capacity];
        std::copy(Entries(), Entries() + _count, grown);
        delete[] _heap;
        _heap = grown;
        _heapCapacity = capacity;
    }

    Entry _local[kInline];
    Entry* _heap;
    int _heapCapacity;
    int _count;
};
static_assert(std::is_trivially_destructible<HoldMap>::value, "thread exit must run nothing");

thread_local HoldMap tLocks;

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
    HoldMap& locks = tLocks;
    auto it = locks.find(this);
    if (it != locks.end()) {
        // Recursive: the thread's own read hold keeps the lock read-locked,
        // so it enters at once, even past a waiting writer.
        TESSERA_ASSERT(_status > 0);
        _status.fetch_add(1);
        ++it->second.depth;
        return;
    }
    EnterRead();
    locks.insert(this, Hold{1, 1});
}

void RWLockableObjectImpl::WriteLock() {
    HoldMap& locks = tLocks;
    TESSERA_ASSERT(locks.find(this) == locks.end());
    EnterWrite();
    locks.insert(this, Hold{-1, 1});
}

void RWLockableObjectImpl::Unlock() {
    HoldMap& locks = tLocks;
    auto it = locks.find(this);
    TESSERA_ASSERT(it != locks.end());
    if (it->second == 1) {
        if (--it->second.depth == 0) locks.erase(it);
        LeaveRead(1);
    } else {
        locks.erase(it);
        _status.store(0);
        if (_sleepers.load() > 0) WakeSleepers();
    }
}

bool RWLockableObjectImpl::UpgradeReadLock() {
    HoldMap& locks = tLocks;
    auto it = locks.find(this);
    TESSERA_ASSERT(it != locks.end() && it->second == 1);
    if (it->second.depth != 1) return false;
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
    it->second = Hold{-1, 1};
    return true;
}

void RWLockableObjectImpl::DowngradeWriteLock() {
    HoldMap& locks = tLocks;
    auto it = locks.find(this);
    TESSERA_ASSERT(it != locks.end() && it->second == -1);
    it->second = Hold{1, 1};
    _status.store(1); // from -1 straight to one read hold: never free
    if (_sleepers.load() > 0) WakeSleepers();
}

bool RWLockableObjectImpl::IsReadLocked() const { return _status.load() > 0; }

bool RWLockableObjectImpl::IsWriteLocked() const { return _status.load() == -1; }

bool RWLockableObjectImpl::IsUnlocked() const { return _status.load() == 0; }

RWLockableObjectImpl::SavedHold RWLockableObjectImpl::ReleaseHold() {
    HoldMap& locks = tLocks;
    auto it = locks.find(this);
    if (it == locks.end()) return SavedHold{0, 0};
    const SavedHold saved{it->second.kind, it->second.depth};
    locks.erase(it);
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
    tLocks.insert(this, Hold{saved.kind, saved.depth});
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
