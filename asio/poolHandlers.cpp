// The thread pool's handlers: every handler goes through Run(), whose Enter
// and Leave keep the counts of busy and idle threads that growth and the idle
// exit decide on; a handler's exception is logged and, unless the pool is
// configured to go on, ends the process. A fully busy I/O class is watched
// from the timer thread and gets one more thread when none of its handlers
// ends for a while.

#include "asio/poolInternal.h"

#include <tessera/assert.h>
#include <tessera/exception.h>
#include <tessera/system/system.h>

#include <algorithm>
#include <chrono>
#include <cstdio>

namespace Tessera {
namespace System {

using Service::Logger;

namespace {

// How long every I/O thread may stay in the same handlers before one more starts.
constexpr std::int64_t kBusyIoWatchUsec = 5 * 1000;

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

} // namespace System
} // namespace Tessera
