// Local pipes' back end, implemented in posix/pipe.cpp (Unix domain stream
// sockets bound to a path) and win32/pipe.cpp (named pipes in overlapped
// mode). Every function that can fail returns a native error code, kSuccess
// when it worked; nothing logs or throws. Names are UTF-8. No pipe is
// inherited by child processes.
//
// An operation that cannot finish at once is left pending: the caller waits
// for its wait handle (system/platform/handleWait.h) and then calls Finish,
// which may find it pending again. The portable stream (asio/pipeHandle.h)
// drives them so.
#pragma once

#include "system/platform/handleWait.h"
#include "system/platform/nativeError.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace Tessera {
namespace System {
namespace Platform {

// A connected pipe: a descriptor on POSIX, a HANDLE on Windows.
using NativePipe = std::intptr_t;

struct PipeBuffer {
    const char* data;
    std::size_t size;
};

// One direction of a connected pipe: at most one operation at a time.
class PipeChannel {
public:
    virtual ~PipeChannel() = default;

    // Reads at most `size` (> 0) bytes; `count` is 0 at the end of the
    // stream. `pending` when the read has to wait.
    virtual NativeError StartRead(char* data, std::size_t size, bool& pending,
                                  std::size_t& count) = 0;
    // Writes some of the `n` buffers, in order (at least one byte unless
    // all are empty); `count` is how many bytes went.
    virtual NativeError StartWrite(const PipeBuffer* buffers, std::size_t n, bool& pending,
                                   std::size_t& count) = 0;
    // After the wait: the outcome of the pending operation, or pending again.
    virtual NativeError Finish(bool& pending, std::size_t& count) = 0;
    // Ends the pending operation, if any: once it returns, the system no
    // longer uses its buffers, and there is nothing to Finish. End the wait
    // on the handle first.
    virtual void Cancel() = 0;

    virtual WaitableHandle GetWaitHandle() const = 0;
    virtual Readiness GetReadiness() const = 0;
};

// A channel on `pipe`, which must outlive it. Destroying it cancels.
NativeError OpenPipeChannel(NativePipe pipe, bool forWrite, std::unique_ptr<PipeChannel>& out);

// Reads or writes now, without waiting: `wouldBlock` when it would have to.
// Not supported where pipes cannot be tried so (Windows): the caller then
// goes through a channel.
NativeError ReadPipeNow(NativePipe pipe, char* data, std::size_t size, std::size_t& count,
                        bool& wouldBlock);
NativeError WritePipeNow(NativePipe pipe, const char* data, std::size_t size, std::size_t& count,
                         bool& wouldBlock);
// Whether ReadPipeNow and WritePipeNow work here, and a wait for readiness
// in the calling thread (WaitForSocket of system/platform/socket.h) with them.
bool CanTryPipesNow();

// Ends sending: the peer reads the end of the stream. An error of kind
// NotSupported where pipes have no half close (Windows).
NativeError ShutdownPipeWrite(NativePipe pipe);

void ClosePipe(NativePipe pipe);

// The name of the pipe `base` where local pipes live: "\\.\pipe\<base>" on
// Windows, "<temporary directory>/<base>.sock" on POSIX.
std::string LocalPipeName(const std::string& base);

// Connects to the server of `name`. With `waitIfBusy`, a server with no free
// instance or a full queue is waited for instead of refused.
NativeError ConnectToPipe(const std::string& name, bool waitIfBusy, NativePipe& out);

// A server's end: takes the connections of clients, one at a time.
class PipeListener {
public:
    // Stops listening (a pending accept ends, as Cancel ends it); a POSIX
    // server removes its socket file.
    virtual ~PipeListener() = default;

    // Takes the next client; `pending` when none is there yet.
    virtual NativeError StartAccept(bool& pending, NativePipe& accepted) = 0;
    virtual NativeError Finish(bool& pending, NativePipe& accepted) = 0;
    // As PipeChannel::Cancel.
    virtual void Cancel() = 0;

    virtual WaitableHandle GetWaitHandle() const = 0;
    virtual Readiness GetReadiness() const = 0;
};

// Listens at `name`: at most `maxInstances` clients at a time on Windows, a
// queue of that many waiting clients on POSIX (a default for 0 or less). A
// live server's name is refused (EADDRINUSE, or the access error of a second
// first instance on Windows); a POSIX socket file left by a server that died
// is replaced. Clients may connect as soon as this returns.
NativeError ListenOnPipe(const std::string& name, int maxInstances,
                         std::unique_ptr<PipeListener>& out);

} // namespace Platform
} // namespace System
} // namespace Tessera
