// Operating-system services behind tessera/system/runtime.h, implemented in
// posix/runtime.cpp and win32/runtime.cpp.
#pragma once

#include "system/platform/nativeError.h"

#include <cstdint>
#include <string>

namespace Tessera {
namespace System {
namespace Platform {

std::uint64_t CurrentThreadId() noexcept;
NativeError HostName(std::string& name);
NativeError ProcessCpuTime(std::uint64_t& userMicroseconds,
                           std::uint64_t& kernelMicroseconds) noexcept;

} // namespace Platform
} // namespace System
} // namespace Tessera
