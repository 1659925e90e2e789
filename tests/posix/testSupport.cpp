#include "tests/testSupport.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

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

} // namespace TestSupport
