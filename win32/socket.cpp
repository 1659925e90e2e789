// Native sockets for the streams. Windows code only.

#include "system/platform/socket.h"

// winsock2.h first: windows.h would otherwise bring the old winsock.h.
#include <winsock2.h>

#include <windows.h>

namespace Tessera {
namespace System {
namespace Platform {

NativeError OpenStreamSocket(int family, NativeSocket& out) {
    const SOCKET s = ::WSASocketW(family, SOCK_STREAM, IPPROTO_TCP, nullptr, 0,
                                  WSA_FLAG_OVERLAPPED | WSA_FLAG_NO_HANDLE_INHERIT);
    if (s == INVALID_SOCKET) return ::WSAGetLastError();
    out = static_cast<NativeSocket>(s);
    return 0;
}

// Connections are taken by Asio's accept on the completion port; a waited-for
// accept is not reliable there.
NativeError AcceptStreamSocket(NativeSocket, NativeSocket&, bool& wouldBlock) {
    wouldBlock = false;
    return WSAEOPNOTSUPP;
}

void MakeNonInheritable(NativeSocket socket) {
    ::SetHandleInformation(reinterpret_cast<HANDLE>(socket), HANDLE_FLAG_INHERIT, 0);
}

void CloseNativeSocket(NativeSocket socket) { ::closesocket(static_cast<SOCKET>(socket)); }

NativeError WaitForSocket(NativeSocket, bool, std::int64_t, bool& ready) {
    ready = false;
    return WSAEOPNOTSUPP; // synchronous waits go through the completion port
}

void WakeSocketWaiters(NativeSocket socket) { ::shutdown(static_cast<SOCKET>(socket), SD_BOTH); }

} // namespace Platform
} // namespace System
} // namespace Tessera
