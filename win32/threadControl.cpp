// Windows threads, COM apartments and the fatal-exception filter.
//
// The structured exceptions that end a process (access violations, stack
// overflow, ...) are caught by the unhandled-exception filter, so that
// exceptions some frame handles (C++ exceptions among them) never reach it.
// The runtime's pure-call and invalid-parameter handlers end the process
// through the panic path.

#include <tessera/assert.h>
#include <tessera/exception.h>
#include <tessera/logger.h>

#include "system/fault.h"
#include "system/platform.h"
#include "system/threadPlatform.h"

#include <windows.h>
#include <objbase.h>
#include <process.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>

namespace Tessera {
namespace System {
namespace Platform {

class NativeThread {
public:
    HANDLE handle;
};

namespace {

struct Trampoline {
    void (*entry)(void*);
    void* argument;
};

unsigned __stdcall RunTrampoline(void* p) {
    Trampoline t = *static_cast<Trampoline*>(p);
    delete static_cast<Trampoline*>(p);
    t.entry(t.argument);
    return 0;
}

FaultSettings sSettings{false, 0};

LONG WINAPI OnUnhandledException(EXCEPTION_POINTERS* pointers) {
    const EXCEPTION_RECORD* record = pointers->ExceptionRecord;
    const CONTEXT* context = pointers->ContextRecord;
    Fault::Info info;
    info.code = static_cast<std::uint32_t>(record->ExceptionCode);
    if (record->NumberParameters >= 2) {
        info.hasAccess = true;
        info.accessKind = record->ExceptionInformation[0];
        info.address = record->ExceptionInformation[1];
    }
    if (context != nullptr && (context->ContextFlags & CONTEXT_CONTROL) == CONTEXT_CONTROL) {
        info.hasControlRegisters = true;
        info.rip = context->Rip;
        info.rsp = context->Rsp;
        info.rbp = context->Rbp;
    }
    if (context != nullptr && (context->ContextFlags & CONTEXT_INTEGER) == CONTEXT_INTEGER) {
        info.hasIntegerRegisters = true;
        info.rax = context->Rax; info.rbx = context->Rbx; info.rcx = context->Rcx;
        info.rdx = context->Rdx; info.rdi = context->Rdi; info.rsi = context->Rsi;
        info.r8 = context->R8; info.r9 = context->R9; info.r10 = context->R10;
        info.r11 = context->R11; info.r12 = context->R12; info.r13 = context->R13;
        info.r14 = context->R14; info.r15 = context->R15;
    }
    Fault::WriteReport(info);
    if (!Fault::EndsProcess(info.code, sSettings.panicUnknown)) {
        return EXCEPTION_CONTINUE_SEARCH;
    }
    switch (sSettings.termination) {
    case 1: return EXCEPTION_CONTINUE_SEARCH; // the system's own handling
    case 2: ::DebugBreak(); return EXCEPTION_CONTINUE_SEARCH;
    default: PanicExit("fatal structured exception");
    }
}

void __cdecl OnPureCall() { PanicExit("Pure virtual function called"); }

void __cdecl OnInvalidParameter(const wchar_t* expression, const wchar_t* function,
                                const wchar_t* file, unsigned int line, uintptr_t) {
    char text[1024];
    std::snprintf(text, sizeof(text), "expression=%ls, function=%ls, file=%ls, line=%d",
                  expression != nullptr ? expression : L"", function != nullptr ? function : L"",
                  file != nullptr ? file : L"", static_cast<int>(line));
    PanicExit(text);
}

thread_local bool tComInitialized = false;

} // namespace

NativeThread* StartNativeThread(void (*entry)(void*), void* argument, std::size_t stackSize,
                                bool commitStack) {
    auto* trampoline = new Trampoline{entry, argument};
    const unsigned flags = commitStack ? 0u : static_cast<unsigned>(STACK_SIZE_PARAM_IS_A_RESERVATION);
    const uintptr_t handle = ::_beginthreadex(nullptr, static_cast<unsigned>(stackSize),
                                              &RunTrampoline, trampoline, flags, nullptr);
    if (handle == 0) {
        const int error = static_cast<int>(::GetLastError());
        delete trampoline;
        throw SystemException(error);
    }
    return new NativeThread{reinterpret_cast<HANDLE>(handle)};
}

void JoinNativeThread(NativeThread* thread) {
    ::WaitForSingleObject(thread->handle, INFINITE);
    ::CloseHandle(thread->handle);
    delete thread;
}

void InstallFaultHandlers(const FaultSettings& settings) {
    sSettings = settings;
    ::SetUnhandledExceptionFilter(&OnUnhandledException);
    ::_set_purecall_handler(&OnPureCall);
    ::_set_invalid_parameter_handler(&OnInvalidParameter);
}

void SetUpThread(bool faultHandling, int comModel) {
    if (faultHandling) {
        // Room on the stack for the report when the stack overflows.
        ULONG guarantee = 64 * 1024;
        ::SetThreadStackGuarantee(&guarantee);
    }
    if (comModel != 0 && !tComInitialized) {
        const HRESULT result = ::CoInitializeEx(
            nullptr, comModel == 1 ? COINIT_APARTMENTTHREADED : COINIT_MULTITHREADED);
        if (FAILED(result)) {
            TESSERA_LOG(Service::DefaultLogger(), Service::Logger::LOG_WARNING,
                        "Failed to initialize COM runtime, error: %1", static_cast<long>(result));
        } else {
            tComInitialized = true;
        }
    }
}

void TearDownThread(bool, int) {
    if (tComInitialized) {
        ::CoUninitialize();
        tComInitialized = false;
    }
}

} // namespace Platform
} // namespace System
} // namespace Tessera
