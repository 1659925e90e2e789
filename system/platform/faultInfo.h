// What a fatal fault is, as the platform's fault handlers report it to the
// portable handler (system/fault.h): the code and the state of the faulting
// thread. Plain data, shared by the back ends and the portable side.
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

} // namespace Fault
} // namespace System
} // namespace Tessera
