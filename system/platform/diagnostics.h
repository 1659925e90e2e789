// The operating-system services the portable code needs, implemented once in
// posix/ and once in win32/. Nothing outside those two folders includes a
// platform header.
#pragma once

#include <cstddef>
#include <string>

namespace Tessera {
namespace System {
namespace Platform {

// Fills `frames` with at most `max` return addresses of the calling thread,
// innermost first, leaving out this function's own frame and `skip` more.
// `full` asks for the most thorough unwinder the platform has.
int CaptureFrames(void** frames, int max, int skip, bool full) noexcept;

// One line per frame: "#<i> 0x<address> in <function> at <file>:<line>" when
// `names` is set and the platform can name it, else
// "#<i> 0x<address> in <module>+0x<offset>".
std::string DescribeFrames(void* const* frames, int count, bool names);

// The system's text for an error code, in UTF-8, as the system words it;
// empty when the system does not know the code (or its text does not fit).
std::string GetSystemErrorText(int code);

// The calling thread's last system error.
int GetLastSystemError() noexcept;

// Writes straight to the standard error handle, bypassing every buffer.
void WriteStandardError(const char* text, std::size_t length) noexcept;

// Ends the process at once, as an abnormal termination.
[[noreturn]] void AbortProcess() noexcept;

} // namespace Platform
} // namespace System
} // namespace Tessera
