// Conditions: a FIFO queue of per-thread manual-reset events.
//
// Each waiting thread queues its own event and sleeps on it; Signal sets the
// event at the head of the queue and takes it out, under the queue's lock. So
// an event is set only while it is queued, and a waiter whose time-out expires
// decides, under the same lock, whether it was signalled (its event is set,
// someone took it out) or not (it is still queued and takes itself out).

#include <tessera/assert.h>
#include <tessera/system/condition.h>

#include "system/conditionTesting.h"
#include "system/perThread.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <new>
#include <vector>

namespace Tessera {
namespace System {
namespace Detail {

// A manual-reset event: stays set until reset, whoever waits.
class ThreadEvent {
public:
    void Set() {
        {
            std::lock_guard<std::mutex> hold(_lock);
            _set = true;
        }
        // Notified after the lock is given up, so that the waiter does not
        // wake only to wait for the lock. Events are never destroyed (see
        // EventPool), so the event is still there even when its waiter has
        // returned in the meantime; at worst a later wait of the same thread
        // wakes, finds the event not set and sleeps again.
        _wake.notify_one();
    }
    void Reset() {
        std::lock_guard<std::mutex> hold(_lock);
        _set = false;
    }
    bool IsSet() {
        std::lock_guard<std::mutex> hold(_lock);
        return _set;
    }
    // Waits until set, at most `milliseconds` unless that is negative; true
    // when set.
    bool Wait(long long milliseconds) {
        std::unique_lock<std::mutex> hold(_lock);
        if (milliseconds == 0) return _set; // a test, not a wait
        if (milliseconds < 0) {
            _wake.wait(hold, [this] { return _set; });
            return true;
        }
        return _wake.wait_for(hold, std::chrono::milliseconds(milliseconds),
                              [this] { return _set; });
    }

private:
    std::mutex _lock;
    std::condition_variable _wake;
    bool _set = false;
};

} // namespace Detail

namespace {

using Detail::ThreadEvent;

// Events are never destroyed. When its thread ends, an event goes back to
// this pool for a later thread: the thread that set it may still be inside
// Set, leaving the event's lock or notifying, after the woken thread has
// returned and ended (and not every platform's mutex is safe to destroy
// while its last holder is still leaving it).
class EventPool {
public:
    ThreadEvent* Take() {
        std::lock_guard<std::mutex> hold(_lock);
        if (_free.empty()) return new (std::nothrow) ThreadEvent;
        ThreadEvent* event = _free.back();
        _free.pop_back();
        return event;
    }
    void Give(ThreadEvent* event) {
        std::lock_guard<std::mutex> hold(_lock);
        _free.push_back(event);
    }

private:
    std::mutex _lock;
    std::vector<ThreadEvent*> _free;
};

EventPool& Events() {
    static EventPool* pool = new EventPool; // outlives every thread's exit
    return *pool;
}

// The calling thread's event, taken on its first wait and given back to the
// pool when the thread ends.
struct EventHolder {
    ThreadEvent* event = nullptr;
    ~EventHolder() {
        if (event != nullptr) Events().Give(event);
    }
};

PerThread<EventHolder>& EventHolders() {
    static PerThread<EventHolder>* holders = new PerThread<EventHolder>;
    return *holders;
}

struct TimedOutHook {
    void (*function)(void*);
    void* context;
};
thread_local TimedOutHook tTimedOutHook = {nullptr, nullptr};

ThreadEvent* ThisThreadEvent() {
    EventHolder& holder = EventHolders().Get();
    if (holder.event == nullptr) {
        holder.event = Events().Take();
        TESSERA_ASSERT_REPORT(holder.event != nullptr, "eventHolder->_event != 0");
    }
    return holder.event;
}

} // namespace

void Testing::SetTimedOutHook(void (*hook)(void*), void* context) {
    tTimedOutHook = {hook, context};
}

WaitableObjectImpl::~WaitableObjectImpl() { TESSERA_ASSERT(_waiters.empty()); }

void WaitableObjectImpl::Wait() { TimedWait(InfiniteTimeDuration); }

bool WaitableObjectImpl::TimedWait(long long microseconds) {
    TESSERA_ASSERT(microseconds == InfiniteTimeDuration || microseconds >= 0);
    TESSERA_ASSERT(_mutex.IsLockedByThisThread());
    ThreadEvent* event = ThisThreadEvent();
    {
        std::lock_guard<std::mutex> hold(_queueLock);
        event->Reset();
        _waiters.push_back(event);
    }
    const int depth = _mutex.UnlockAll();
    // Whole milliseconds, rounded down; -1 for no limit.
    const long long milliseconds =
        microseconds == InfiniteTimeDuration ? -1 : microseconds / 1000;
    bool signalled = event->Wait(milliseconds);
    if (!signalled) {
        if (tTimedOutHook.function != nullptr) {
            tTimedOutHook.function(tTimedOutHook.context);
        }
        std::lock_guard<std::mutex> hold(_queueLock);
        // A Signal between the time-out and this lock took the event out of
        // the queue and set it: it counts.
        signalled = event->IsSet();
        if (!signalled) {
            auto itW = std::find(_waiters.begin(), _waiters.end(), event);
            TESSERA_ASSERT(itW != _waiters.end());
            _waiters.erase(itW);
        }
    }
    _mutex.RelockAll(depth);
    return signalled;
}

void WaitableObjectImpl::Signal() {
    std::lock_guard<std::mutex> hold(_queueLock);
    if (!_waiters.empty()) {
        ThreadEvent* first = _waiters.front();
        _waiters.pop_front();
        first->Set();
    }
}

void WaitableObjectImpl::Broadcast() {
    std::lock_guard<std::mutex> hold(_queueLock);
    for (ThreadEvent* waiter : _waiters) waiter->Set();
    _waiters.clear();
}

} // namespace System
} // namespace Tessera
