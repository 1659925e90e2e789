// Loading shared libraries, implemented in posix/sharedLibrary.cpp and
// win32/sharedLibrary.cpp.
#pragma once

#include "system/platform/nativeError.h"

#include <string>

namespace Tessera {
namespace System {
namespace Platform {

// The POSIX dynamic loader reports failures only in words (dlerror): its
// failures come back as kLoaderError with those words in `reason`. Windows
// gives a native code and leaves `reason` empty.
constexpr NativeError kLoaderError = -1;

NativeError LoadSharedLibrary(const std::string& path, void*& library,
                              std::string& reason) noexcept;
NativeError FindSymbol(void* library, const std::string& name, void*& symbol,
                       std::string& reason) noexcept;
void UnloadSharedLibrary(void* library) noexcept;

} // namespace Platform
} // namespace System
} // namespace Tessera
