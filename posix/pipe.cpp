// Local pipes as Unix domain stream sockets bound to a path. Generic POSIX
// code only.

#include "system/platform/pipe.h"
#include "system/platform/socket.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace Tessera {
namespace System {
namespace Platform {
namespace {

constexpr int kDefaultBacklog = 16;
// Buffers handed to one sendmsg at most; the caller writes the rest next.
constexpr std::size_t kMaxGather = 16;

NativeError Address(const std::string& name, sockaddr_un& address, socklen_t& length) {
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    if (name.empty() || name.size() >= sizeof address.sun_path ||
        name.find('\0') != std::string::npos) {
        return name.empty() ? ENOENT : ENAMETOOLONG;
    }
    std::memcpy(address.sun_path, name.data(), name.size());
    length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size() + 1);
    return kSuccess;
}

// A non-blocking Unix stream socket that no child inherits.
NativeError OpenSocket(int& fd) {
    fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    return fd < 0 ? errno : kSuccess;
}

NativeError MakeNonBlocking(int fd) {
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags < 0 || ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) return errno;
    return kSuccess;
}

bool WouldBlock(int error) { return error == EAGAIN || error == EWOULDBLOCK; }

NativeError Read(int fd, char* data, std::size_t size, std::size_t& count, bool& wouldBlock) {
    wouldBlock = false;
    count = 0;
    for (;;) {
        const ssize_t got = ::recv(fd, data, size, 0);
        if (got >= 0) {
            count = static_cast<std::size_t>(got);
            return kSuccess;
        }
        if (errno == EINTR) continue;
        if (WouldBlock(errno)) {
            wouldBlock = true;
            return kSuccess;
        }
        return errno;
    }
}

// A peer gone away is EPIPE, never SIGPIPE.
NativeError Write(int fd, const PipeBuffer* buffers, std::size_t n, std::size_t& count,
                  bool& wouldBlock) {
    wouldBlock = false;
    count = 0;
    iovec iov[kMaxGather];
    msghdr message{};
    message.msg_iov = iov;
    for (std::size_t i = 0; i < n && message.msg_iovlen < kMaxGather; ++i) {
        iov[message.msg_iovlen].iov_base = const_cast<char*>(buffers[i].data);
        iov[message.msg_iovlen].iov_len = buffers[i].size;
        ++message.msg_iovlen;
    }
    for (;;) {
        const ssize_t sent = ::sendmsg(fd, &message, MSG_NOSIGNAL);
        if (sent >= 0) {
            count = static_cast<std::size_t>(sent);
            return kSuccess;
        }
        if (errno == EINTR) continue;
        if (WouldBlock(errno)) {
            wouldBlock = true;
            return kSuccess;
        }
        return errno;
    }
}

// The socket is non-blocking: a pending operation is tried again once the
// descriptor is ready, nothing being under way in the system meanwhile.
class SocketChannel final : public PipeChannel {
public:
    SocketChannel(int fd, bool forWrite) : _fd(fd), _forWrite(forWrite) {}

    NativeError StartRead(char* data, std::size_t size, bool& pending,
                          std::size_t& count) override {
        _data = data;
        _size = size;
        return Read(_fd, _data, _size, count, pending);
    }
    NativeError StartWrite(const PipeBuffer* buffers, std::size_t n, bool& pending,
                           std::size_t& count) override {
        _buffers = buffers;
        _n = n;
        return Write(_fd, _buffers, _n, count, pending);
    }
    NativeError Finish(bool& pending, std::size_t& count) override {
        return _forWrite ? Write(_fd, _buffers, _n, count, pending)
                         : Read(_fd, _data, _size, count, pending);
    }
    void Cancel() override {}
    WaitableHandle GetWaitHandle() const override { return _fd; }
    Readiness GetReadiness() const override {
        return _forWrite ? Readiness::Write : Readiness::Read;
    }

private:
    const int _fd;
    const bool _forWrite;
    char* _data = nullptr;
    std::size_t _size = 0;
    const PipeBuffer* _buffers = nullptr;
    std::size_t _n = 0;
};

class SocketListener final : public PipeListener {
public:
    SocketListener(int fd, std::string path, int lockFd)
        : _fd(fd), _path(std::move(path)), _lockFd(lockFd) {}
    ~SocketListener() override {
        ::unlink(_path.c_str());
        ::close(_fd);
        // The name is free once the lock goes.
        ::unlink((_path + ".lock").c_str());
        ::close(_lockFd);
    }

    NativeError StartAccept(bool& pending, NativePipe& accepted) override {
        NativeSocket fd = -1;
        NativeError error = AcceptStreamSocket(_fd, fd, pending);
        if (error != kSuccess || pending) return error;
        error = MakeNonBlocking(static_cast<int>(fd));
        if (error != kSuccess) {
            ::close(static_cast<int>(fd));
            return error;
        }
        accepted = fd;
        return kSuccess;
    }
    NativeError Finish(bool& pending, NativePipe& accepted) override {
        return StartAccept(pending, accepted);
    }
    void Cancel() override {}
    WaitableHandle GetWaitHandle() const override { return _fd; }
    Readiness GetReadiness() const override { return Readiness::Read; }

private:
    const int _fd;
    const std::string _path;
    const int _lockFd; // holds the name (ClaimName)
};

// The server of a name holds an exclusive lock on "<name>.lock" for its life,
// which the system drops when the process ends, however it ends: a socket
// file whose lock is free was left by a dead server and may be replaced.
// (Asking the socket itself, by connecting to it, would hand a live server a
// client that leaves at once.) The lock file is checked to be still the one
// at the path once locked, as a closing server removes it.
NativeError ClaimName(const std::string& lockPath, int& lockFd) {
    for (;;) {
        lockFd = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (lockFd < 0) return errno;
        int locked;
        do {
            locked = ::flock(lockFd, LOCK_EX | LOCK_NB);
        } while (locked != 0 && errno == EINTR);
        if (locked != 0) {
            const NativeError error = errno == EWOULDBLOCK ? EADDRINUSE : errno;
            ::close(lockFd);
            return error;
        }
        struct stat held;
        struct stat current;
        if (::fstat(lockFd, &held) == 0 && ::stat(lockPath.c_str(), &current) == 0 &&
            held.st_dev == current.st_dev && held.st_ino == current.st_ino) {
            return kSuccess;
        }
        ::close(lockFd); // removed meanwhile: claim the new one
    }
}

} // namespace

NativeError OpenPipeChannel(NativePipe pipe, bool forWrite, std::unique_ptr<PipeChannel>& out) {
    out.reset(new SocketChannel(static_cast<int>(pipe), forWrite));
    return kSuccess;
}

NativeError ReadPipeNow(NativePipe pipe, char* data, std::size_t size, std::size_t& count,
                        bool& wouldBlock) {
    return Read(static_cast<int>(pipe), data, size, count, wouldBlock);
}

NativeError WritePipeNow(NativePipe pipe, const char* data, std::size_t size, std::size_t& count,
                         bool& wouldBlock) {
    const PipeBuffer one{data, size};
    return Write(static_cast<int>(pipe), &one, 1, count, wouldBlock);
}

bool CanTryPipesNow() { return true; }

NativeError ShutdownPipeWrite(NativePipe pipe) {
    return ::shutdown(static_cast<int>(pipe), SHUT_WR) == 0 ? kSuccess : errno;
}

void ClosePipe(NativePipe pipe) { ::close(static_cast<int>(pipe)); }

std::string LocalPipeName(const std::string& base) {
    const char* dir = std::getenv("TMPDIR");
    std::string path = dir && *dir ? dir : "/tmp";
    if (path.back() != '/') path += '/';
    return path + base + ".sock";
}

NativeError ConnectToPipe(const std::string& name, bool waitIfBusy, NativePipe& out) {
    sockaddr_un address;
    socklen_t length = 0;
    NativeError error = Address(name, address, length);
    if (error != kSuccess) return error;
    // Connected blocking, used non-blocking: a local connect either succeeds
    // or fails at once, but for a full queue of the server.
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return errno;
    for (int attempt = 0;; ++attempt) {
        if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), length) == 0) break;
        error = errno;
        if (error == EINTR) continue;
        // A full queue refuses at once (EAGAIN) where the system does not
        // make the connect wait; with waitIfBusy it is tried again.
        if (error != EAGAIN || !waitIfBusy || attempt >= 1000) {
            ::close(fd);
            return error;
        }
        ::usleep(10 * 1000);
    }
    error = MakeNonBlocking(fd);
    if (error != kSuccess) {
        ::close(fd);
        return error;
    }
    out = fd;
    return kSuccess;
}

NativeError ListenOnPipe(const std::string& name, int maxInstances,
                         std::unique_ptr<PipeListener>& out) {
    sockaddr_un address;
    socklen_t length = 0;
    NativeError error = Address(name, address, length);
    if (error != kSuccess) return error;
    const std::string lockPath = name + ".lock";
    int lockFd = -1;
    error = ClaimName(lockPath, lockFd);
    if (error != kSuccess) return error;
    struct stat st;
    if (::lstat(name.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) ::unlink(name.c_str());
    int fd = -1;
    error = OpenSocket(fd);
    if (error == kSuccess && ::bind(fd, reinterpret_cast<const sockaddr*>(&address), length) != 0) {
        error = errno;
        ::close(fd);
    } else if (error == kSuccess &&
               ::listen(fd, maxInstances > 0 ? maxInstances : kDefaultBacklog) != 0) {
        error = errno;
        ::unlink(name.c_str());
        ::close(fd);
    }
    if (error != kSuccess) {
        ::unlink(lockPath.c_str());
        ::close(lockFd);
        return error;
    }
    out.reset(new SocketListener(fd, name, lockFd));
    return kSuccess;
}

} // namespace Platform
} // namespace System
} // namespace Tessera
