// A lock for sections of a few instructions, where a kernel mutex would cost
// more than the work it guards. Waiters spin briefly, then yield the processor.
#pragma once

#include <atomic>
#include <thread>

namespace Tessera {

class SpinLock {
public:
    void Lock() noexcept {
        while (_held.exchange(true, std::memory_order_acquire)) {
            for (int spins = 0; _held.load(std::memory_order_relaxed); ++spins) {
                if (spins >= 64) {
                    std::this_thread::yield();
                }
            }
        }
    }
    void Unlock() noexcept { _held.store(false, std::memory_order_release); }

private:
    std::atomic<bool> _held{false};
};

class SpinLockHolder {
public:
    explicit SpinLockHolder(SpinLock& lock) noexcept : _lock(lock) { _lock.Lock(); }
    ~SpinLockHolder() { _lock.Unlock(); }
    SpinLockHolder(const SpinLockHolder&) = delete;
    SpinLockHolder& operator=(const SpinLockHolder&) = delete;

private:
    SpinLock& _lock;
};

} // namespace Tessera
