// POSIX side of the process and thread services.

#include "system/runtimePlatform.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>

namespace Tessera {
namespace System {
namespace Platform {

std::uint64_t CurrentThreadId() noexcept {
    static thread_local const std::uint64_t id = static_cast<std::uint64_t>(::syscall(SYS_gettid));
    return id;
}

std::string HostName() {
    char name[HOST_NAME_MAX + 1] = {};
    if (::gethostname(name, sizeof(name) - 1) != 0) return std::string();
    return name;
}

bool ProcessCpuTime(std::uint64_t& userMicroseconds, std::uint64_t& kernelMicroseconds) noexcept {
    struct rusage usage;
    if (::getrusage(RUSAGE_SELF, &usage) != 0) return false;
    userMicroseconds = static_cast<std::uint64_t>(usage.ru_utime.tv_sec) * 1000000u +
                       static_cast<std::uint64_t>(usage.ru_utime.tv_usec);
    kernelMicroseconds = static_cast<std::uint64_t>(usage.ru_stime.tv_sec) * 1000000u +
                         static_cast<std::uint64_t>(usage.ru_stime.tv_usec);
    return true;
}

}  // namespace Platform
}  // namespace System
}  // namespace Tessera
