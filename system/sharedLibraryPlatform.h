// Loading shared libraries, implemented in posix/sharedLibrary.cpp and
// win32/sharedLibrary.cpp.
#pragma once

#include <string>

namespace Tessera {
namespace System {
namespace Platform {

// The library's handle, or null with `error` set to the system's reason.
void* LoadSharedLibrary(const std::string& path, std::string& error);
// The symbol's address, or null with `error` set.
void* FindSymbol(void* library, const std::string& name, std::string& error);
void UnloadSharedLibrary(void* library) noexcept;

} // namespace Platform
} // namespace System
} // namespace Tessera
