// The recursive mutex and the lockable object built on it.

#include <tessera/assert.h>
#include <tessera/system/mutex.h>

namespace Tessera {
namespace System {
namespace {

// The address of a thread-local byte names the calling thread: unique among
// the threads alive, and cheaper to get than an id from the system.
thread_local char tThisThread;

const void* ThisThread() noexcept { return &tThisThread; }

} // namespace

namespace Detail {

void RecursiveMutex::Lock() {
    const void* self = ThisThread();
    // Only this thread ever stores its own token, so a relaxed read that
    // finds it is exact.
    if (_owner.load(std::memory_order_relaxed) == self) {
        ++_depth;
        return;
    }
    _lock.lock();
    _owner.store(self, std::memory_order_relaxed);
    _depth = 1;
}

void RecursiveMutex::Unlock() {
    if (--_depth == 0) {
        _owner.store(nullptr, std::memory_order_relaxed);
        _lock.unlock();
    }
}

bool RecursiveMutex::IsLockedByThisThread() const noexcept {
    return _owner.load(std::memory_order_relaxed) == ThisThread();
}

int RecursiveMutex::UnlockAll() {
    const int depth = _depth;
    _depth = 0;
    _owner.store(nullptr, std::memory_order_relaxed);
    _lock.unlock();
    return depth;
}

void RecursiveMutex::RelockAll(int depth) {
    _lock.lock();
    _owner.store(ThisThread(), std::memory_order_relaxed);
    _depth = depth;
}

} // namespace Detail

LockableObjectImpl::~LockableObjectImpl() { TESSERA_ASSERT(!_mutex.IsLocked()); }

void LockableObjectImpl::Lock() { _mutex.Lock(); }

void LockableObjectImpl::Unlock() {
    TESSERA_ASSERT(_mutex.IsLocked());
    TESSERA_ASSERT(_mutex.IsLockedByThisThread());
    _mutex.Unlock();
}

bool LockableObjectImpl::IsLocked() const { return _mutex.IsLocked(); }

bool LockableObjectImpl::IsLockedByThisThread() const { return _mutex.IsLockedByThisThread(); }

} // namespace System
} // namespace Tessera
