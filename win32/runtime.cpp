// Windows side of the process and thread services.

#include "system/runtimePlatform.h"

#include <windows.h>

namespace Tessera {
namespace System {
namespace Platform {

std::uint64_t CurrentThreadId() noexcept { return ::GetCurrentThreadId(); }

std::string HostName() {
    wchar_t wide[256];
    DWORD length = sizeof(wide) / sizeof(wide[0]);
    if (!::GetComputerNameExW(ComputerNameDnsHostname, wide, &length)) return std::string();
    char utf8[1024];
    const int n = ::WideCharToMultiByte(CP_UTF8, 0, wide, static_cast<int>(length), utf8,
                                        sizeof(utf8), nullptr, nullptr);
    return n > 0 ? std::string(utf8, static_cast<std::size_t>(n)) : std::string();
}

bool ProcessCpuTime(std::uint64_t& userMicroseconds, std::uint64_t& kernelMicroseconds) noexcept {
    FILETIME created, exited, kernel, user;
    if (!::GetProcessTimes(::GetCurrentProcess(), &created, &exited, &kernel, &user)) return false;
    // FILETIME counts 100-nanosecond intervals.
    const auto micros = [](const FILETIME& t) {
        return ((static_cast<std::uint64_t>(t.dwHighDateTime) << 32) | t.dwLowDateTime) / 10u;
    };
    userMicroseconds = micros(user);
    kernelMicroseconds = micros(kernel);
    return true;
}

} // namespace Platform
} // namespace System
} // namespace Tessera
