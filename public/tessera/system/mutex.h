// Mutexes and lockable objects.
//
// A lockable object carries its own recursive lock: the thread that holds it
// may lock it again, and it is free once every Lock has been matched by an
// Unlock. Objects that guard their own state derive from LockableObjectImpl;
// a free-standing lock comes from the factory:
//
//     class Queue : public Tessera::System::LockableObjectImpl { ... };
//
//     Tessera::Ref<Tessera::System::Mutex> mutex;
//     Tessera::System::GetSystemFactory()->CreateSimpleMutex(mutex);
//     {
//         Tessera::System::Synchronized hold(mutex);   // tessera/system/syncRaii.h
//         ...
//     }
//
// Misuse stops the process through the assertion path: unlocking a lock that
// no thread holds ("_mutex.IsLocked()"), unlocking one that another thread
// holds, and destroying a lock that is held ("!_mutex.IsLocked()").
#pragma once

#include <tessera/api.h>
#include <tessera/object.h>

#include <atomic>
#include <mutex>

namespace Tessera {
namespace System {

class TESSERA_EXPORT LockableObject : public virtual Object {
public:
    virtual void Lock() = 0;
    virtual void Unlock() = 0;
    // Whether some thread holds the lock: a hint for other threads, exact for
    // the thread that holds it.
    virtual bool IsLocked() const = 0;
};

// A lock of its own, made by SystemFactory::CreateSimpleMutex.
class TESSERA_EXPORT Mutex : public virtual LockableObject {};

namespace Detail {

// The recursive lock inside every lockable object: a std::mutex, the thread
// that holds it and how many times. Unchecked; the lockable bases check their
// callers before they get here.
class TESSERA_EXPORT RecursiveMutex {
public:
    RecursiveMutex() noexcept = default;
    RecursiveMutex(const RecursiveMutex&) = delete;
    RecursiveMutex& operator=(const RecursiveMutex&) = delete;

    void Lock();
    void Unlock();
    bool IsLocked() const noexcept { return _owner.load(std::memory_order_relaxed) != nullptr; }
    bool IsLockedByThisThread() const noexcept;

    // For waits: gives the lock up entirely, whatever its depth, and returns
    // the depth that RelockAll takes back.
    int UnlockAll();
    void RelockAll(int depth);

private:
    std::mutex _lock;
    std::atomic<const void*> _owner{nullptr}; // a token of the holding thread
    int _depth = 0; // touched only by the holder
};

} // namespace Detail

class TESSERA_EXPORT LockableObjectImpl : public ObjectImpl, public virtual LockableObject {
public:
    void Lock() override;
    void Unlock() override;
    bool IsLocked() const override;
    // Whether the calling thread holds the lock.
    bool IsLockedByThisThread() const;

protected:
    LockableObjectImpl() noexcept = default;
    // A copy is a new object with a lock of its own, free.
    LockableObjectImpl(const LockableObjectImpl& other) noexcept : Object(), ObjectImpl(other) {}
    LockableObjectImpl& operator=(const LockableObjectImpl&) noexcept { return *this; }
    ~LockableObjectImpl() override;

    Detail::RecursiveMutex _mutex;
};

} // namespace System
} // namespace Tessera
