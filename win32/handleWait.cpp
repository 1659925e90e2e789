// Waits for signalled handles through the system's wait threads. Windows code
// only.

#include "system/platform/handleWait.h"

#include "win32/support.h"

#include <windows.h>

#include <atomic>
#include <utility>

namespace Tessera {
namespace System {
namespace Platform {
namespace {

// Whether the process is ending: its other threads, the system's wait threads
// among them, are gone, and nothing may wait for them (a library's objects
// are destroyed then, when it is unloaded at exit).
bool ProcessEnding() {
    typedef BOOLEAN(WINAPI * Query)();
    static const Query query = reinterpret_cast<Query>(reinterpret_cast<void*>(
        GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "RtlDllShutdownInProgress")));
    return query != nullptr && query() != FALSE;
}

class SystemWait final : public HandleWait {
public:
    explicit SystemWait(std::function<void()> ready) : _ready(std::move(ready)) {}
    ~SystemWait() override {
        // Waits for a running callback to return, unless this is it, or the
        // process is ending (the thread that would run it is gone).
        if (_wait == nullptr) return;
        const bool inCallback = _callbackThread.load() == GetCurrentThreadId();
        UnregisterWaitEx(_wait, inCallback || ProcessEnding() ? nullptr : INVALID_HANDLE_VALUE);
    }

    NativeError Register(HANDLE handle) {
        if (!RegisterWaitForSingleObject(&_wait, handle, &SystemWait::Fired, this, INFINITE,
                                         WT_EXECUTEINWAITTHREAD | WT_EXECUTEONLYONCE)) {
            return LastError();
        }
        return kSuccess;
    }

private:
    static VOID CALLBACK Fired(PVOID self, BOOLEAN) {
        SystemWait* wait = static_cast<SystemWait*>(self);
        wait->_callbackThread.store(GetCurrentThreadId());
        // The callback may destroy this wait: nothing is touched after it.
        wait->_ready();
    }

    std::function<void()> _ready;
    HANDLE _wait = nullptr;
    std::atomic<DWORD> _callbackThread{0};
};

} // namespace

NativeError WaitForHandle(WaitableHandle handle, Readiness, std::function<void()> ready,
                          std::unique_ptr<HandleWait>& out) {
    std::unique_ptr<SystemWait> wait(new SystemWait(std::move(ready)));
    const NativeError error = wait->Register(reinterpret_cast<HANDLE>(handle));
    if (error != kSuccess) return error;
    out = std::move(wait);
    return kSuccess;
}

NativeError DuplicateWaitableHandle(WaitableHandle handle, WaitableHandle& out) {
    HANDLE duplicate = nullptr;
    if (!DuplicateHandle(GetCurrentProcess(), reinterpret_cast<HANDLE>(handle), GetCurrentProcess(),
                         &duplicate, 0, FALSE, DUPLICATE_SAME_ACCESS)) {
        return LastError();
    }
    out = reinterpret_cast<WaitableHandle>(duplicate);
    return kSuccess;
}

void CloseWaitableHandle(WaitableHandle handle) { CloseHandle(reinterpret_cast<HANDLE>(handle)); }

} // namespace Platform
} // namespace System
} // namespace Tessera
