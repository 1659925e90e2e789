// Scoped holders of locks: taken in the constructor, released in the
// destructor.
//
//     {
//         Tessera::System::Synchronized hold(mutex);       // any lockable object
//         ...
//     }
//     {
//         Tessera::System::ReadSynchronized hold(rwLock);  // or WriteSynchronized
//         ...
//     }
//
// Where several locks must be held at once, a lock set takes them in address
// order, so that any two sets that share locks take them in one order and
// cannot deadlock each other:
//
//     Tessera::System::MultiSynchronized both;
//     both.AddLockable(from);
//     both.AddLockable(to);
//     both.Lock();      // ... or the other way round: the order is the same
//     ...
//     both.Unlock();    // in reverse order; the destructor unlocks a set still locked
//
// A set is filled while unlocked ("!_isLocked") and unlocked only while locked
// ("_isLocked"); a lock added twice is taken once.
#pragma once

#include <tessera/api.h>
#include <tessera/assert.h>
#include <tessera/object.h>
#include <tessera/system/mutex.h>
#include <tessera/system/rwLock.h>

#include <algorithm>
#include <functional>
#include <vector>

namespace Tessera {
namespace System {

class Synchronized {
public:
    explicit Synchronized(LockableObject* lockable) : _lockable(lockable) { _lockable->Lock(); }
    explicit Synchronized(LockableObject& lockable) : Synchronized(&lockable) {}
    template <class T> explicit Synchronized(const Ref<T>& lockable) : Synchronized(lockable.Get()) {}
    ~Synchronized() { _lockable->Unlock(); }
    Synchronized(const Synchronized&) = delete;
    Synchronized& operator=(const Synchronized&) = delete;

private:
    LockableObject* _lockable;
};

class ReadSynchronized {
public:
    explicit ReadSynchronized(RWLockableObject* lockable) : _lockable(lockable) {
        _lockable->ReadLock();
    }
    explicit ReadSynchronized(RWLockableObject& lockable) : ReadSynchronized(&lockable) {}
    template <class T>
    explicit ReadSynchronized(const Ref<T>& lockable) : ReadSynchronized(lockable.Get()) {}
    ~ReadSynchronized() { _lockable->Unlock(); }
    ReadSynchronized(const ReadSynchronized&) = delete;
    ReadSynchronized& operator=(const ReadSynchronized&) = delete;

private:
    RWLockableObject* _lockable;
};

class WriteSynchronized {
public:
    explicit WriteSynchronized(RWLockableObject* lockable) : _lockable(lockable) {
        _lockable->WriteLock();
    }
    explicit WriteSynchronized(RWLockableObject& lockable) : WriteSynchronized(&lockable) {}
    template <class T>
    explicit WriteSynchronized(const Ref<T>& lockable) : WriteSynchronized(lockable.Get()) {}
    ~WriteSynchronized() { _lockable->Unlock(); }
    WriteSynchronized(const WriteSynchronized&) = delete;
    WriteSynchronized& operator=(const WriteSynchronized&) = delete;

private:
    RWLockableObject* _lockable;
};

namespace Detail {

// The members of a lock set in the one global order: by address, each once.
template <class T> void SortByAddress(std::vector<T*>& lockables) {
    std::sort(lockables.begin(), lockables.end(), std::less<T*>());
    lockables.erase(std::unique(lockables.begin(), lockables.end()), lockables.end());
}

} // namespace Detail

class MultiSynchronized {
public:
    MultiSynchronized() = default;
    ~MultiSynchronized() {
        if (_isLocked) Unlock();
    }
    MultiSynchronized(const MultiSynchronized&) = delete;
    MultiSynchronized& operator=(const MultiSynchronized&) = delete;

    void AddLockable(LockableObject* lockable) {
        TESSERA_ASSERT(!_isLocked);
        _lockables.push_back(lockable);
    }
    void Lock() {
        TESSERA_ASSERT(!_isLocked);
        Detail::SortByAddress(_lockables);
        for (LockableObject* lockable : _lockables) lockable->Lock();
        _isLocked = true;
    }
    void Unlock() {
        TESSERA_ASSERT(_isLocked);
        for (auto it = _lockables.rbegin(); it != _lockables.rend(); ++it) (*it)->Unlock();
        _isLocked = false;
    }

private:
    std::vector<LockableObject*> _lockables;
    bool _isLocked = false;
};

class MultiReadWriteSynchronized {
public:
    MultiReadWriteSynchronized() = default;
    ~MultiReadWriteSynchronized() {
        if (_isLocked) Unlock();
    }
    MultiReadWriteSynchronized(const MultiReadWriteSynchronized&) = delete;
    MultiReadWriteSynchronized& operator=(const MultiReadWriteSynchronized&) = delete;

    void AddLockable(RWLockableObject* lockable) {
        TESSERA_ASSERT(!_isLocked);
        _lockables.push_back(lockable);
    }
    void ReadLock() {
        TESSERA_ASSERT(!_isLocked);
        Detail::SortByAddress(_lockables);
        for (RWLockableObject* lockable : _lockables) lockable->ReadLock();
        _isLocked = true;
    }
    void WriteLock() {
        TESSERA_ASSERT(!_isLocked);
        Detail::SortByAddress(_lockables);
        for (RWLockableObject* lockable : _lockables) lockable->WriteLock();
        _isLocked = true;
    }
    void Unlock() {
        TESSERA_ASSERT(_isLocked);
        for (auto it = _lockables.rbegin(); it != _lockables.rend(); ++it) (*it)->Unlock();
        _isLocked = false;
    }

private:
    std::vector<RWLockableObject*> _lockables;
    bool _isLocked = false;
};

} // namespace System
} // namespace Tessera
