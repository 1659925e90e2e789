// Native sockets for the streams. Generic POSIX code only.

#include "system/platform/socket.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace Tessera {
namespace System {
namespace Platform {

NativeError OpenStreamSocket(int family, NativeSocket& out) {
    const int fd = ::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return errno;
    out = fd;
    return 0;
}

NativeError AcceptStreamSocket(NativeSocket listener, NativeSocket& out, bool& wouldBlock) {
    wouldBlock = false;
    for (;;) {
        const int fd = ::accept4(static_cast<int>(listener), nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0) {
            out = fd;
            return 0;
        }
        switch (errno) {
        case EINTR: continue;
        case EAGAIN:
#if EWOULDBLOCK != EAGAIN
        case EWOULDBLOCK:
#endif
        case ECONNABORTED:
        case EPROTO:
            wouldBlock = true; // nothing to take now: wait again
            return 0;
        default: return errno;
        }
    }
}

void MakeNonInheritable(NativeSocket socket) {
    const int fd = static_cast<int>(socket);
    const int flags = ::fcntl(fd, F_GETFD);
    if (flags >= 0) ::fcntl(fd, F_SETFD, flags | FD_CLOEXEC);
}

void CloseNativeSocket(NativeSocket socket) { ::close(static_cast<int>(socket)); }

NativeError WaitForSocket(NativeSocket socket, bool forWrite, std::int64_t timeoutUsec,
                          bool& ready) {
    pollfd one{static_cast<int>(socket), static_cast<short>(forWrite ? POLLOUT : POLLIN), 0};
    // Rounded up to whole milliseconds; the caller loops on an early return.
    const int wait =
        timeoutUsec < 0
            ? -1
            : static_cast<int>(std::min<std::int64_t>((timeoutUsec + 999) / 1000, 1 << 30));
    const int got = ::poll(&one, 1, wait);
    if (got < 0) {
        ready = false;
        return errno == EINTR ? 0 : errno;
    }
    ready = got > 0;
    return 0;
}

void WakeSocketWaiters(NativeSocket socket) { ::shutdown(static_cast<int>(socket), SHUT_RDWR); }

} // namespace Platform
} // namespace System
} // namespace Tessera
