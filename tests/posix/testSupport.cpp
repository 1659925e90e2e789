#include "tests/testSupport.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

namespace TestSupport {
namespace {

bool SetAppendOnly(int fd, bool on, std::string& why) {
    int flags = 0;
    if (::ioctl(fd, FS_IOC_GETFLAGS, &flags) != 0) {
        why = std::string("cannot read the file's attributes: ") + std::strerror(errno);
        return false;
    }
    flags = on ? (flags | FS_APPEND_FL) : (flags & ~FS_APPEND_FL);
    if (::ioctl(fd, FS_IOC_SETFLAGS, &flags) != 0) {
        why = std::string("cannot set the append-only attribute: ") + std::strerror(errno);
        return false;
    }
    return true;
}

} // namespace

RenameBlocker::RenameBlocker(const std::filesystem::path& file) : _file(file) {
    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        _why = std::string("cannot open ") + file.string() + ": " + std::strerror(errno);
        return;
    }
    _active = SetAppendOnly(fd, true, _why);
    ::close(fd);
}

RenameBlocker::~RenameBlocker() {
    if (!_active) return;
    const int fd = ::open(_file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return;
    std::string ignored;
    SetAppendOnly(fd, false, ignored);
    ::close(fd);
}

bool WaitUntilEnded(long long processId) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (;;) {
        siginfo_t info = {};
        // WNOWAIT leaves the child to be collected by its owner.
        const int result =
            ::waitid(P_PID, static_cast<id_t>(processId), &info, WEXITED | WNOHANG | WNOWAIT);
        if (result != 0) return errno == ECHILD; // collected already: it ended
        if (info.si_pid != 0) return true;
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

} // namespace TestSupport
