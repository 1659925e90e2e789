// The report of a fatal fault (an access violation, a bus error, a division by
// zero, a stack overflow), shared by the Windows and the POSIX fault handlers.
// Everything here runs inside a fault handler: no allocation, no locks, no
// stdio; only async-signal-safe calls.
#pragma once

#include <cstdint>

namespace Tessera {
namespace System {
namespace Fault {

// Exception codes; POSIX signals are reported under the same codes.
constexpr std::uint32_t BREAKPOINT = 0x80000003u;
constexpr std::uint32_t ACCESS_VIOLATION = 0xC0000005u;
constexpr std::uint32_t PAGE_ERROR = 0xC0000006u;
constexpr std::uint32_t INTEGER_DIVIDE_BY_ZERO = 0xC0000094u;
constexpr std::uint32_t INTEGER_OVERFLOW = 0xC0000095u;
constexpr std::uint32_t STACK_OVERFLOW = 0xC00000FDu;
constexpr std::uint32_t CONTROL_C = 0x40010005u;

struct Info {
    std::uint32_t code = 0;
    // Whether the platform can go on after the fault when nobody ends the
    // process (Windows' exception search); false inside a POSIX signal
    // handler, which would only fault again.
    bool resumable = true;
    // The access that faulted (codes ACCESS_VIOLATION and PAGE_ERROR): kind 0
    // read, 1 write, 8 data execution; and the address touched.
    bool hasAccess = false;
    std::uint64_t accessKind = 0;
    std::uint64_t address = 0;
    bool hasControlRegisters = false;
    std::uint64_t rip = 0, rsp = 0, rbp = 0;
    bool hasIntegerRegisters = false;
    std::uint64_t rax = 0, rbx = 0, rcx = 0, rdx = 0, rdi = 0, rsi = 0;
    std::uint64_t r8 = 0, r9 = 0, r10 = 0, r11 = 0, r12 = 0, r13 = 0, r14 = 0, r15 = 0;
};

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
