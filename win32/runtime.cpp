// Windows side of the process and thread services.

#include "system/platform/runtime.h"

#include "win32/support.h"

namespace Tessera {
namespace System {
namespace Platform {

std::uint64_t CurrentThreadId() noexcept { return ::GetCurrentThreadId(); }

NativeError HostName(std::string& name) {
    wchar_t wide[256];
    DWORD length = sizeof(wide) / sizeof(wide[0]);
    if (!::GetComputerNameExW(ComputerNameDnsHostname, wide, &length)) return LastError();
    name = WideToUtf8(wide, static_cast<int>(length));
    return kSuccess;
}

NativeError ProcessCpuTime(std::uint64_t& userMicroseconds,
                           std::uint64_t& kernelMicroseconds) noexcept {
    FILETIME created, exited, kernel, user;
    if (!::GetProcessTimes(::GetCurrentProcess(), &created, &exited, &kernel, &user)) {
        return LastError();
    }
    userMicroseconds = FileTimeTicks(user) / 10u;
    kernelMicroseconds = FileTimeTicks(kernel) / 10u;
    return kSuccess;
}

} // namespace Platform
} // namespace System
} // namespace Tessera
