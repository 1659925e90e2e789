// Operating-system services behind tessera/system/runtime.h, implemented in
// posix/runtime.cpp and win32/runtime.cpp.
#pragma once

#include <cstdint>
#include <string>

namespace Tessera {
namespace System {
namespace Platform {

std::uint64_t CurrentThreadId() noexcept;
// Empty when the system gives no name.
std::string HostName();
// False when the system cannot tell.
bool ProcessCpuTime(std::uint64_t& userMicroseconds, std::uint64_t& kernelMicroseconds) noexcept;

} // namespace Platform
} // namespace System
} // namespace Tessera
