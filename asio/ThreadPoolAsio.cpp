// The thread pool on Boost.Asio.
//
// I/O threads run the I/O service that the streams and pollable handles use;
// task threads take work items from their own queue; one more thread runs a
// second service for timers and hands what is due to the task queue. An I/O
// thread stays in run() until the service stops or the idle exit makes it
// leave; a task thread loops until the queue stops or the idle exit marks it.
// Every handler goes through Run(), which keeps the counts of busy and idle
// threads that growth and the idle exit decide on.
//
// This file holds the pool's construction, the posting of work, the
// membership of enlisted threads, shutdown and the factory. The rest is in
// files of its own: asio/poolTimers.cpp, asio/poolPollables.cpp,
// asio/poolThreads.cpp (threads and the idle exit), asio/poolHandlers.cpp
// (handler accounting and the busy I/O watch) and asio/poolConfig.cpp
// (configuration and statistics).

#include "asio/poolInternal.h"

#include <tessera/assert.h>
#include <tessera/exception.h>

#include "system/systemFactoryImpl.h"
#include "system/threadPoolTesting.h"

#include <boost/asio/post.hpp>

#include <chrono>

namespace Tessera {
namespace System {

using Service::Logger;

thread_local TlsInfo* tTlsInfo = nullptr;

namespace {

constexpr int kDefaultStackKb = 256;
constexpr int kMaxStackKb = 2048;
constexpr int kMinStackKb = 32;

} // namespace

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
    OpenPollables();

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
    CloseTimers();
    ClosePollables();
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
