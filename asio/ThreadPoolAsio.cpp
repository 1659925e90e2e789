// The thread pool on Boost.Asio.
//
// I/O threads run the I/O service that the streams and pollable handles use;
// task threads take work items from their own queue; one more thread runs a
// second service for timers and hands what is due to the task queue. An I/O
// thread stays in run() until the service stops or the idle exit makes it
// leave; a task thread loops until the queue stops or the idle exit marks it.
// Every handler goes through Run(), which keeps the counts of busy and idle
// threads that growth and the idle exit decide on.

#include "asio/ThreadPoolAsio.h"

#include <tessera/assert.h>
#include <tessera/exception.h>
#include <tessera/system/runtime.h>

#include "system/platform/nativeError.h"
#include "system/platform/poll.h"
#include "system/systemFactoryImpl.h"
#include "system/threadPoolTesting.h"

#include <boost/asio/post.hpp>
#include <boost/bind/bind.hpp>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdio>
#include <map>

namespace Tessera {
namespace System {

using Service::Logger;

namespace {

thread_local TlsInfo* tTlsInfo = nullptr;

constexpr int kDefaultStackKb = 256;
constexpr int kMaxStackKb = 2048;
constexpr int kMinStackKb = 32;
constexpr std::int64_t kDefaultIdleTickUsec = 10 * 1000 * 1000;
constexpr int kIdleTickSecs = 10;
// How long every I/O thread may stay in the same handlers before one more starts.
constexpr std::int64_t kBusyIoWatchUsec = 5 * 1000;

std::atomic<std::int64_t> sIdleTickUsec{kDefaultIdleTickUsec};

// Thrown by an idle I/O thread's handler that makes it leave, out of the I/O
// service's run() and caught there (the service stays usable by the others).
struct LeaveThread {};

// Stands for "no pool" where a thread has no record.
TlsInfo sNoPool;

// The stack an exception was thrown from, a return address a line. Naming
// the frames is left to whoever reads the log: a handler's failure must not
// wait for the symbol machinery.
std::string FrameAddresses(const Throwable& e) {
    Backtrace* trace = e.GetBacktrace();
    if (trace == nullptr) return std::string();
    const Stacktrace& stack = trace->GetStacktrace();
    std::string text;
    char line[40];
    for (int i = 0; i < stack.GetNumStackFrames(); ++i) {
        std::snprintf(line, sizeof line, "#%d %p\n", i, stack.GetStackFrame(i));
        text += line;
    }
    return text;
}

} // namespace

// ---- timers ----

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

// ---- pollable handles ----

class ThreadPoolAsio::PollContainer {
public:
    explicit PollContainer(ThreadPoolAsio* pool) : _pool(pool) {}

    void Register(std::intptr_t handle, const WorkItem& work) {
        std::lock_guard<std::mutex> hold(_lock);
        if (_closed) throw InvalidStateException("The thread pool is shut down");
        if (_items.count(handle) != 0) {
            throw AlreadyExistsException(
                MessageFormatter::ASPrint("Pollable handle %1 is already registered", handle));
        }
        const int maxPollables = _pool->_threadCtl->GetMaxPollables();
        if (static_cast<int>(_items.size()) >= maxPollables) {
            throw FullException(MessageFormatter::ASPrint(
                "At most %1 handles may be polled at once", maxPollables));
        }
        auto item = std::make_shared<PollableItem>();
        item->handle = handle;
        item->work = work;
        const int error = Platform::CreatePollWait(_pool->GetIoService(), handle, item->wait);
        if (error != 0) {
            ThrowSystemError(
                error, MessageFormatter::ASPrint("Cannot wait on pollable handle %1", handle));
        }
        _items[handle] = item;
        std::vector<std::intptr_t> vecHandles;
        for (const auto& entry : _items) vecHandles.push_back(entry.first);
        TESSERA_ASSERT((int)vecHandles.size() <= _pool->_threadCtl->GetMaxPollables());
        item->wait->AsyncWait([this, item](bool ready) { Ready(item, ready); });
    }

    bool Unregister(std::intptr_t handle) {
        std::shared_ptr<PollableItem> item;
        {
            std::lock_guard<std::mutex> hold(_lock);
            auto it = _items.find(handle);
            if (it == _items.end()) return false;
            item = it->second;
            _items.erase(it);
            item->wait->Cancel();
        }
        return true;
    }

    void Clear() {
        std::lock_guard<std::mutex> hold(_lock);
        _closed = true;
        for (auto& entry : _items) entry.second->wait->Cancel();
        _items.clear();
    }

private:
    struct PollableItem {
        std::intptr_t handle = 0;
        WorkItem work;
        std::unique_ptr<Platform::PollWait> wait;
    };

    void Ready(const std::shared_ptr<PollableItem>& item, bool ready) {
        {
            std::lock_guard<std::mutex> hold(_lock);
            auto it = _items.find(item->handle);
            if (it == _items.end() || it->second != item) return; // unregistered
            _items.erase(it);
        }
        if (ready) _pool->Enqueue(_pool->_classes[WORK_TASK], item->work);
    }

    ThreadPoolAsio* const _pool;
    std::mutex _lock;
    std::map<std::intptr_t, std::shared_ptr<PollableItem>> _items;
    bool _closed = false;
};

// ---- construction ----

ThreadPoolAsio::ClassLimits ThreadPoolAsio::ReadLimits(const Service::Config::View& config,
                                                       const char* name, bool* forceException,
                                                       const char* forceKey) {
    const std::string minKey = std::string(name) + "Min";
    const std::string maxKey = std::string(name) + "Max";
    ClassLimits limits;
    const int correction = config.GetInt(maxKey + "Correction", 0);
    limits.min = config.GetInt(minKey, 2);
    limits.max = config.GetInt(maxKey, std::string(name) == "Io" ? 200 : 10) + correction;
    *forceException = config.GetBool(forceKey, false);
    if (limits.min > limits.max) {
        throw InvalidArgumentException(
            MessageFormatter::ASPrint("'%1' is greater than '%2'", minKey, maxKey));
    }
    if (limits.min < 0) {
        throw InvalidArgumentException(MessageFormatter::ASPrint("'%1' is negative", minKey));
    }
    if (limits.max < 1) {
        throw InvalidArgumentException(
            MessageFormatter::ASPrint("'%1' must be at least 1", maxKey));
    }
    return limits;
}

ThreadPoolAsio::ThreadPoolAsio(const Service::Config::View& config)
    : _log(new Logger("ThreadPool", Service::DefaultLogger()->GetRawLevel())),
      _classes{{WORK_IO, "Io", config.GetInt("maxConcurrency", 0x7FFFFFFF)},
               {WORK_TASK, "Task", BOOST_ASIO_CONCURRENCY_HINT_DEFAULT}},
      _idleTimer(_classes[WORK_IO].context),
      _ioWatch(_classes[WORK_TASK].context) {
    bool force = false;
    const ClassLimits io = ReadLimits(config, "Io", &force, "generateExceptionOnIoHandler");
    _classes[WORK_IO].forceException = force;
    const ClassLimits task = ReadLimits(config, "Task", &force, "generateExceptionOnWorkItem");
    _classes[WORK_TASK].forceException = force;
    _classes[WORK_IO].min = io.min;
    _classes[WORK_IO].max = io.max;
    _classes[WORK_TASK].min = task.min;
    _classes[WORK_TASK].max = task.max;

    _maxConcurrency = config.GetInt("maxConcurrency", 0x7FFFFFFF);
    _namePrefix = config.GetString("threadNamePrefix", std::string());
    if (!_namePrefix.empty()) _namePrefix += "-";

    int stackKb = config.GetInt("ThreadStackSizeKb", kDefaultStackKb);
    if (stackKb == 0) stackKb = kDefaultStackKb;
    if (stackKb > kMaxStackKb) {
        TESSERA_LOG(_log, Logger::LOG_WARNING,
                    "Stack size value %1 bigger than maxStackSize %2, Set to max", stackKb,
                    kMaxStackKb);
        stackKb = kMaxStackKb;
    } else if (stackKb < kMinStackKb) {
        TESSERA_LOG(_log, Logger::LOG_WARNING,
                    "Stack size value %1 smaller than minStackSize %2, Set to min", stackKb,
                    kMinStackKb);
        stackKb = kMinStackKb;
    }
    _stackSize = static_cast<std::size_t>(stackKb) * 1024;

    _catchWorkItemExceptions = config.GetBool("catchWorkItemExceptions", false);
    _threadCountWarningThreshold = config.GetInt("threadCountWarningThreshold", 2);
    _exitIdleThreads = config.GetBool("exitIdleThreads", false);
    _threadCheckTimeSecs = config.GetInt("ThreadCheckTimeSecs", 600);

    GetThreadControl(_threadCtl);
    _polls.reset(new PollContainer(this));

    TESSERA_LOG(_log, Logger::LOG_INFO,
                "Thread pool on asio: Min Io, Max Io, Min Task, Max Task, Max Concurency: %1, "
                "%2, %3, %4, %5",
                io.min, io.max, task.min, task.max, _maxConcurrency);

    _classes[WORK_IO].guard.emplace(_classes[WORK_IO].context.get_executor());
    // Timers expire on one thread of their own, which hands their work to the
    // task queue in the order of their due times.
    _classes[WORK_TASK].guard.emplace(_classes[WORK_TASK].context.get_executor());
    _threadCtl->StartThread(
        [this] {
            boost::system::error_code ec;
            _classes[WORK_TASK].context.run(ec);
        },
        _stackSize, _timerThread);
    {
        Hold hold(*this);
        try {
            for (WorkClass& c : _classes) {
                for (int i = 0; i < c.min; ++i) StartThreadLocked(c);
            }
        } catch (...) {
            hold.Unlock();
            Shutdown();
            throw;
        }
    }
    TESSERA_LOG(_log, Logger::LOG_INFO, "Thread pool launched");
}

ThreadPoolAsio::~ThreadPoolAsio() {
    TlsInfo* const tlsInfo = tTlsInfo;
    TESSERA_ASSERT(tlsInfo == nullptr || tlsInfo->_pool != this || tlsInfo->_class < 0);
    Shutdown();
}

// ---- threads ----

void ThreadPoolAsio::StartThreadLocked(WorkClass& c) {
    TESSERA_ASSERT(IsLocked());
    JoinFinishedLocked();
    const std::string name = _namePrefix + c.name + "-" + std::to_string(++c.started);
    c.running.fetch_add(1);
    _idle.fetch_add(1);
    Ref<Thread> thread;
    try {
        _threadCtl->StartThread(boost::bind(&ThreadPoolAsio::ThreadMain, this, &c, name),
                                _stackSize, thread);
    } catch (...) {
        c.running.fetch_sub(1);
        _idle.fetch_sub(1);
        throw;
    }
    _threads.push_back(thread);
    const int running = c.running.load();
    const int threshold = _threadCountWarningThreshold * std::max(c.min.load(), 1);
    if (!c.warned && _threadCountWarningThreshold > 0 && running >= threshold &&
        running > c.min.load()) {
        c.warned = true;
        TESSERA_LOG(_log, Logger::LOG_WARNING,
                    "%1 threads grew to %2, %3 times their minimum of %4 (maximum %5)", c.name,
                    running, _threadCountWarningThreshold, c.min.load(), c.max.load());
    }
}

void ThreadPoolAsio::JoinFinishedLocked() {
    for (Ref<Thread>& t : _finished) _threadCtl->JoinThread(t.Get());
    _finished.clear();
}

void ThreadPoolAsio::MaybeGrow(WorkClass& c) {
    const int running = c.running.load(std::memory_order_relaxed);
    const int idle = running - c.busy.load(std::memory_order_relaxed);
    const bool waits = c.queued.load(std::memory_order_relaxed) > idle;
    if (!waits || running >= c.max.load(std::memory_order_relaxed)) return;
    Hold hold(*this);
    if (_shutDown || c.running.load() >= c.max.load()) return;
    const int idleNow = c.running.load() - c.busy.load();
    if (c.queued.load() > idleNow) {
        try {
            StartThreadLocked(c);
        } catch (const Exception& e) {
            TESSERA_LOG(_log, Logger::LOG_ERROR, "Failed to start a %1 thread: %2", c.name,
                        e.what());
        }
    }
}

void ThreadPoolAsio::ThreadMain(WorkClass* c, const std::string& name) {
    std::vector<WorkItem> deferred;
    TlsInfo info;
    info._pool = this;
    info._class = c->index;
    info._deferred = &deferred;
    tTlsInfo = &info;
    const std::uint64_t state = AddThreadState(name.c_str());
    if (c->index == WORK_IO) {
        {
            std::lock_guard<std::mutex> hold(_ioWatchLock);
            _ioThreads.push_back(&info);
        }
        // One run() for the thread's life: the service then takes its lock
        // once per handler instead of twice, and keeps the thread's cache of
        // handler memory. A thread marked to leave unwinds out of it.
        try {
            boost::system::error_code ec;
            c->context.run(ec);
        } catch (const LeaveThread&) {
            // leaving: the idle exit chose this thread
        }
        std::lock_guard<std::mutex> hold(_ioWatchLock);
        _ioThreads.erase(std::find(_ioThreads.begin(), _ioThreads.end(), &info));
        _ioDoneByGone += info._handlersDone.load(std::memory_order_relaxed);
    } else {
        TaskQueue::Entry entry;
        while (c->queue.Pop(entry)) {
            if (entry.internal) {
                entry.work();
            } else {
                c->queued.fetch_sub(1, std::memory_order_acq_rel);
                Run(WORK_TASK, entry.work);
            }
            entry.work.Clear();
            if (info._exit) break;
        }
    }
    if (!info._exit) _idle.fetch_sub(1);
    RemoveThreadState(state);
    tTlsInfo = nullptr;

    Ref<Thread> self;
    GetThisThread(self);
    Hold hold(*this);
    c->running.fetch_sub(1);
    if (_shutDown) return; // Shutdown joins every thread it finds running
    auto it = std::find_if(_threads.begin(), _threads.end(),
                           [&](const Ref<Thread>& t) { return t.Get() == self.Get(); });
    if (it != _threads.end()) {
        _finished.push_back(*it);
        _threads.erase(it);
    }
}

// ---- handlers ----

TlsInfo* ThreadPoolAsio::Enter(WorkClass& c, const std::type_info& type) {
    TlsInfo* const tlsInfo = tTlsInfo;
    TESSERA_ASSERT(tlsInfo != 0);
    if (tlsInfo->_working) AssertFailed("!_tlsInfo->_working", __FILE__, __LINE__);
    tlsInfo->_working = true;
    TESSERA_LOG(_log, Logger::LOG_TRIVIA, "%1 HandleWork(type: %2, fun: %3)", c.name, c.index,
                type.name());
    const int idle = _idle.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (idle <= IdleFloor() && _idleTicks.load(std::memory_order_relaxed) != -1) {
        _idleTicks.store(-1, std::memory_order_release);
    }
    const int busy = c.busy.fetch_add(1, std::memory_order_acq_rel) + 1;
    MaybeGrow(c);
    // Completions of sockets and pipes are not counted as queued work: a
    // fully busy I/O class is watched instead, so that handlers that block
    // get a spare thread and short ones do not start threads for nothing.
    if (c.index == WORK_IO && busy >= c.running.load(std::memory_order_relaxed) &&
        !_ioWatchArmed.load(std::memory_order_relaxed)) {
        WatchBusyIo();
    }
    return tlsInfo;
}

void ThreadPoolAsio::WatchBusyIo() {
    if (_ioWatchArmed.exchange(true, std::memory_order_acq_rel)) return;
    std::lock_guard<std::mutex> hold(_ioWatchLock);
    if (_ioWatchStopped) {
        _ioWatchArmed.store(false, std::memory_order_release);
        return;
    }
    _ioDoneWhenArmed = IoHandlersDoneLocked();
    _ioWatch.expires_after(std::chrono::microseconds(kBusyIoWatchUsec));
    _ioWatch.async_wait([this](const boost::system::error_code& ec) { BusyIoLooked(ec); });
}

void ThreadPoolAsio::BusyIoLooked(const boost::system::error_code& ec) {
    WorkClass& io = _classes[WORK_IO];
    bool stuck;
    {
        std::lock_guard<std::mutex> hold(_ioWatchLock);
        stuck = !ec && !_ioWatchStopped && IoHandlersDoneLocked() == _ioDoneWhenArmed;
    }
    const bool allBusy = io.busy.load() >= io.running.load();
    _ioWatchArmed.store(false, std::memory_order_release);
    if (ec) return;
    if (stuck && allBusy) {
        Hold hold(*this);
        if (!_shutDown && io.running.load() < io.max.load() &&
            io.busy.load() >= io.running.load()) {
            try {
                StartThreadLocked(io);
            } catch (const Exception& e) {
                TESSERA_LOG(_log, Logger::LOG_ERROR, "Failed to start a %1 thread: %2", io.name,
                            e.what());
            }
        }
    }
    // Still fully busy: keep watching.
    if (allBusy) WatchBusyIo();
}

std::uint64_t ThreadPoolAsio::IoHandlersDoneLocked() const {
    std::uint64_t done = _ioDoneByGone;
    for (const TlsInfo* info : _ioThreads)
        done += info->_handlersDone.load(std::memory_order_relaxed);
    return done;
}

void ThreadPoolAsio::Leave(WorkClass& c, TlsInfo* tlsInfo) {
    tlsInfo->_working = false;
    if (c.index == WORK_IO) {
        const std::uint64_t done = tlsInfo->_handlersDone.load(std::memory_order_relaxed);
        tlsInfo->_handlersDone.store(done + 1, std::memory_order_relaxed);
    }
    c.busy.fetch_sub(1, std::memory_order_acq_rel);
    TESSERA_LOG(_log, Logger::LOG_TRIVIA, "HandleWork() leaving");
    if (tlsInfo->_deferred && !tlsInfo->_deferred->empty()) FlushDeferred(tlsInfo);
    if (tlsInfo->_exit) return; // leaving: no longer idle either
    const int idle = _idle.fetch_add(1, std::memory_order_acq_rel) + 1;
    if (idle > IdleFloor()) {
        int expected = -1;
        if (_idleTicks.compare_exchange_strong(expected, 0)) ScheduleIdleTick();
    }
}

void ThreadPoolAsio::ThrowForced(const WorkClass& c) {
    throw Exception(c.index == WORK_IO ? "Exception generated on purpose in an I/O handler"
                                       : "Exception generated on purpose in a work item");
}

void ThreadPoolAsio::HandlerFailed() {
    bool known = true;
    try {
        throw;
    } catch (const Throwable& e) {
        TESSERA_LOG(_log, Logger::LOG_ERROR, "Worker: Unhandled exception: %1", e.what());
        TESSERA_LOG(_log, Logger::LOG_ERROR, "Worker: Unhandled exception:\n%1, %2", e.what(),
                    FrameAddresses(e));
    } catch (const std::exception& e) {
        TESSERA_LOG(_log, Logger::LOG_ERROR, "Worker: Unhandled exception: %1", e.what());
    } catch (...) {
        known = false;
        TESSERA_LOG(_log, Logger::LOG_ERROR, "Worker: Unhandled exception of unknown type");
    }
    if (_catchWorkItemExceptions) return;
    PanicExit(known ? "Worker: unhandled exception" : "Unhandled exception of unknown type");
}

int ThreadPoolAsio::IdleFloor() const noexcept {
    return std::max(1, _classes[WORK_IO].min.load(std::memory_order_relaxed) +
                           _classes[WORK_TASK].min.load(std::memory_order_relaxed));
}

// ---- idle exit ----

void ThreadPoolAsio::ScheduleIdleTick() {
    if (!_exitIdleThreads) return;
    std::lock_guard<std::mutex> hold(_tickLock);
    if (_tickPending || _tickStopped) return;
    _tickPending = true;
    _idleTimer.expires_after(std::chrono::microseconds(sIdleTickUsec.load()));
    _idleTimer.async_wait([this](const boost::system::error_code& e) { IdleTickHandler(e); });
}

void ThreadPoolAsio::IdleTickHandler(const boost::system::error_code& ec) {
    // The tick itself runs on a task thread, which may then leave.
    if (!ec) _classes[WORK_TASK].queue.Push({WorkItem([this] { IdleTick(); }), true});
    std::lock_guard<std::mutex> hold(_tickLock);
    _tickPending = false;
    if (!_tickStopped && _idleTicks.load() >= 0) {
        _tickPending = true;
        _idleTimer.expires_after(std::chrono::microseconds(sIdleTickUsec.load()));
        _idleTimer.async_wait([this](const boost::system::error_code& e) { IdleTickHandler(e); });
    }
}

void ThreadPoolAsio::AssertPoolThread() const {
    TlsInfo* const tlsInfo = tTlsInfo ? tTlsInfo : &sNoPool;
    if (tlsInfo->_pool == 0) TESSERA_LOG(_log, Logger::LOG_ERROR, "Wrong Thread");
    TESSERA_ASSERT(tlsInfo->_pool != 0);
}

void ThreadPoolAsio::IdleTick() {
    AssertPoolThread();
    const int counter = _idleTicks.load();
    if (counter < 0) return;
    // The thread running the tick is counted idle here: it ran no handler.
    if (_idle.load() <= IdleFloor()) {
        int expected = counter;
        _idleTicks.compare_exchange_strong(expected, -1);
        return;
    }
    if (!_exitIdleThreads || _threadCheckTimeSecs < 1) return;
    const int ticksPerCheck = std::max(1, _threadCheckTimeSecs / kIdleTickSecs);
    if (counter < ticksPerCheck) {
        int expected = counter;
        _idleTicks.compare_exchange_strong(expected, counter + 1);
        return;
    }
    // A surplus for a whole check period: one idle thread leaves, of a class
    // that has more than its minimum.
    WorkClass& task = _classes[WORK_TASK];
    WorkClass& io = _classes[WORK_IO];
    if (task.running.load() > task.min.load()) {
        tTlsInfo->_exit = true;
        _idle.fetch_sub(1);
    } else if (io.running.load() > io.min.load() && io.running.load() > io.busy.load()) {
        boost::asio::post(io.context, [this] { MarkExit(_classes[WORK_IO]); });
    }
}

void ThreadPoolAsio::MarkExit(WorkClass& c) {
    // Runs on a thread of `c` that was idle until now, as a plain handler of
    // the I/O service (outside Run(), whose catch would keep it in).
    TESSERA_ASSERT(c.index == WORK_IO);
    if (c.running.load() <= c.min.load() || _idle.load() <= IdleFloor()) return;
    tTlsInfo->_exit = true;
    _idle.fetch_sub(1);
    throw LeaveThread();
}

void ThreadPoolAsio::SetIdleTickUsec(std::int64_t usec) {
    sIdleTickUsec.store(usec > 0 ? usec : kDefaultIdleTickUsec);
}

// ---- work ----

bool ThreadPoolAsio::Post(WorkClass& c, const WorkItem& work) {
    if (!_accepting.load(std::memory_order_acquire)) return false;
    Enqueue(c, work);
    return true;
}

void ThreadPoolAsio::Enqueue(WorkClass& c, const WorkItem& work) {
    c.queued.fetch_add(1, std::memory_order_acq_rel);
    MaybeGrow(c);
    if (c.index == WORK_TASK) {
        c.queue.Push({work, false});
        return;
    }
    boost::asio::post(c.context, [this, cls = &c, work]() {
        cls->queued.fetch_sub(1, std::memory_order_acq_rel);
        Run(WORK_IO, work);
    });
}

void ThreadPoolAsio::FlushDeferred(TlsInfo* info) {
    std::vector<WorkItem> deferred;
    deferred.swap(*info->_deferred);
    WorkClass& c = _classes[info->_class];
    for (const WorkItem& work : deferred) Enqueue(c, work);
}

bool ThreadPoolAsio::QueueWorkItem(const WorkItem& work, WorkType type) {
    TESSERA_ASSERT(type == WORK_IO || type == WORK_TASK);
    return Post(_classes[type], work);
}

bool ThreadPoolAsio::PostCompletion(const WorkItem& completion) {
    return Post(_classes[WORK_IO], completion);
}

bool ThreadPoolAsio::Defer(const WorkItem& work) {
    TlsInfo* const tlsInfo = tTlsInfo;
    if (tlsInfo == nullptr || tlsInfo->_pool != this || tlsInfo->_deferred == nullptr ||
        !tlsInfo->_working) {
        return Post(_classes[WORK_TASK], work);
    }
    if (!_accepting.load(std::memory_order_acquire)) return false;
    tlsInfo->_deferred->push_back(work);
    return true;
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

void ThreadPoolAsio::RegisterPollable(std::intptr_t handle, const WorkItem& work) {
    _polls->Register(handle, work);
}

bool ThreadPoolAsio::UnregisterPollable(std::intptr_t handle) { return _polls->Unregister(handle); }

// ---- membership ----

void ThreadPoolAsio::Enlist() {
    TlsInfo* const tlsInfo = tTlsInfo;
    TESSERA_ASSERT(tlsInfo == 0);
    auto* info = new TlsInfo;
    info->_pool = this;
    tTlsInfo = info;
    TESSERA_LOG(_log, Logger::LOG_VERBOSE, "Thread enlisted");
}

void ThreadPoolAsio::Delist() {
    TlsInfo* const tlsInfo = tTlsInfo;
    TESSERA_ASSERT(tlsInfo != 0);
    TESSERA_ASSERT(this == tlsInfo->_pool);
    TESSERA_ASSERT(tlsInfo->_class < 0);
    tTlsInfo = nullptr;
    delete tlsInfo;
    TESSERA_LOG(_log, Logger::LOG_VERBOSE, "Thread delisted");
}

bool ThreadPoolAsio::IsEnlisted() const {
    const TlsInfo* const tlsInfo = tTlsInfo;
    return tlsInfo != nullptr && tlsInfo->_pool == this;
}

// ---- configuration and statistics ----

void ThreadPoolAsio::SetConfig(const Service::Config::View& config) {
    Hold hold(*this);
    WorkClass& io = _classes[WORK_IO];
    WorkClass& task = _classes[WORK_TASK];
    const int taskMax =
        config.GetInt("TaskMax", task.max.load()) + config.GetInt("TaskMaxCorrection", 0);
    const int taskMin = config.GetInt("TaskMin", task.min.load());
    const int ioMax = config.GetInt("IoMax", io.max.load()) + config.GetInt("IoMaxCorrection", 0);
    const int ioMin = config.GetInt("IoMin", io.min.load());
    if (taskMax < task.max.load()) {
        throw InvalidArgumentException(MessageFormatter::ASPrint(
            "Reducing TaskMax from %1 to %2 is not supported.", task.max.load(), taskMax));
    }
    if (taskMin > taskMax) {
        throw InvalidArgumentException(
            MessageFormatter::ASPrint("TaskMin %1 is greater than TaskMax %2", taskMin, taskMax));
    }
    if (ioMax < io.max.load()) {
        throw InvalidArgumentException(MessageFormatter::ASPrint(
            "Reducing IoMax from %1 to %2 is not supported.", io.max.load(), ioMax));
    }
    if (ioMin > ioMax) {
        throw InvalidArgumentException(
            MessageFormatter::ASPrint("IoMin %1 is greater than IoMax %2", ioMin, ioMax));
    }
    if (ioMin < 0 || taskMin < 0) {
        throw InvalidArgumentException("A minimum thread count is negative");
    }
    io.min = ioMin;
    io.max = ioMax;
    task.min = taskMin;
    task.max = taskMax;
    TESSERA_LOG(_log, Logger::LOG_INFO,
                "[SetConfig] Thread info: IoMin: %1, IoMax: %2, TaskMin: %3, TaskMax: %4", ioMin,
                ioMax, taskMin, taskMax);
    if (_shutDown) return;
    for (WorkClass& c : _classes) {
        while (c.running.load() < c.min.load()) StartThreadLocked(c);
    }
}

void ThreadPoolAsio::GetStatistics(std::vector<Statistic>& out) const {
    const WorkClass& io = _classes[WORK_IO];
    const WorkClass& task = _classes[WORK_TASK];
    out.clear();
    out.push_back({"IOThreads", io.running.load()});
    out.push_back({"MaxIOThreads", io.max.load()});
    out.push_back({"MaxTotalThreads", static_cast<std::int64_t>(io.max.load()) + task.max.load()});
    out.push_back({"MaxWorkerThreads", task.max.load()});
    out.push_back({"RunningThreads", io.busy.load() + task.busy.load()});
    out.push_back({"TimeMapSize", _timerCount.load()});
    out.push_back({"WorkQueueSize", io.queued.load() + task.queued.load()});
    out.push_back({"WorkerThreads", task.running.load()});
}

// ---- shutdown ----

void ThreadPoolAsio::Shutdown() {
    {
        Hold hold(*this);
        if (_shutDown) return;
        _shutDown = true;
    }
    const TlsInfo* const tlsInfo = tTlsInfo;
    TESSERA_ASSERT(tlsInfo == 0 || tlsInfo->_pool != this || tlsInfo->_class < 0);
    _accepting.store(false, std::memory_order_release);
    {
        std::lock_guard<std::mutex> hold(_tickLock);
        _tickStopped = true;
        _idleTimer.cancel();
    }
    {
        std::lock_guard<std::mutex> hold(_ioWatchLock);
        _ioWatchStopped = true;
        _ioWatch.cancel();
    }
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
    _polls->Clear();
    // The timers' thread ends once the cancelled timers have come through.
    _classes[WORK_TASK].guard.reset();
    _threadCtl->JoinThread(_timerThread.Get());

    // Task threads run what is queued and leave when nothing is left; I/O
    // threads go on serving the completions that work needs meanwhile.
    std::vector<Ref<Thread>> threads;
    auto takeThreads = [&] {
        Hold hold(*this);
        threads.swap(_threads);
        threads.insert(threads.end(), _finished.begin(), _finished.end());
        _finished.clear();
    };
    WorkClass& io = _classes[WORK_IO];
    WorkClass& task = _classes[WORK_TASK];
    task.queue.Stop();
    while (task.running.load() > 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    while (io.queued.load() > 0 || io.busy.load() > 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    io.guard.reset();
    io.context.stop();
    takeThreads();
    for (Ref<Thread>& t : threads) _threadCtl->JoinThread(t.Get());
    TESSERA_LOG(_log, Logger::LOG_INFO, "Thread pool shut down");
}

// ---- the factory and the process's pool ----

void SystemFactoryImpl::CreateThreadPool(const Service::Config::View* config,
                                         Ref<ThreadPool>& out) {
    out = new ThreadPoolAsio(config ? *config : Service::Config::View());
}

namespace Testing {
void SetPoolIdleTickUsec(std::int64_t usec) { ThreadPoolAsio::SetIdleTickUsec(usec); }
} // namespace Testing

} // namespace System
} // namespace Tessera
