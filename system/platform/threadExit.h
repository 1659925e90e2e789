// Per-thread clean-up at thread exit, for every thread: the library's own and
// those the caller started (std::thread, _beginthreadex, a pool of the host).
//
// A thread-exit key holds one pointer per thread. When a thread ends with a
// non-null value under a key, the key's clean-up runs on that thread with the
// value, after the thread's own code has returned. Implemented with a
// pthread key destructor on POSIX and a fiber-local slot's callback (FlsAlloc)
// on Windows, never with a C++ thread_local destructor, which mingw-w64's
// emulated TLS runs too late inside a DLL.
//
// A clean-up must use only the value it is given: the thread's other C++
// thread_local variables may already be gone when it runs. Keys live as long
// as the process; a program makes a handful of them.
#pragma once

#include "system/platform/nativeError.h"

#include <cstdint>

namespace Tessera {
namespace System {
namespace Platform {

using ThreadExitKey = std::uintptr_t;
using ThreadExitCleanup = void (*)(void* value);

// Makes a key; kSuccess, or the native error when the system has no key left.
NativeError CreateThreadExitKey(ThreadExitCleanup cleanup, ThreadExitKey& key) noexcept;
// The calling thread's value under `key`; null when none was set.
void* GetThreadExitValue(ThreadExitKey key) noexcept;
// Sets the calling thread's value; kSuccess or the native error.
NativeError SetThreadExitValue(ThreadExitKey key, void* value) noexcept;

} // namespace Platform
} // namespace System
} // namespace Tessera
