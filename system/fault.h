// The report of a fatal fault (an access violation, a bus error, a division by
// zero, a stack overflow), made for the Windows and the POSIX fault handlers
// from what they report (system/platform/faultInfo.h).
// Everything here runs inside a fault handler: no allocation, no locks, no
// stdio; only async-signal-safe calls.
#pragma once

#include "system/platform/faultInfo.h"

#include <cstdint>

namespace Tessera {
namespace System {
namespace Fault {

// "Access Violation", ..., or "Unknown exception".
const char* Text(std::uint32_t code) noexcept;
// Whether the code ends the process; unknown codes as `panicUnknown` says.
bool EndsProcess(std::uint32_t code, bool panicUnknown) noexcept;

// Writes the report, line by line, to standard error.
void WriteReport(const Info& info) noexcept;

// Ends the process from inside a fault handler: "PANIC: <reason>", the raw
// return addresses of the faulting thread, then an abnormal end. Uses only
// async-signal-safe calls.
[[noreturn]] void PanicFromHandler(const char* reason) noexcept;

} // namespace Fault
} // namespace System
} // namespace Tessera
