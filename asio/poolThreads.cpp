// The thread pool's threads: starting them, growing a class when its queued
// work outnumbers its idle threads, each thread's life, and the idle exit,
// which lets one surplus thread leave per check period.

#include "asio/poolInternal.h"

#include <tessera/assert.h>
#include <tessera/exception.h>
#include <tessera/system/runtime.h>

#include <boost/asio/post.hpp>
#include <boost/bind/bind.hpp>

#include <algorithm>
#include <chrono>

namespace Tessera {
namespace System {

using Service::Logger;

namespace {

constexpr std::int64_t kDefaultIdleTickUsec = 10 * 1000 * 1000;
constexpr int kIdleTickSecs = 10;

std::atomic<std::int64_t> sIdleTickUsec{kDefaultIdleTickUsec};

// Thrown by an idle I/O thread's handler that makes it leave, out of the I/O
// service's run() and caught there (the service stays usable by the others).
struct LeaveThread {};

// Stands for "no pool" where a thread has no record.
TlsInfo sNoPool;

} // namespace

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

} // namespace System
} // namespace Tessera
