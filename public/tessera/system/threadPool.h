// The process-wide thread pool: work items, timers, deferred calls and the
// completions of asynchronous I/O all run on it.
//
// The pool's threads form two classes with limits of their own: I/O threads,
// which run the completions of sockets and pipes and whatever is queued as
// WORK_IO, and task threads, which run queued work items, timers and pollable
// handles' functors. Each class starts with its minimum of threads and grows,
// one thread at a time, when work arrives while every thread of the class is
// busy, never past its maximum (the I/O class also when all its threads have
// been in the same handlers for 5 ms, for the completions of sockets and pipes,
// which are not queued as work); surplus idle threads leave again only when
// "exitIdleThreads" says so. Every thread is started through the thread control
// (thread.h), with the pool's stack size.
//
// The pool is made from the "ThreadPool" node of the service's configuration
// (SystemFactory::CreateThreadPool; Service::Initialize makes the process's
// own). Every key is optional:
//
//   "IoMin"                        2    I/O threads kept at least
//   "IoMax"                        200  I/O threads at most, before correction
//   "IoMaxCorrection"              0    added to "IoMax"
//   "TaskMin"                      2    task threads kept at least
//   "TaskMax"                      10   task threads at most, before correction
//   "TaskMaxCorrection"            0    added to "TaskMax"
//   "maxConcurrency"               2147483647  concurrency hint of the I/O
//                                       service (the completion port's on
//                                       Windows; 1 there makes it single-threaded)
//   "threadNamePrefix"             ""   prefix of the threads' names ("-" added)
//   "ThreadStackSizeKb"            256  stack of each thread in KiB; 0 means 256,
//                                       clamped to 32..2048 with a warning
//   "catchWorkItemExceptions"      false  log an exception escaping a work item
//                                       and go on, instead of ending the process
//   "threadCountWarningThreshold"  2    warn when a class grows to this many
//                                       times its minimum
//   "exitIdleThreads"              false  let surplus idle threads leave
//   "ThreadCheckTimeSecs"          600  how long a surplus must last before one
//                                       idle thread leaves (checked every 10 s)
//   "generateExceptionOnIoHandler" false  test switches: throw on purpose in
//   "generateExceptionOnWorkItem"  false  every I/O handler or work item
//
// A minimum above its corrected maximum is refused with
// InvalidArgumentException ("'IoMin' is greater than 'IoMax'").
//
// Handlers and exceptions: an exception escaping a work item, timer or
// completion is logged under the logger "ThreadPool" ("Worker: Unhandled
// exception: ...") and ends the process through the panic path, unless
// "catchWorkItemExceptions" is set. Completion callbacks of streams are
// handlers like any other: let nothing escape them.
//
// Deferred calls: Defer runs a functor on the pool after the current call has
// returned. Called on a pool thread, the functor runs once the handler that
// called Defer has returned; called elsewhere, it is queued to a task thread at
// once (so it may run while the caller is still returning).
//
// Shutdown stops the pool taking work (QueueWorkItem, PostCompletion and Defer
// return false from then on), cancels the timers that have not fired (their
// functors do not run), runs the work already queued, and joins every thread.
// Asynchronous I/O still pending at that point is abandoned: close streams
// before shutting their pool down.
//
// Thread safety: every operation may be called from any thread; Shutdown must
// not be called from a thread of the same pool.
#pragma once

#include <tessera/api.h>
#include <tessera/config.h>
#include <tessera/functor.h>
#include <tessera/object.h>

#include <cstdint>
#include <string>
#include <vector>

namespace Tessera {
namespace System {

// A functor scheduled to run after a delay (ThreadPool::ScheduleTimer).
class TESSERA_EXPORT Timer : public virtual Object {
public:
    // Stops the functor from running. True when it will not run (this call
    // stopped it, or an earlier Cancel did); false when it has run or is
    // running now. The answer is exact however the call races with the firing.
    virtual bool Cancel() = 0;
};

class TESSERA_EXPORT ThreadPool : public virtual Object {
public:
    enum WorkType { WORK_IO = 0, WORK_TASK = 1 };

    typedef Functor<void()> WorkItem;

    // One of the pool's statistics, by name: "IOThreads", "MaxIOThreads",
    // "MaxTotalThreads", "MaxWorkerThreads", "RunningThreads", "TimeMapSize"
    // (timers not yet fired or cancelled), "WorkQueueSize" (work items waiting
    // for a thread) and "WorkerThreads".
    struct Statistic {
        std::string name;
        std::int64_t value;
    };

    // Queues `work` to a thread of the class `type`. False, and nothing
    // queued, once the pool is shut down.
    virtual bool QueueWorkItem(const WorkItem& work, WorkType type = WORK_TASK) = 0;
    // Queues `completion` to an I/O thread, as an I/O completion would be.
    virtual bool PostCompletion(const WorkItem& completion) = 0;
    // Runs `work` on the pool once the current call has returned (see above).
    virtual bool Defer(const WorkItem& work) = 0;

    // Runs `work` on a task thread once `delayUsec` microseconds have passed
    // (at once for 0 or less). Timers due further apart than the resolution
    // of the system's timers (some 16 ms on Windows, far less elsewhere) start
    // in the order of their due times; closer ones in either order. `out` may
    // be dropped when no cancel is wanted.
    virtual void ScheduleTimer(std::int64_t delayUsec, const WorkItem& work, Ref<Timer>& out) = 0;

    // Runs `work` once on a task thread when `handle` becomes signalled (on
    // Windows, a waitable HANDLE) or readable (on POSIX, a file descriptor),
    // then forgets the registration. At most 64 handles are registered at
    // once; one more raises FullException. The caller keeps the handle open
    // until the functor has run or UnregisterPollable has returned.
    virtual void RegisterPollable(std::intptr_t handle, const WorkItem& work) = 0;
    // True when the registration was removed before its functor was started.
    virtual bool UnregisterPollable(std::intptr_t handle) = 0;

    // Makes the calling thread (one the pool did not start) count as one of
    // its threads for IsEnlisted, until Delist. Delisting a thread that is not
    // enlisted here stops the process ("tlsInfo != 0", "this == tlsInfo->_pool").
    virtual void Enlist() = 0;
    virtual void Delist() = 0;
    // True on the pool's own threads and on enlisted ones.
    virtual bool IsEnlisted() const = 0;

    // Applies new limits from a "ThreadPool" view: "IoMin", "IoMax",
    // "IoMaxCorrection", "TaskMin", "TaskMax", "TaskMaxCorrection". Maximums
    // may grow but not shrink. A refused change raises
    // InvalidArgumentException and leaves the old limits in force.
    virtual void SetConfig(const Service::Config::View& config) = 0;

    virtual void GetStatistics(std::vector<Statistic>& out) const = 0;

    // See above. Idempotent.
    virtual void Shutdown() = 0;
};

// The process-wide pool: the one Service::Initialize made, or one made from
// defaults on first use. Never null.
TESSERA_EXPORT ThreadPool* GetThreadPool();
// Installs `pool` as the process-wide pool (a test's, say); the previous one is
// kept alive for the rest of the process. Null is refused.
TESSERA_EXPORT void SetThreadPool(ThreadPool* pool);

// True when the calling thread belongs to the process-wide pool.
TESSERA_EXPORT bool IsEnlisted();

} // namespace System
} // namespace Tessera
