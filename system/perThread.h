// PerThread<T>: one T per thread, made on the thread's first use and deleted
// when the thread ends, for every thread (the library's and the host's).
//
// The object is reached through a thread-exit key of the platform layer, not
// through a C++ thread_local: the key's clean-up runs at thread exit on every
// platform, where a thread_local destructor inside a DLL under mingw-w64's
// emulated TLS has run too late and corrupted the heap. A T's destructor runs
// at thread exit and must use nothing per-thread of its own thread.
//
// Make each PerThread once and never destroy it (a function-local static
// pointer): its key lives as long as the process.
#pragma once

#include <tessera/assert.h>

#include "system/platform/threadExit.h"

#include <new>

namespace Tessera {
namespace System {

template <class T>
class PerThread {
public:
    PerThread() {
        if (Platform::CreateThreadExitKey(&Destroy, _key) != Platform::kSuccess) {
            PanicExit("No thread-exit key is left for per-thread state");
        }
    }
    PerThread(const PerThread&) = delete;
    PerThread& operator=(const PerThread&) = delete;

    // The calling thread's object, or null before its first Get.
    T* Find() const noexcept { return static_cast<T*>(Platform::GetThreadExitValue(_key)); }

    // The calling thread's object, made on first use.
    T& Get() {
        if (T* found = Find()) return *found;
        T* made = new T();
        if (Platform::SetThreadExitValue(_key, made) != Platform::kSuccess) {
            delete made;
            PanicExit("Per-thread state could not be recorded for the calling thread");
        }
        return *made;
    }

private:
    static void Destroy(void* value) { delete static_cast<T*>(value); }

    Platform::ThreadExitKey _key = 0;
};

}  // namespace System
}  // namespace Tessera
