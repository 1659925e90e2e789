// Threads started by the library, and the per-thread machinery around them.
//
// Every thread the library starts goes through the process's ThreadControl,
// which gives it its stack, its fault handling and (on Windows) its COM
// apartment, as the configuration says. The settings are read once, from the
// view given to System::Init (or their defaults when Init was never called):
//
//   "UseSETranslator"             bool, true: report fatal faults (access
//                                 violations, bus errors, divide by zero, stack
//                                 overflow) and end the process as below
//   "PanicUnknownSE"              bool, false: whether a fault code the library
//                                 does not know ends the process (Windows)
//   "SETermination"               "PanicExit" (default: panic with a
//                                 backtrace), "UnhandledExceptionFilter" (hand
//                                 the fault to the operating system: on POSIX
//                                 the signal's default action, a core dump), or
//                                 "DebugBreak" (stop in a debugger)
//   "initializeCOM"               "none" (default), "sta" or "mta" (Windows)
//   "windowsStackImmediateCommit" bool, true: commit thread stacks at once;
//                                 false reserves them only (Windows)
//
// A fault is reported on standard error, written with async-signal-safe calls
// only:
//     Win32 exception: Access Violation (0xc0000005)
//        Write (1) at address 0000000000000010
//        rip: 000055d1c6a4b2f9 rsp: 00007ffd5d2a3f70 rbp: 00007ffd5d2a3fa0
//        ...
// On POSIX the handlers are process-wide and installed once; SIGSEGV, SIGBUS,
// SIGFPE and SIGILL are the faults handled, each thread set up here gets an
// alternate signal stack so that a stack overflow can be reported, and
// asynchronous signals such as SIGINT stay the host's.
#pragma once

#include <tessera/api.h>
#include <tessera/config.h>
#include <tessera/object.h>

#include <boost/function.hpp>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Tessera {
namespace System {

// A thread the library started. Join it through ThreadControl::JoinThread
// to wait for its end; a thread nobody joins runs on to its end by itself,
// and its native handle is released with the last reference to it, so
// dropping the reference without joining leaks nothing (it detaches the
// thread). Joining is the only way to know the body has returned and
// released what it used.
class TESSERA_EXPORT Thread : public virtual Object {
public:
    // The operating system's id of the thread.
    virtual std::uint64_t GetId() const = 0;
    // False once the thread's body has returned (or thrown).
    virtual bool IsRunning() const = 0;
};

class TESSERA_EXPORT ThreadControl : public virtual Object {
public:
    enum SETermination { PanicExitTermination = 0, UnhandledExceptionFilterTermination = 1,
                         DebugBreakTermination = 2 };
    enum COMModel { NoCOM = 0, SingleThreadedApartment = 1, MultiThreadedApartment = 2 };

    // Starts `body` on a new thread with a stack of `stackSize` bytes (0: the
    // platform's default), set up as described above. An exception escaping
    // the body ends the process through the panic path.
    virtual void StartThread(const boost::function<void()>& body, std::size_t stackSize,
                             Ref<Thread>& out) = 0;
    // Waits for the thread's end. A thread is joined once, never by itself.
    virtual void JoinThread(Thread* thread) = 0;
    // Waits until one of at most GetMaxPollables() threads has ended and
    // returns its position in `threads`. (On Windows the library's waits are
    // bounded by the kernel's 64 handles; the same bound holds everywhere.)
    virtual int WaitForAnyThread(const std::vector<Thread*>& threads) = 0;
    virtual int GetMaxPollables() const = 0;

    // The set-up every thread of the library gets, for threads the library did
    // not start (the host's main thread, say). Tear-down undoes it; both are
    // run automatically around the threads StartThread makes.
    virtual void ThreadSetUp() = 0;
    virtual void ThreadTearDown() = 0;

    virtual bool UseSETranslator() const = 0;
    virtual bool PanicUnknownSE() const = 0;
    virtual SETermination GetSETermination() const = 0;
    virtual COMModel GetCOMModel() const = 0;
    virtual bool GetStackImmediateCommit() const = 0;
};

// Gives the system layer its configuration: the thread-control keys above are
// read from `config` (the service's root view) when the thread control is
// first built; once it is, later calls change nothing. A bad boolean throws
// InvalidArgumentException naming the key and the value; an unknown word for
// "SETermination" or "initializeCOM" is reported as a warning and means the
// default.
TESSERA_EXPORT void Init(Service::Config::View* config);

// The process's thread control, built on first use.
TESSERA_EXPORT void GetThreadControl(Ref<ThreadControl>& out);

// The calling thread, when the library started it.
TESSERA_EXPORT bool ThisThreadExists();
// The calling thread; NotFoundException when the library did not start it.
TESSERA_EXPORT void GetThisThread(Ref<Thread>& out);

} // namespace System
} // namespace Tessera
