// Read-write locks: many readers or one writer.
//
//     Tessera::Ref<Tessera::System::RWLock> lock;
//     Tessera::System::GetSystemFactory()->CreateRWLock(
//         Tessera::System::RWLockableObject::WriterPreferring, lock);
//     {
//         Tessera::System::ReadSynchronized hold(lock);   // tessera/system/syncRaii.h
//         ...
//     }
//
// Objects that guard their own state derive from RWLockableObjectImpl (or
// RWLockableNotifiedObjectImpl) instead.
//
// Modes. WriterPreferring (the default): a writer that has to wait holds new
// readers back until it got in, so a stream of readers cannot starve writers.
// ReaderPreferring: new readers enter while a writer waits; readers never wait
// for one another, writers may wait for as long as readers overlap.
//
// Rules, checked on every call (a violation stops the process):
//   - A thread may read-lock a lock it has read-locked already; it must unlock
//     once per lock. A thread that holds the read lock enters again at once,
//     even while a writer waits.
//   - The write lock is not recursive, and a thread that holds the read lock
//     cannot take the write lock: "locks.find(this) == locks.end()". Use
//     UpgradeReadLock instead.
//   - Unlock needs a hold of the calling thread ("it != locks.end()"): a lock
//     is unlocked by the thread that locked it. Read-locking over one's own
//     write lock stops with "_status > 0".
//   - UpgradeReadLock needs the caller's read hold
//     ("it != locks.end() && it->second == 1"), DowngradeWriteLock its write
//     hold ("it != locks.end() && it->second == -1").
//   - A lock is destroyed free.
//
// Every thread keeps its own list of the locks it holds, so the checks cost no
// shared state.
#pragma once

#include <tessera/api.h>
#include <tessera/object.h>
#include <tessera/system/condition.h>

#include <atomic>
#include <condition_variable>
#include <mutex>

namespace Tessera {
namespace System {

class TESSERA_EXPORT RWLockableObject : public virtual Object {
public:
    enum LockMode { ReaderPreferring = 0, WriterPreferring = 1 };

    virtual void ReadLock() = 0;
    virtual void WriteLock() = 0;
    // Releases the calling thread's read or write hold (one level of a
    // recursive read hold).
    virtual void Unlock() = 0;
    // Turns the caller's read hold into the write hold; no other writer gets
    // in between. Waits while other threads still read. Returns false at once,
    // keeping the read hold, when
    //   - the caller holds the read lock more than once (it cannot give up
    //     holds it does not know about), or
    //   - another thread is already upgrading (each would wait for the other
    //     to stop reading).
    // The caller may then unlock and write-lock, and must look at the state
    // afresh.
    virtual bool UpgradeReadLock() = 0;
    // Turns the caller's write hold into a read hold, with no moment at which
    // the lock is free; waiting readers get in beside it.
    virtual void DowngradeWriteLock() = 0;

    // The lock's state, whoever holds it: hints for other threads.
    virtual bool IsReadLocked() const = 0;
    virtual bool IsWriteLocked() const = 0;
    virtual bool IsUnlocked() const = 0;
};

// A free-standing read-write lock, made by SystemFactory::CreateRWLock.
class TESSERA_EXPORT RWLock : public virtual RWLockableObject {};

// A read-write lock that threads can wait on for the next change. Every
// Unlock and DowngradeWriteLock wakes the threads in WaitForChange.
class TESSERA_EXPORT RWLockableNotifiedObject : public virtual RWLockableObject {
public:
    // Waits until another thread unlocks or downgrades this lock, or until
    // the time-out (microseconds, or InfiniteTimeDuration) expires; true when
    // woken by a change. A caller that holds the lock (read, recursively read,
    // or write) gives its hold up for the wait and has it back, of the same
    // kind and depth, when the call returns; its own giving up counts as a
    // change for the other waiters. Any thread's read unlock counts as a
    // change too, so a waiter tests its own predicate again after each return:
    //
    //     ReadSynchronized hold(this);
    //     while (!_ready) {
    //         if (!WaitForChange(timeout)) return false;
    //     }
    virtual bool WaitForChange(long long microseconds) = 0;
};

class TESSERA_EXPORT RWLockableObjectImpl : public ObjectImpl, public virtual RWLockableObject {
public:
    void ReadLock() override;
    void WriteLock() override;
    void Unlock() override;
    bool UpgradeReadLock() override;
    void DowngradeWriteLock() override;
    bool IsReadLocked() const override;
    bool IsWriteLocked() const override;
    bool IsUnlocked() const override;

    LockMode GetLockMode() const noexcept { return _mode; }

protected:
    explicit RWLockableObjectImpl(LockMode mode = WriterPreferring) noexcept : _mode(mode) {}
    // A copy is a new object with a lock of its own, free, in the same mode.
    RWLockableObjectImpl(const RWLockableObjectImpl& other) noexcept
        : Object(), ObjectImpl(other), _mode(other._mode) {}
    RWLockableObjectImpl& operator=(const RWLockableObjectImpl&) noexcept { return *this; }
    ~RWLockableObjectImpl() override;

    // For waits: gives up the calling thread's hold, whatever it is, and
    // returns it (kind 1 read with its depth, -1 write, 0 none) so that
    // RestoreHold can take the same hold back.
    struct SavedHold {
        int kind;
        int depth;
    };
    SavedHold ReleaseHold();
    void RestoreHold(const SavedHold& hold);

private:
    bool TryEnterRead() noexcept;
    void EnterRead();
    void EnterWrite();
    void LeaveRead(int holds);
    void WakeSleepers();

    // > 0: that many read holds; -1: write-locked; 0: free.
    std::atomic<int> _status{0};
    // Writer-preferring mode: a writer (or an upgrade) is waiting, new
    // readers wait too.
    std::atomic<bool> _writerWaiting{false};
    std::atomic<bool> _upgradePending{false};
    // Threads asleep on _changed: releases wake them only when there are any.
    std::atomic<int> _sleepers{0};
    const LockMode _mode;
    std::mutex _inner; // guards the sleeping, the waiting writers' count and the upgrade
    std::condition_variable _changed;
    int _waitingWriters = 0;
};

class TESSERA_EXPORT RWLockableNotifiedObjectImpl : public RWLockableObjectImpl,
                                                    public virtual RWLockableNotifiedObject {
public:
    void Unlock() override;
    void DowngradeWriteLock() override;
    bool WaitForChange(long long microseconds) override;

protected:
    explicit RWLockableNotifiedObjectImpl(LockMode mode = WriterPreferring) noexcept
        : RWLockableObjectImpl(mode) {}
    RWLockableNotifiedObjectImpl(const RWLockableNotifiedObjectImpl& other) noexcept
        : Object(), RWLockableObjectImpl(other) {}
    RWLockableNotifiedObjectImpl& operator=(const RWLockableNotifiedObjectImpl&) noexcept {
        return *this;
    }
    ~RWLockableNotifiedObjectImpl() override;

private:
    void NotifyChange();

    std::atomic<int> _changeWaiters{0};
    std::mutex _changeLock; // guards _generation and the waits on _change
    std::condition_variable _change;
    unsigned long long _generation = 0;
};

} // namespace System
} // namespace Tessera
