// Native threads and fault handling, implemented in posix/threadControl.cpp
// and win32/threadControl.cpp.
#pragma once

#include <tessera/system/thread.h>

#include "system/platform/faultInfo.h"
#include "system/platform/nativeError.h"

#include <cstddef>

namespace Tessera {
namespace System {
namespace Platform {

// How the platform's fault handler goes on after the portable handler has
// reported a fault and not ended the process.
enum class FaultAction {
    Continue, // as if no handler were installed: the next handler, or the system's
    SystemDefault, // the system's own handling (a core dump, the error-reporting dialog)
    DebugBreak, // stop in an attached debugger
};

// The portable side of fault handling, called by the platform's handlers.
struct FaultSettings {
    // Called for each fault, inside the platform's handler (a signal handler
    // on POSIX: whatever it does must be async-signal-safe). Reports the
    // fault and either ends the process or says how to go on.
    FaultAction (*onFault)(const Fault::Info& info);
    // Called for the C runtime's fatal errors (a pure virtual call, an
    // invalid parameter) with their description; ends the process.
    void (*onFatal)(const char* reason);
};

class NativeThread;

// Starts entry(argument) on a new thread into `thread`. `commitStack` false
// makes the stack size a reservation only where the platform distinguishes
// the two.
NativeError StartNativeThread(void (*entry)(void*), void* argument, std::size_t stackSize,
                              bool commitStack, NativeThread*& thread) noexcept;
// Waits for the thread's end and frees it.
void JoinNativeThread(NativeThread* thread) noexcept;
// Frees a thread that will never be joined; it runs on to its end.
void ReleaseNativeThread(NativeThread* thread) noexcept;

// Installs the process-wide fault handlers; called once.
void InstallFaultHandlers(const FaultSettings& settings) noexcept;
// Per-thread set-up: what the fault handlers need (an alternate signal stack
// on POSIX, room for the report on Windows) and, on Windows, COM in the given
// model. Gives the error of a failed COM set-up. Tear-down undoes it.
NativeError SetUpThread(bool faultHandling, ThreadControl::COMModel com) noexcept;
void TearDownThread(bool faultHandling, ThreadControl::COMModel com) noexcept;

} // namespace Platform
} // namespace System
} // namespace Tessera
