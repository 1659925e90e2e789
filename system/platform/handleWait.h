// Waiting for native handles outside the I/O service, implemented in
// posix/handleWait.cpp (a readable or writable descriptor, through poll on a
// thread of the back end's own) and win32/handleWait.cpp (a signalled HANDLE,
// through the system's wait threads).
//
// The pool's pollable handles and the local pipes wait here: their readiness
// or completion is not something the I/O service can wait for in the same way
// on both systems. The callback runs on the waiting thread, once; it should
// only hand the work on (post it to the pool) and must not wait for anything,
// as ending another wait may wait for it.
#pragma once

#include "system/platform/nativeError.h"

#include <cstdint>
#include <functional>
#include <memory>

namespace Tessera {
namespace System {
namespace Platform {

// A descriptor on POSIX, a HANDLE on Windows.
using WaitableHandle = std::intptr_t;

// What a descriptor is waited for. A Windows handle is waited for its signal
// either way.
enum class Readiness { Read, Write };

// One wait under way. Destroying it ends the wait: once the destructor has
// returned, the callback is not running and will not run. (Destroying it from
// within its own callback is allowed and does not wait.)
class HandleWait {
public:
    virtual ~HandleWait() = default;
};

// Calls `ready` once, on a thread of the back end, when `handle` is ready for
// `readiness` or has failed (the operation that follows reports why). The
// handle must stay open until the wait has ended.
NativeError WaitForHandle(WaitableHandle handle, Readiness readiness, std::function<void()> ready,
                          std::unique_ptr<HandleWait>& out);

// A duplicate of `handle` that the caller owns (closes with
// CloseWaitableHandle), not inherited by child processes.
NativeError DuplicateWaitableHandle(WaitableHandle handle, WaitableHandle& out);
void CloseWaitableHandle(WaitableHandle handle);

} // namespace Platform
} // namespace System
} // namespace Tessera
