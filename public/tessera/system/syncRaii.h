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
    template <class T>
    explicit Synchronized(const Ref<T>& lockable) : Synchronized(lockable.Get()) {}
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
template <class T>
void SortByAddress(std::vector<T*>& lockables) {
    std::sort(lockables.begin(), lockables.end(), std::less<T*>());
    lockables.erase(std::unique(lockables.begin(), lockables.end()), lockables.end());
}

// A set of locks taken together, always in address order, so that any two
// sets lock their shared members in one global order; released in reverse.
template <class T>
class LockSet {
public:
    LockSet(const LockSet&) = delete;
    LockSet& operator=(const LockSet&) = delete;

    void AddLockable(T* lockable) {
        TESSERA_ASSERT(!_isLocked);
        _lockables.push_back(lockable);
    }
    void Unlock() {
        TESSERA_ASSERT(_isLocked);
        for (auto it = _lockables.rbegin(); it != _lockables.rend(); ++it) (*it)->Unlock();
        _isLocked = false;
    }

protected:
    LockSet() = default;
    ~LockSet() {
        if (_isLocked) Unlock();
    }
    template <class Take>
    void LockAll(Take take) {
        TESSERA_ASSERT(!_isLocked);
        SortByAddress(_lockables);
        for (T* lockable : _lockables) take(lockable);
        _isLocked = true;
    }

private:
    std::vector<T*> _lockables;
    bool _isLocked = false;
};

} // namespace Detail

class MultiSynchronized : public Detail::LockSet<LockableObject> {
public:
    void Lock() {
        LockAll([](LockableObject* lockable) { lockable->Lock(); });
    }
};

class MultiReadWriteSynchronized : public Detail::LockSet<RWLockableObject> {
public:
    void ReadLock() {
        LockAll([](RWLockableObject* lockable) { lockable->ReadLock(); });
    }
    void WriteLock() {
        LockAll([](RWLockableObject* lockable) { lockable->WriteLock(); });
    }
};

} // namespace System
} // namespace Tessera
