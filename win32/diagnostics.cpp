// Windows side of the platform services: unwinding, symbol names, error texts.
//
// Symbol names come from the debug-help library. It is single-threaded, so
// every call into it (the stack walker included) holds one process-wide lock,
// and it is initialised once, lazily, under that lock.

#include "system/platform/diagnostics.h"
#include "win32/support.h"

#include <windows.h>
// dbghelp.h needs the declarations of windows.h first.
#include <dbghelp.h>

#include <cxxabi.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <memory>
#include <string>

namespace Tessera {
namespace System {
namespace Platform {
namespace {

// Guards every call into dbghelp. A slim reader/writer lock needs no
// construction, so it is usable before static constructors run and it cannot
// throw from the noexcept capture path.
SRWLOCK sSymbolLock = SRWLOCK_INIT;
bool sSymbolsReady = false;

class SymbolLock {
public:
    SymbolLock() noexcept { AcquireSRWLockExclusive(&sSymbolLock); }
    ~SymbolLock() { ReleaseSRWLockExclusive(&sSymbolLock); }
    SymbolLock(const SymbolLock&) = delete;
    SymbolLock& operator=(const SymbolLock&) = delete;
};

// Call with the lock held. True once dbghelp knows the process.
bool EnsureSymbols() noexcept {
    if (!sSymbolsReady) {
        SymSetOptions(SymGetOptions() | SYMOPT_UNDNAME | SYMOPT_DEFERRED_LOADS |
                      SYMOPT_LOAD_LINES | SYMOPT_FAIL_CRITICAL_ERRORS);
        // Invading the process loads the module list as it is now; modules
        // loaded later are picked up by RefreshModules.
        sSymbolsReady = SymInitialize(GetCurrentProcess(), nullptr, TRUE) != FALSE;
    }
    return sSymbolsReady;
}

void RefreshModules() noexcept { SymRefreshModuleList(GetCurrentProcess()); }

// The module that holds `address`, or null. The module's count is unchanged:
// the caller must know the module stays loaded (true of code on its stack).
HMODULE ModuleOf(const void* address) noexcept {
    HMODULE module = nullptr;
    if (!GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS |
                                GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                            static_cast<LPCWSTR>(address), &module)) {
        return nullptr;
    }
    return module;
}

// Stack-walker callbacks: the unwind tables of every loaded image are reached
// through the loader, so a module loaded after SymInitialize is still walked;
// dbghelp's own tables are the fallback.
PVOID CALLBACK FunctionTableAccess(HANDLE process, DWORD64 address) {
    DWORD64 imageBase = 0;
    if (PRUNTIME_FUNCTION entry = RtlLookupFunctionEntry(address, &imageBase, nullptr)) {
        return entry;
    }
    return SymFunctionTableAccess64(process, address);
}

DWORD64 CALLBACK ModuleBase(HANDLE process, DWORD64 address) {
    if (HMODULE module = ModuleOf(reinterpret_cast<const void*>(address))) {
        return reinterpret_cast<DWORD64>(module);
    }
    return SymGetModuleBase64(process, address);
}

// noinline: CaptureFrames counts this function as one frame of the walk.
__declspec(noinline) int CaptureWithStackWalker(void** frames, int max, int skip) noexcept {
    CONTEXT context;
    std::memset(&context, 0, sizeof(context));
    context.ContextFlags = CONTEXT_FULL;
    RtlCaptureContext(&context);

    STACKFRAME64 frame;
    std::memset(&frame, 0, sizeof(frame));
    frame.AddrPC.Offset = context.Rip;
    frame.AddrPC.Mode = AddrModeFlat;
    frame.AddrFrame.Offset = context.Rbp;
    frame.AddrFrame.Mode = AddrModeFlat;
    frame.AddrStack.Offset = context.Rsp;
    frame.AddrStack.Mode = AddrModeFlat;

    const HANDLE process = GetCurrentProcess();
    const HANDLE thread = GetCurrentThread();
    int count = 0;
    SymbolLock hold;
    if (!EnsureSymbols()) {
        return 0;
    }
    while (count < max) {
        if (!StackWalk64(IMAGE_FILE_MACHINE_AMD64, process, thread, &frame, &context, nullptr,
                         &FunctionTableAccess, &ModuleBase, nullptr)) {
            break;
        }
        if (frame.AddrPC.Offset == 0) {
            break;
        }
        if (skip > 0) {
            --skip;
            continue;
        }
        frames[count++] = reinterpret_cast<void*>(frame.AddrPC.Offset);
    }
    return count;
}

// GCC-style names come out of the symbol tables mangled; dbghelp only
// undecorates the Microsoft scheme.
std::string Demangle(const char* name) {
    if (name[0] == '_' && name[1] == 'Z') {
        int status = 0;
        std::unique_ptr<char, void (*)(void*)> plain(
            abi::__cxa_demangle(name, nullptr, nullptr, &status), &std::free);
        if (status == 0 && plain) {
            return plain.get();
        }
    }
    return name;
}


// " in <function>[ at <file>:<line>]", or empty when dbghelp cannot name it.
// Call with the lock held.
std::string NameFrame(void* address) {
    const HANDLE process = GetCurrentProcess();
    // Return addresses point past the call; look up the call itself.
    const DWORD64 call = reinterpret_cast<DWORD64>(address) - 1;

    alignas(SYMBOL_INFO) char storage[sizeof(SYMBOL_INFO) + MAX_SYM_NAME];
    std::memset(storage, 0, sizeof(storage));
    auto* symbol = reinterpret_cast<SYMBOL_INFO*>(storage);
    symbol->SizeOfStruct = sizeof(SYMBOL_INFO);
    symbol->MaxNameLen = MAX_SYM_NAME;
    DWORD64 displacement = 0;
    if (!SymFromAddr(process, call, &displacement, symbol) || symbol->NameLen == 0) {
        return std::string();
    }
    std::string where = " in " + Demangle(symbol->Name);

    IMAGEHLP_LINE64 line;
    std::memset(&line, 0, sizeof(line));
    line.SizeOfStruct = sizeof(line);
    DWORD lineDisplacement = 0;
    if (SymGetLineFromAddr64(process, call, &lineDisplacement, &line) &&
        line.FileName != nullptr && line.FileName[0] != '\0') {
        where += " at ";
        where += line.FileName;
        where += ":" + std::to_string(line.LineNumber);
    }
    return where;
}

// " in <module>+0x<offset>", or empty when no module holds the address.
std::string ModuleOffset(void* address) {
    const HMODULE module = ModuleOf(address);
    if (module == nullptr) {
        return std::string();
    }
    wchar_t path[MAX_PATH + 1];
    const DWORD length = GetModuleFileNameW(module, path, MAX_PATH);
    if (length == 0 || length >= MAX_PATH) {
        return std::string();
    }
    path[length] = L'\0';
    const wchar_t* name = path;
    for (const wchar_t* p = path; *p != L'\0'; ++p) {
        if (*p == L'\\' || *p == L'/') {
            name = p + 1;
        }
    }
    char offset[32];
    std::snprintf(offset, sizeof(offset), "+0x%llx",
                  static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(address) -
                                                  reinterpret_cast<std::uintptr_t>(module)));
    return " in " + WideToUtf8(name, static_cast<int>(std::wcslen(name))) + offset;
}

} // namespace

// noinline keeps this frame real, so that `skip` counts what the caller sees.
__declspec(noinline) int CaptureFrames(void** frames, int max, int skip, bool full) noexcept {
    if (max <= 0) {
        return 0;
    }
    if (skip < 0) {
        skip = 0;
    }
    int count;
    if (full) {
        // The walker reports this function and the helper as its first two
        // frames.
        count = CaptureWithStackWalker(frames, max, skip + 2);
    } else {
        // The fast unwinder starts at its caller, that is this function.
        count = RtlCaptureStackBackTrace(static_cast<DWORD>(skip + 1), static_cast<DWORD>(max),
                                         frames, nullptr);
        // Some unwinders go on past the thread's first frame; a null return
        // address is the end of the stack in any case.
        for (int i = 0; i < count; ++i) {
            if (frames[i] == nullptr) {
                count = i;
                break;
            }
        }
    }
    // Keeps the calls above from becoming tail calls, which would take this
    // frame off the stack and make `skip` count one frame too many.
    __asm__ __volatile__("" ::: "memory");
    return count;
}

std::string DescribeFrames(void* const* frames, int count, bool names) {
    std::string text;
    SymbolLock hold;
    const bool symbols = names && EnsureSymbols();
    bool refreshed = false;
    char line[64];
    for (int i = 0; i < count; ++i) {
        void* address = frames[i];
        std::string where;
        if (symbols) {
            where = NameFrame(address);
            if (where.empty() && !refreshed &&
                SymGetModuleBase64(GetCurrentProcess(), reinterpret_cast<DWORD64>(address)) == 0) {
                // A module loaded after the symbols were initialised.
                RefreshModules();
                refreshed = true;
                where = NameFrame(address);
            }
        }
        if (where.empty()) {
            where = ModuleOffset(address);
        }
        std::snprintf(line, sizeof(line), "#%d 0x%016llx", i,
                      static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(address)));
        text += line;
        text += where;
        text += "\n";
    }
    return text;
}

std::string GetSystemErrorText(int code) {
    enum { kBufferSize = 2048 };
    // FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS with the
    // maximum line width of 255 (0xFF): the system's text, inserts untouched.
    const DWORD flags = 0x12FF;
    // LANG_NEUTRAL / SUBLANG_DEFAULT: the user's default language.
    const DWORD language = 0x400;
    char buffer[kBufferSize];
    const DWORD length = FormatMessageA(flags, nullptr, static_cast<DWORD>(code), language, buffer,
                                        kBufferSize, nullptr);
    if (length == 0) {
        return std::string();
    }
    // The text is in the current code page; the library speaks UTF-8.
    wchar_t wide[kBufferSize];
    const int wideLength =
        MultiByteToWideChar(CP_ACP, 0, buffer, static_cast<int>(length), wide, kBufferSize);
    if (wideLength <= 0) {
        return std::string();
    }
    char utf8[kBufferSize];
    const int utf8Length =
        WideCharToMultiByte(CP_UTF8, 0, wide, wideLength, utf8, kBufferSize, nullptr, nullptr);
    if (utf8Length <= 0 || utf8Length >= kBufferSize) {
        return std::string();
    }
    return std::string(utf8, static_cast<std::size_t>(utf8Length));
}

int GetLastSystemError() noexcept { return static_cast<int>(GetLastError()); }

void WriteStandardError(const char* text, std::size_t length) noexcept {
    const HANDLE handle = GetStdHandle(STD_ERROR_HANDLE);
    if (handle == nullptr || handle == INVALID_HANDLE_VALUE) {
        return;
    }
    while (length > 0) {
        const DWORD chunk = length > 0x10000000u ? 0x10000000u : static_cast<DWORD>(length);
        DWORD written = 0;
        if (!WriteFile(handle, text, chunk, &written, nullptr) || written == 0) {
            return;
        }
        text += written;
        length -= written;
    }
}

void AbortProcess() noexcept {
    // Not abort(): the C runtime may show an error dialog or ask to report the
    // fault, and a service has nobody to click it. Not ExitProcess(): it runs
    // atexit handlers and DLL detach code in a process whose state is already
    // broken. TerminateProcess ends every thread at once; exit code 3 is what
    // abort() gives on Windows, so supervisors see the usual abnormal end.
    TerminateProcess(GetCurrentProcess(), 3);
    // Not reached: the call does not return for the current process.
    for (;;) {
        Sleep(INFINITE);
    }
}

} // namespace Platform
} // namespace System
} // namespace Tessera
