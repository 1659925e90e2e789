// The thread pool on Boost.Asio: one I/O service per class of threads (the
// completion port on Windows, the reactor elsewhere).
#pragma once

#include <tessera/logger.h>
#include <tessera/system/thread.h>
#include <tessera/system/threadPool.h>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <typeinfo>
#include <vector>

namespace Tessera {
namespace System {

class ThreadPoolAsio;
class TimerImpl;

// The per-thread record of a pool thread (or of a thread enlisted into one).
struct TlsInfo {
    ThreadPoolAsio* _pool = nullptr;
    bool _working = false; // running a handler now
    bool _exit = false; // leave once the handler returns
    int _class = -1; // the thread's work class; -1 for an enlisted thread
    // Handlers this I/O thread has finished: written by the thread alone, read
    // by the busy watch (a shared count would bounce between the I/O threads'
    // caches on every handler).
    std::atomic<std::uint64_t> _handlersDone{0};
    // Deferred by the running handler, queued once it has returned.
    std::vector<ThreadPool::WorkItem>* _deferred = nullptr;
};

// The task threads' queue: work items in order. A thread that finds it empty
// yields a few times before it sleeps, so that a steady stream of items is
// taken by threads still awake instead of by a wake-up per item. A push wakes
// a sleeper only when every sleeper is not already being woken: a woken
// thread takes a while to get the lock back, and a fast poster would
// otherwise signal once per item meanwhile. (One poster, four threads on two
// cores: the median of a million tiny items went from 0.54 s to 0.24 s.)
class TaskQueue {
public:
    struct Entry {
        ThreadPool::WorkItem work;
        bool internal = false; // the pool's own: run without the handler accounting
    };
    void Push(Entry&& entry) {
        bool wake = false;
        {
            std::lock_guard<std::mutex> hold(_lock);
            _entries.push_back(std::move(entry));
            _size.store(_entries.size(), std::memory_order_relaxed);
            if (_sleeping > _waking) {
                ++_waking;
                wake = true;
            }
        }
        if (wake) _changed.notify_one();
    }
    // The next entry; false once stopped and empty.
    bool Pop(Entry& out) {
        std::unique_lock<std::mutex> hold(_lock);
        if (_entries.empty() && !_stopped) {
            hold.unlock();
            for (int i = 0; i < kYieldsBeforeSleep && _size.load(std::memory_order_relaxed) == 0;
                 ++i) {
                std::this_thread::yield();
            }
            hold.lock();
        }
        while (_entries.empty()) {
            if (_stopped) return false;
            ++_sleeping;
            _changed.wait(hold);
            --_sleeping;
            // Whoever woke (or woke spuriously) stands for one pending wake:
            // counting one too few only costs a spare signal later.
            if (_waking > 0) --_waking;
        }
        out = std::move(_entries.front());
        _entries.pop_front();
        _size.store(_entries.size(), std::memory_order_relaxed);
        return true;
    }
    void Stop() {
        {
            std::lock_guard<std::mutex> hold(_lock);
            _stopped = true;
        }
        _changed.notify_all();
    }

private:
    static constexpr int kYieldsBeforeSleep = 16;

    std::mutex _lock;
    std::condition_variable _changed;
    std::deque<Entry> _entries;
    std::atomic<std::size_t> _size{0}; // _entries.size(), read without the lock
    int _sleeping = 0; // threads inside Pop's wait
    int _waking = 0; // signals sent and not yet taken up; never above _sleeping
    bool _stopped = false;
};

class ThreadPoolAsio final : public ObjectImpl, public ThreadPool {
public:
    // The settings of one class of threads.
    struct ClassLimits {
        int min = 2;
        int max = 2;
    };

    explicit ThreadPoolAsio(const Service::Config::View& config);
    ~ThreadPoolAsio() override;

    // ThreadPool:
    bool QueueWorkItem(const WorkItem& work, WorkType type) override;
    bool PostCompletion(const WorkItem& completion) override;
    bool Defer(const WorkItem& work) override;
    void ScheduleTimer(std::int64_t delayUsec, const WorkItem& work, Ref<Timer>& out) override;
    void RegisterPollable(std::intptr_t handle, const WorkItem& work) override;
    bool UnregisterPollable(std::intptr_t handle) override;
    void Enlist() override;
    void Delist() override;
    bool IsEnlisted() const override;
    void SetConfig(const Service::Config::View& config) override;
    void GetStatistics(std::vector<Statistic>& out) const override;
    void Shutdown() override;

    // The service that the streams' I/O runs on.
    boost::asio::io_context& GetIoService() noexcept { return _classes[WORK_IO].context; }

    // Runs `f` as a handler of class `type` on the calling pool thread: the
    // accounting, the working mark, trace logging and the handling of
    // exceptions. Streams call their callbacks through it.
    template <class F>
    void Run(WorkType type, F&& f) {
        WorkClass& c = _classes[type];
        TlsInfo* const info = Enter(c, typeid(F));
        try {
            if (c.forceException) ThrowForced(c);
            f();
        } catch (...) {
            HandlerFailed();
        }
        Leave(c, info);
    }
    void HandleWork(WorkType type, const WorkItem& work) { Run(type, work); }

    // Test seam: the period of the idle tick.
    static void SetIdleTickUsec(std::int64_t usec);

private:
    friend class TimerImpl;

    struct WorkClass {
        WorkClass(int i, const char* n, int hint) : index(i), name(n), context(hint) {}
        const int index;
        const char* const name;
        std::atomic<int> min{2};
        std::atomic<int> max{2};
        std::atomic<int> running{0};
        std::atomic<int> busy{0};
        std::atomic<int> queued{0};
        bool forceException = false;
        const int defaultCount = 2;
        int started = 0; // threads started so far, for names; under _lock
        bool warned = false; // the thread-count warning given; under _lock
        // I/O threads run the I/O service; task threads take the queue.
        boost::asio::io_context context;
        std::optional<boost::asio::executor_work_guard<boost::asio::io_context::executor_type>>
            guard;
        TaskQueue queue;
    };

    // The pool's mutex, with its owner recorded for IsLocked().
    class Hold {
    public:
        explicit Hold(ThreadPoolAsio& pool) : _pool(pool) {
            _pool._mutex.lock();
            _pool._lockOwner.store(std::this_thread::get_id());
            _held = true;
        }
        ~Hold() { Unlock(); }
        void Unlock() {
            if (!_held) return;
            _held = false;
            _pool._lockOwner.store(std::thread::id());
            _pool._mutex.unlock();
        }

    private:
        ThreadPoolAsio& _pool;
        bool _held = false;
    };

    static ClassLimits ReadLimits(const Service::Config::View& config, const char* name,
                                  bool* forceException, const char* forceKey);
    void StartThreadLocked(WorkClass& c);
    void MaybeGrow(WorkClass& c);
    void ThreadMain(WorkClass* c, const std::string& name);
    TlsInfo* Enter(WorkClass& c, const std::type_info& type);
    void Leave(WorkClass& c, TlsInfo* info);
    [[noreturn]] static void ThrowForced(const WorkClass& c);
    // In a catch block: logs the exception and, unless configured to go on,
    // ends the process.
    void HandlerFailed();
    bool Post(WorkClass& c, const WorkItem& work);
    // Queues to the class without the checks of Post (accepting, growth).
    void Enqueue(WorkClass& c, const WorkItem& work);
    // Queues what the handler just run deferred.
    void FlushDeferred(TlsInfo* info);
    int IdleFloor() const noexcept;
    // Every I/O thread is in a handler: looks again after a while, from the
    // timer thread, and starts one more if none of those handlers has ended.
    void WatchBusyIo();
    void BusyIoLooked(const boost::system::error_code& ec);
    std::uint64_t IoHandlersDoneLocked() const; // under _ioWatchLock
    void ScheduleIdleTick();
    void IdleTickHandler(const boost::system::error_code& ec);
    void IdleTick();
    void MarkExit(WorkClass& c); // on an I/O thread: throws LeaveThread when it leaves
    void AssertPoolThread() const;
    void JoinFinishedLocked();
    bool IsLocked() const noexcept { return _lockOwner.load() == std::this_thread::get_id(); }
    // Adds a timer to the list of pending ones; false once the pool is shut
    // down.
    bool Link(TimerImpl* timer);
    void Unlink(TimerImpl* timer);
    // Cancels every pending timer and refuses new ones (shutdown).
    void CloseTimers();
    // Creates the container of pollable handles (construction) and cancels
    // every registration for good (shutdown).
    void OpenPollables();
    void ClosePollables();

    Ref<Service::Logger> _log;
    Ref<ThreadControl> _threadCtl;
    WorkClass _classes[2];
    std::size_t _stackSize = 256 * 1024;
    std::string _namePrefix;
    int _maxConcurrency = 0x7FFFFFFF;
    bool _catchWorkItemExceptions = false;
    int _threadCountWarningThreshold = 2;
    bool _exitIdleThreads = false;
    int _threadCheckTimeSecs = 600;

    std::atomic<int> _idle{0};
    std::atomic<int> _idleTicks{-1};
    std::atomic<bool> _accepting{true};

    mutable std::mutex _mutex; // the pool's state below
    std::atomic<std::thread::id> _lockOwner;
    std::vector<Ref<Thread>> _threads; // running
    std::vector<Ref<Thread>> _finished; // left, not yet joined
    Ref<Thread> _timerThread; // runs the task class's service: the timers
    bool _shutDown = false;

    std::mutex _tickLock; // the idle tick's timer and flags
    boost::asio::steady_timer _idleTimer;
    bool _tickPending = false;
    bool _tickStopped = false;

    // The watch over a fully busy I/O class; its timer runs on the timer
    // thread, which no stuck I/O handler can hold up.
    std::atomic<bool> _ioWatchArmed{false};
    std::mutex _ioWatchLock; // the watch's timer and the fields below
    boost::asio::steady_timer _ioWatch;
    std::vector<const TlsInfo*> _ioThreads; // the running I/O threads' records
    std::uint64_t _ioDoneByGone = 0; // handlers finished by I/O threads that left
    std::uint64_t _ioDoneWhenArmed = 0;
    bool _ioWatchStopped = false;

    // Timers not yet fired or cancelled, in a list through the timers.
    std::mutex _timerLock;
    TimerImpl* _timers = nullptr;
    bool _timersClosed = false;
    std::atomic<std::int64_t> _timerCount{0};

    // Registered pollable handles (asio/poolPollables.cpp, where the
    // container is defined).
    class PollContainer;
    struct PollContainerDelete {
        void operator()(PollContainer* polls) const noexcept;
    };
    std::unique_ptr<PollContainer, PollContainerDelete> _polls;
};

} // namespace System
} // namespace Tessera
