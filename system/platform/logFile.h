// The file layer of the log writers, implemented in posix/logFile.cpp and
// win32/logFile.cpp.
//
// Log files are opened for appending only, so that every write lands at the
// end even when another process appends too, and are never inherited by child
// processes. Writes go straight to the system: nothing is buffered in the
// process, so a crash loses nothing that was written.
#pragma once

#include "system/platform/nativeError.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace Tessera {
namespace System {
namespace Platform {

// A file descriptor or a handle.
using LogFile = std::intptr_t;
constexpr LogFile kNoLogFile = -1;

// Opens `path` (UTF-8) for appending into `file`, creating it when absent;
// with `truncate` an existing file is first emptied.
NativeError OpenLogFile(const std::string& path, bool truncate, LogFile& file) noexcept;
// Writes all `length` bytes.
NativeError WriteLogFile(LogFile file, const char* data, std::size_t length) noexcept;
void CloseLogFile(LogFile file) noexcept;
// Standard output, or standard error when `error`; not to be closed.
LogFile StandardStream(bool error) noexcept;

// Whether a debugger is attached to the process.
bool DebuggerAttached() noexcept;
// Stops in the attached debugger.
void BreakIntoDebugger() noexcept;

} // namespace Platform
} // namespace System
} // namespace Tessera
