// Files opened for reading whole, as the configuration loader reads them.
// Implemented in posix/inputFile.cpp and win32/inputFile.cpp.
//
// Paths are UTF-8 on every platform, so that a name outside the system's
// ANSI code page opens on Windows too. Files are opened shared: others may
// keep writing, renaming or deleting them meanwhile. The handle is never
// inherited by child processes.
#pragma once

#include "system/platform/nativeError.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace Tessera {
namespace System {
namespace Platform {

// A file descriptor or a handle.
using InputFile = std::intptr_t;
constexpr InputFile kNoInputFile = -1;

// Opens `path` for reading. `size` is the file's size in bytes when it is a
// regular file, else -1 (a pipe or a device, read to its end). A directory
// is refused (EISDIR on POSIX, ERROR_DIRECTORY on Windows).
NativeError OpenInputFile(const std::string& path, InputFile& file, long long& size) noexcept;
// Reads at most `max` bytes into `buffer`; `count` is 0 at the end of the file.
NativeError ReadInputFile(InputFile file, char* buffer, std::size_t max,
                          std::size_t& count) noexcept;
void CloseInputFile(InputFile file) noexcept;

}  // namespace Platform
}  // namespace System
}  // namespace Tessera
