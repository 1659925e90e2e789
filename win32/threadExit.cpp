// Windows: thread-exit keys are fiber-local slots with a callback, which the
// system runs for every thread that ends with a value in the slot, before the
// loader's thread-detach notifications.

#include "system/platform/threadExit.h"

#include <windows.h>

namespace Tessera {
namespace System {
namespace Platform {

NativeError CreateThreadExitKey(ThreadExitCleanup cleanup, ThreadExitKey& key) noexcept {
    const DWORD index = ::FlsAlloc(reinterpret_cast<PFLS_CALLBACK_FUNCTION>(reinterpret_cast<void*>(cleanup)));
    if (index == FLS_OUT_OF_INDEXES) return static_cast<NativeError>(::GetLastError());
    key = static_cast<ThreadExitKey>(index);
    return kSuccess;
}

void* GetThreadExitValue(ThreadExitKey key) noexcept {
    return ::FlsGetValue(static_cast<DWORD>(key));
}

NativeError SetThreadExitValue(ThreadExitKey key, void* value) noexcept {
    if (!::FlsSetValue(static_cast<DWORD>(key), value)) {
        return static_cast<NativeError>(::GetLastError());
    }
    return kSuccess;
}

} // namespace Platform
} // namespace System
} // namespace Tessera
