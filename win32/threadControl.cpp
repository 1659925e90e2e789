// Windows threads, COM apartments and the fatal-exception filter.
//
// The structured exceptions that end a process (access violations, stack
// overflow, ...) are caught by the unhandled-exception filter, so that
// exceptions some frame handles (C++ exceptions among them) never reach it.
// The runtime's pure-call and invalid-parameter handlers end the process
// through the panic path.

#include "system/platform/thread.h"
#include "win32/support.h"
#include <objbase.h>
#include <process.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <new>

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

FaultSettings sSettings{nullptr, nullptr};

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
    switch (sSettings.onFault(info)) {
    case FaultAction::Continue:
    case FaultAction::SystemDefault:
        return EXCEPTION_CONTINUE_SEARCH;
    case FaultAction::DebugBreak:
        ::DebugBreak();
        return EXCEPTION_CONTINUE_SEARCH;
    }
    return EXCEPTION_CONTINUE_SEARCH;
}

void __cdecl OnPureCall() { sSettings.onFatal("Pure virtual function called"); }

void __cdecl OnInvalidParameter(const wchar_t* expression, const wchar_t* function,
                                const wchar_t* file, unsigned int line, uintptr_t) {
    char text[1024];
    std::snprintf(text, sizeof(text), "expression=%ls, function=%ls, file=%ls, line=%d",
                  expression != nullptr ? expression : L"", function != nullptr ? function : L"",
                  file != nullptr ? file : L"", static_cast<int>(line));
    sSettings.onFatal(text);
}

thread_local bool tComInitialized = false;

} // namespace

NativeError StartNativeThread(void (*entry)(void*), void* argument, std::size_t stackSize,
                              bool commitStack, NativeThread*& thread) noexcept {
    auto* trampoline = new (std::nothrow) Trampoline{entry, argument};
    auto* made = new (std::nothrow) NativeThread{nullptr};
    if (trampoline == nullptr || made == nullptr) {
        delete trampoline;
        delete made;
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    const unsigned flags = commitStack ? 0u : static_cast<unsigned>(STACK_SIZE_PARAM_IS_A_RESERVATION);
    const uintptr_t handle = ::_beginthreadex(nullptr, static_cast<unsigned>(stackSize),
                                              &RunTrampoline, trampoline, flags, nullptr);
    if (handle == 0) {
        const NativeError error = LastError();
        delete trampoline;
        delete made;
        return error;
    }
    made->handle = reinterpret_cast<HANDLE>(handle);
    thread = made;
    return kSuccess;
}

void JoinNativeThread(NativeThread* thread) noexcept {
    ::WaitForSingleObject(thread->handle, INFINITE);
    ::CloseHandle(thread->handle);
    delete thread;
}

void ReleaseNativeThread(NativeThread* thread) noexcept {
    ::CloseHandle(thread->handle);
    delete thread;
}

void InstallFaultHandlers(const FaultSettings& settings) noexcept {
    sSettings = settings;
    ::SetUnhandledExceptionFilter(&OnUnhandledException);
    ::_set_purecall_handler(&OnPureCall);
    ::_set_invalid_parameter_handler(&OnInvalidParameter);
}

NativeError SetUpThread(bool faultHandling, ThreadControl::COMModel com) noexcept {
    if (faultHandling) {
        // Room on the stack for the report when the stack overflows.
        ULONG guarantee = 64 * 1024;
        ::SetThreadStackGuarantee(&guarantee);
    }
    if (com != ThreadControl::NoCOM && !tComInitialized) {
        const HRESULT result = ::CoInitializeEx(
            nullptr, com == ThreadControl::SingleThreadedApartment ? COINIT_APARTMENTTHREADED
                                                                   : COINIT_MULTITHREADED);
        if (FAILED(result)) return static_cast<NativeError>(result);
        tComInitialized = true;
    }
    return kSuccess;
}

void TearDownThread(bool, ThreadControl::COMModel) noexcept {
    if (tComInitialized) {
        ::CoUninitialize();
        tComInitialized = false;
    }
}

} // namespace Platform
} // namespace System
} // namespace Tessera
