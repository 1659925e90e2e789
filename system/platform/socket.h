// Native socket services under the streams, implemented in posix/socket.cpp
// and win32/socket.cpp. Every function that can fail returns the native error
// code (errno, or a Windows sockets error), kSuccess on success.
#pragma once

#include "system/platform/nativeError.h"

#include <cstdint>

namespace Tessera {
namespace System {
namespace Platform {

// A descriptor on POSIX, a SOCKET on Windows.
typedef std::intptr_t NativeSocket;

// A new stream socket of address family `family` that no child process
// inherits.
NativeError OpenStreamSocket(int family, NativeSocket& out);

// Takes the next connection of a listening socket, non-inheritable in the
// same call. Sets `wouldBlock` (and returns 0) when none is waiting yet. An
// error of kind NotSupported where connections are accepted through the I/O
// service instead (Windows, whose completion port takes them); the caller
// then makes the accepted socket non-inheritable with MakeNonInheritable.
NativeError AcceptStreamSocket(NativeSocket listener, NativeSocket& out, bool& wouldBlock);
void MakeNonInheritable(NativeSocket socket);

// Closes a socket that no I/O object has taken over.
void CloseNativeSocket(NativeSocket socket);

// Waits in the calling thread until `socket` is readable (`forWrite` false)
// or writable, or has failed or ended, at most `timeoutUsec` microseconds
// (negative: no limit). `ready` is false when the time ran out or a signal
// interrupted the wait: the caller looks at its own clock. An error of kind
// NotSupported where a synchronous read or write waits for the I/O service's
// completion instead (Windows: the completion port is the native way there,
// and nothing wakes a WSAPoll when another thread closes).
NativeError WaitForSocket(NativeSocket socket, bool forWrite, std::int64_t timeoutUsec,
                          bool& ready);

// Ends both directions of `socket` so that every thread in WaitForSocket on
// it returns; the descriptor stays valid until it is closed.
void WakeSocketWaiters(NativeSocket socket);

} // namespace Platform
} // namespace System
} // namespace Tessera
