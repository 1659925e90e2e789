// Native threads and fault handling, implemented in posix/threadControl.cpp
// and win32/threadControl.cpp.
#pragma once

#include <cstddef>

namespace Tessera {
namespace System {
namespace Platform {

struct FaultSettings {
    bool panicUnknown;
    int termination; // ThreadControl::SETermination
};

class NativeThread;

// Starts entry(argument) on a new thread. `commitStack` false makes the stack
// size a reservation only where the platform distinguishes the two. Throws
// SystemException when the thread cannot be started.
NativeThread* StartNativeThread(void (*entry)(void*), void* argument, std::size_t stackSize,
                                bool commitStack);
// Waits for the thread's end and frees it.
void JoinNativeThread(NativeThread* thread);

// Installs the process-wide fault handlers; called once.
void InstallFaultHandlers(const FaultSettings& settings);
// Per-thread set-up: the fault handlers' needs (an alternate signal stack on
// POSIX) and, on Windows, COM (0 none, 1 apartment-threaded, 2
// multithreaded). Tear-down undoes it.
void SetUpThread(bool faultHandling, int comModel);
void TearDownThread(bool faultHandling, int comModel);

} // namespace Platform
} // namespace System
} // namespace Tessera
