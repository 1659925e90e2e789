// The thread pool's timers: each a steady timer of the task class's service,
// run by the pool's timer thread, which hands the work of a due timer to the
// task queue. Pending timers are kept in a list, so that shutdown can cancel
// them.

#include "asio/ThreadPoolAsio.h"

#include <algorithm>
#include <chrono>

namespace Tessera {
namespace System {

class TimerImpl final : public ObjectImpl, public Timer {
public:
    enum State { PENDING, FIRED, CANCELLED };

    TimerImpl(ThreadPoolAsio* pool, const ThreadPool::WorkItem& work)
        : _pool(pool), _work(work), _timer(pool->_classes[ThreadPool::WORK_TASK].context) {}

    bool Cancel() override {
        int expected = PENDING;
        if (_state.compare_exchange_strong(expected, CANCELLED, std::memory_order_acq_rel)) {
            _pool->Unlink(this);
            std::lock_guard<std::mutex> hold(_lock);
            if (_armed) _timer.cancel();
            return true;
        }
        return expected == CANCELLED;
    }

    void Start(std::int64_t delayUsec) {
        std::lock_guard<std::mutex> hold(_lock);
        _timer.expires_after(std::chrono::microseconds(std::max<std::int64_t>(delayUsec, 0)));
        _armed = true;
        Ref<TimerImpl> self(this);
        _timer.async_wait([self](const boost::system::error_code&) { self->Fired(); });
        // A Cancel that came before the timer was armed.
        if (_state.load(std::memory_order_acquire) != PENDING) _timer.cancel();
    }

private:
    friend class ThreadPoolAsio;

    void Fired() {
        {
            // The service is done with the timer: drop the work and let a
            // late Cancel find nothing to cancel.
            std::lock_guard<std::mutex> hold(_lock);
            _armed = false;
        }
        int expected = PENDING;
        if (_state.compare_exchange_strong(expected, FIRED, std::memory_order_acq_rel)) {
            _pool->Unlink(this);
            WorkItem work;
            work.Swap(_work);
            _pool->Enqueue(_pool->_classes[ThreadPool::WORK_TASK], work);
        } else {
            _work.Clear();
        }
    }

    typedef ThreadPool::WorkItem WorkItem;

    ThreadPoolAsio* const _pool;
    WorkItem _work;
    std::atomic<int> _state{PENDING};
    std::mutex _lock; // _timer and _armed
    bool _armed = false;
    boost::asio::steady_timer _timer;
    // The pool's list of pending timers, under its _timerLock.
    TimerImpl* _prev = nullptr;
    TimerImpl* _next = nullptr;
    bool _linked = false;
};

bool ThreadPoolAsio::Link(TimerImpl* timer) {
    std::lock_guard<std::mutex> hold(_timerLock);
    if (_timersClosed) return false;
    timer->_next = _timers;
    if (_timers) _timers->_prev = timer;
    _timers = timer;
    timer->_linked = true;
    _timerCount.fetch_add(1, std::memory_order_relaxed);
    return true;
}

void ThreadPoolAsio::Unlink(TimerImpl* timer) {
    std::lock_guard<std::mutex> hold(_timerLock);
    if (!timer->_linked) return;
    if (timer->_prev) timer->_prev->_next = timer->_next;
    if (timer->_next) timer->_next->_prev = timer->_prev;
    if (_timers == timer) _timers = timer->_next;
    timer->_prev = timer->_next = nullptr;
    timer->_linked = false;
    _timerCount.fetch_sub(1, std::memory_order_relaxed);
}

void ThreadPoolAsio::ScheduleTimer(std::int64_t delayUsec, const WorkItem& work, Ref<Timer>& out) {
    Ref<TimerImpl> timer(new TimerImpl(this, work));
    if (!Link(timer.Get())) {
        timer->_state.store(TimerImpl::CANCELLED);
        timer->_work.Clear();
        out = std::move(timer);
        return;
    }
    timer->Start(delayUsec);
    out = std::move(timer);
}

void ThreadPoolAsio::CloseTimers() {
    // Timers not yet fired will not run; their handlers still come through
    // the service, which drops them.
    {
        std::lock_guard<std::mutex> hold(_timerLock);
        _timersClosed = true;
    }
    for (;;) {
        Ref<TimerImpl> timer;
        {
            std::lock_guard<std::mutex> hold(_timerLock);
            if (_timers == nullptr) break;
            timer = _timers;
        }
        if (!timer->Cancel()) Unlink(timer.Get());
    }
}

} // namespace System
} // namespace Tessera
