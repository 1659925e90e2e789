// The fault report, built in fixed buffers for use inside fault handlers.

#include "system/fault.h"

#include "system/platform/diagnostics.h"

#include <cstddef>

namespace Tessera {
namespace System {
namespace Fault {
namespace {

// A line assembled without allocation or stdio.
class Line {
public:
    Line& Text(const char* s) noexcept {
        while (*s != '\0' && _length < sizeof(_text)) _text[_length++] = *s++;
        return *this;
    }
    // 16 lower-case hexadecimal digits, zero-padded, no prefix.
    Line& Hex64(std::uint64_t v) noexcept {
        for (int shift = 60; shift >= 0; shift -= 4) Digit(static_cast<unsigned>(v >> shift) & 0xF);
        return *this;
    }
    // As printf's "%#08x" prints a 32-bit code: "0x" and at least six digits.
    Line& Code(std::uint32_t v) noexcept {
        Text("0x");
        bool started = false;
        for (int shift = 28; shift >= 0; shift -= 4) {
            const unsigned d = (v >> shift) & 0xF;
            if (d != 0 || started || shift < 24) {
                Digit(d);
                started = true;
            }
        }
        return *this;
    }
    Line& Decimal(std::uint64_t v) noexcept {
        char digits[20];
        int n = 0;
        do {
            digits[n++] = static_cast<char>('0' + v % 10);
            v /= 10;
        } while (v != 0);
        while (n > 0 && _length < sizeof(_text)) _text[_length++] = digits[--n];
        return *this;
    }
    void Write() noexcept { Platform::WriteStandardError(_text, _length); }

private:
    void Digit(unsigned d) noexcept {
        if (_length < sizeof(_text)) _text[_length++] = "0123456789abcdef"[d];
    }
    char _text[256];
    std::size_t _length = 0;
};

const char* AccessText(std::uint64_t kind) noexcept {
    switch (kind) {
    case 0: return "Read";
    case 1: return "Write";
    case 8: return "Data execution";
    default: return "Unknown access";
    }
}

} // namespace

const char* Text(std::uint32_t code) noexcept {
    switch (code) {
    case BREAKPOINT: return "Breakpoint reached";
    case ACCESS_VIOLATION: return "Access Violation";
    case PAGE_ERROR: return "Page error";
    case INTEGER_DIVIDE_BY_ZERO: return "Divide by zero";
    case INTEGER_OVERFLOW: return "Integer operation overflow";
    case STACK_OVERFLOW: return "Stack overflow";
    case CONTROL_C: return "Ctrl-C pressed";
    default: return "Unknown exception";
    }
}

bool EndsProcess(std::uint32_t code, bool panicUnknown) noexcept {
    switch (code) {
    case BREAKPOINT:
    case CONTROL_C: return false;
    case ACCESS_VIOLATION:
    case PAGE_ERROR:
    case INTEGER_DIVIDE_BY_ZERO:
    case INTEGER_OVERFLOW:
    case STACK_OVERFLOW: return true;
    default: return panicUnknown;
    }
}

void WriteReport(const Info& info) noexcept {
    Line().Text("Win32 exception: ").Text(Text(info.code)).Text(" (").Code(info.code).Text(")\n").Write();
    if (info.hasAccess && (info.code == ACCESS_VIOLATION || info.code == PAGE_ERROR)) {
        Line()
            .Text("   ")
            .Text(AccessText(info.accessKind))
            .Text(" (")
            .Decimal(info.accessKind)
            .Text(") at address ")
            .Hex64(info.address)
            .Text("\n")
            .Write();
    }
    if (info.hasControlRegisters) {
        Line().Text("   rip: ").Hex64(info.rip).Text(" rsp: ").Hex64(info.rsp).Text(" rbp: ")
            .Hex64(info.rbp).Text("\n").Write();
    }
    if (info.hasIntegerRegisters) {
        Line().Text("   rax: ").Hex64(info.rax).Text(" rbx: ").Hex64(info.rbx).Text(" rcx: ")
            .Hex64(info.rcx).Text("\n   rdx: ").Hex64(info.rdx).Text(" rdi: ").Hex64(info.rdi)
            .Text(" rsi: ").Hex64(info.rsi).Text("\n").Write();
        Line().Text("   r8:  ").Hex64(info.r8).Text(" r9:  ").Hex64(info.r9).Text(" r10: ")
            .Hex64(info.r10).Text("\n   r11: ").Hex64(info.r11).Text(" r12: ").Hex64(info.r12)
            .Text(" r13: ").Hex64(info.r13).Text("\n   r14: ").Hex64(info.r14).Text(" r15: ")
            .Hex64(info.r15).Text("\n").Write();
    }
}

void PanicFromHandler(const char* reason) noexcept {
    Line().Text("PANIC: ").Text(reason).Text("\n").Write();
    void* frames[62];
    const int count = Platform::CaptureFrames(frames, 62, 0, false);
    Line().Text("Backtrace:\n").Write();
    for (int i = 0; i < count; ++i) {
        Line().Text("#").Decimal(static_cast<std::uint64_t>(i)).Text(" ")
            .Hex64(reinterpret_cast<std::uintptr_t>(frames[i])).Text("\n").Write();
    }
    Platform::AbortProcess();
}

} // namespace Fault
} // namespace System
} // namespace Tessera
