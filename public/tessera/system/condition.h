// Conditions: a lockable object that threads can wait on.
//
// A waitable object is a lockable object (mutex.h) with a queue of waiting
// threads. The waiter holds the object's lock, tests its predicate and waits;
// the wait gives the lock up entirely (whatever its recursion depth) and takes
// it back, at the same depth, before it returns. The thread that changes the
// state does so under the lock and then signals:
//
//     class Inbox : public Tessera::System::WaitableObjectImpl {
//     public:
//         void Put(int item) {
//             Tessera::System::Synchronized hold(this);
//             _items.push_back(item);
//             Signal();
//         }
//         bool Take(int& item, long long microseconds) {
//             Tessera::System::Synchronized hold(this);
//             while (_items.empty()) {
//                 if (!TimedWait(microseconds)) return false;
//             }
//             item = _items.front();
//             _items.pop_front();
//             return true;
//         }
//     private:
//         std::deque<int> _items;
//     };
//
// Waiters are woken first come, first served: Signal wakes the one that has
// waited longest, Broadcast wakes all. A wake-up is never lost: a thread that
// is queued when Signal runs reports success, even when its time-out expired
// at the same moment. Signal and Broadcast may be called with or without the
// lock; a waiter can miss only a change that was made without it.
//
// Time-outs are in microseconds and waited in whole milliseconds, rounded
// down: 999 microseconds is a test that does not block. InfiniteTimeDuration
// waits without limit; any other negative time-out stops the process.
#pragma once

#include <tessera/api.h>
#include <tessera/object.h>
#include <tessera/system/mutex.h>

#include <climits>
#include <deque>
#include <mutex>

namespace Tessera {
namespace System {

constexpr long long InfiniteTimeDuration = LLONG_MIN;

class TESSERA_EXPORT WaitableObject : public virtual LockableObject {
public:
    // The caller must hold the object's lock.
    virtual void Wait() = 0;
    // True when signalled, false when the time-out expired first.
    virtual bool TimedWait(long long microseconds) = 0;
    virtual void Signal() = 0;
    virtual void Broadcast() = 0;
};

// A free-standing condition, made by SystemFactory::CreateCondition.
class TESSERA_EXPORT Condition : public virtual WaitableObject {};

namespace Detail {
class ThreadEvent;
}

class TESSERA_EXPORT WaitableObjectImpl : public LockableObjectImpl, public virtual WaitableObject {
public:
    void Wait() override;
    bool TimedWait(long long microseconds) override;
    void Signal() override;
    void Broadcast() override;

protected:
    WaitableObjectImpl() noexcept = default;
    // A copy is a new object: its own lock, nobody waiting.
    WaitableObjectImpl(const WaitableObjectImpl& other) noexcept
        : Object(), LockableObjectImpl(other) {}
    WaitableObjectImpl& operator=(const WaitableObjectImpl&) noexcept { return *this; }
    ~WaitableObjectImpl() override;

private:
    std::mutex _queueLock; // guards _waiters
    std::deque<Detail::ThreadEvent*> _waiters; // first come, first woken
};

} // namespace System
} // namespace Tessera
