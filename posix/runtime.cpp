// POSIX side of the process and thread services.

#include "system/platform/runtime.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

namespace Tessera {
namespace System {
namespace Platform {

std::uint64_t CurrentThreadId() noexcept {
    static thread_local const std::uint64_t id = static_cast<std::uint64_t>(::syscall(SYS_gettid));
    return id;
}

NativeError HostName(std::string& name) {
    char text[HOST_NAME_MAX + 1] = {};
    if (::gethostname(text, sizeof(text) - 1) != 0) return errno;
    name = text;
    return kSuccess;
}

NativeError ProcessCpuTime(std::uint64_t& userMicroseconds,
                           std::uint64_t& kernelMicroseconds) noexcept {
    struct rusage usage;
    if (::getrusage(RUSAGE_SELF, &usage) != 0) return errno;
    userMicroseconds = static_cast<std::uint64_t>(usage.ru_utime.tv_sec) * 1000000u +
                       static_cast<std::uint64_t>(usage.ru_utime.tv_usec);
    kernelMicroseconds = static_cast<std::uint64_t>(usage.ru_stime.tv_sec) * 1000000u +
                         static_cast<std::uint64_t>(usage.ru_stime.tv_usec);
    return kSuccess;
}

}  // namespace Platform
}  // namespace System
}  // namespace Tessera
