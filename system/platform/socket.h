// Native socket services under the streams, implemented in posix/socket.cpp
// and win32/socket.cpp. Every function returns the native error code (errno,
// or a Windows sockets error), 0 on success.
#pragma once

#include <boost/system/error_code.hpp>

#include <cstdint>

namespace Tessera {
namespace System {
namespace Platform {

// A descriptor on POSIX, a SOCKET on Windows.
typedef std::intptr_t NativeSocket;

// A new stream socket of address family `family` that no child process
// inherits.
int OpenStreamSocket(int family, NativeSocket& out);

// Takes the next connection of a listening socket, non-inheritable. Sets
// `wouldBlock` (and returns 0) when none is waiting yet.
int AcceptStreamSocket(NativeSocket listener, NativeSocket& out, bool& wouldBlock);

// True where AcceptStreamSocket is the way to accept (it makes the socket
// non-inheritable atomically); false where connections are accepted through
// Asio and MakeNonInheritable follows.
bool AcceptAfterWaiting();
void MakeNonInheritable(NativeSocket socket);

// Closes a socket that no I/O object has taken over.
void CloseNativeSocket(NativeSocket socket);

// True for the errors that mean, on a read, that the peer ended the stream
// (beyond Asio's own end-of-file), such as a broken Windows pipe.
bool IsEndOfStreamError(const boost::system::error_code& ec);

}  // namespace Platform
}  // namespace System
}  // namespace Tessera
