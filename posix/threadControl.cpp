// POSIX threads and the fault signal handlers.

#include "system/platform/diagnostics.h"
#include "system/platform/faultInfo.h"
#include "system/platform/thread.h"

#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <ucontext.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace Tessera {
namespace System {
namespace Platform {

class NativeThread {
public:
    pthread_t handle;
};

NativeError StartNativeThread(void (*entry)(void*), void* argument, std::size_t stackSize, bool,
                              NativeThread*& thread) noexcept {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    if (stackSize != 0) {
        const std::size_t minimum = static_cast<std::size_t>(PTHREAD_STACK_MIN);
        pthread_attr_setstacksize(&attributes, stackSize < minimum ? minimum : stackSize);
    }
    auto* made = new (std::nothrow) NativeThread;
    if (made == nullptr) return ENOMEM;
    using Start = void* (*)(void*);
    const int error =
        pthread_create(&made->handle, &attributes,
                       reinterpret_cast<Start>(reinterpret_cast<void*>(entry)), argument);
    pthread_attr_destroy(&attributes);
    if (error != 0) {
        delete made;
        return error;
    }
    thread = made;
    return kSuccess;
}

void JoinNativeThread(NativeThread* thread) noexcept {
    pthread_join(thread->handle, nullptr);
    delete thread;
}

void ReleaseNativeThread(NativeThread* thread) noexcept {
    pthread_detach(thread->handle);
    delete thread;
}

namespace {

FaultSettings sSettings{nullptr, nullptr};
constexpr int kFaultSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL};

// Each thread's alternate signal stack, so that a stack overflow can be
// reported from a stack that still has room.
constexpr std::size_t kAltStackSize = 64 * 1024;
thread_local void* tAltStack = nullptr;
thread_local std::uintptr_t tStackLow = 0, tStackHigh = 0;

void RememberStackBounds() {
    pthread_attr_t attributes;
    if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
        void* base = nullptr;
        std::size_t size = 0;
        if (pthread_attr_getstack(&attributes, &base, &size) == 0) {
            tStackLow = reinterpret_cast<std::uintptr_t>(base);
            tStackHigh = tStackLow + size;
        }
        pthread_attr_destroy(&attributes);
    }
}

std::uint32_t CodeOf(int signal, const siginfo_t* info, std::uintptr_t address) {
    switch (signal) {
    case SIGSEGV: {
        // A fault just below the thread's stack is the stack running out.
        const std::uintptr_t guard = 64 * 1024;
        if (tStackLow != 0 && address < tStackLow && address + guard >= tStackLow) {
            return Fault::STACK_OVERFLOW;
        }
        return Fault::ACCESS_VIOLATION;
    }
    case SIGBUS: return Fault::PAGE_ERROR;
    case SIGFPE:
        if (info->si_code == FPE_INTDIV) return Fault::INTEGER_DIVIDE_BY_ZERO;
        if (info->si_code == FPE_INTOVF) return Fault::INTEGER_OVERFLOW;
        return 0xC0000090u; // a floating-point fault: not one we name
    default: return 0xC000001Du; // an illegal instruction: not one we name
    }
}

void FillRegisters(Fault::Info& info, const void* context) {
#if defined(__x86_64__)
    const auto* uc = static_cast<const ucontext_t*>(context);
    const greg_t* r = uc->uc_mcontext.gregs;
    const auto reg = [&](int i) { return static_cast<std::uint64_t>(r[i]); };
    info.hasControlRegisters = true;
    info.rip = reg(REG_RIP);
    info.rsp = reg(REG_RSP);
    info.rbp = reg(REG_RBP);
    info.hasIntegerRegisters = true;
    info.rax = reg(REG_RAX);
    info.rbx = reg(REG_RBX);
    info.rcx = reg(REG_RCX);
    info.rdx = reg(REG_RDX);
    info.rdi = reg(REG_RDI);
    info.rsi = reg(REG_RSI);
    info.r8 = reg(REG_R8);
    info.r9 = reg(REG_R9);
    info.r10 = reg(REG_R10);
    info.r11 = reg(REG_R11);
    info.r12 = reg(REG_R12);
    info.r13 = reg(REG_R13);
    info.r14 = reg(REG_R14);
    info.r15 = reg(REG_R15);
    // The page-fault error code: bit 1 a write, bit 4 an instruction fetch.
    const std::uint64_t error = reg(REG_ERR);
    info.accessKind = (error & 0x10) ? 8 : (error & 0x2) ? 1 : 0;
#else
    (void)info;
    (void)context;
#endif
}

void OnFault(int signal, siginfo_t* siginfo, void* context) {
    const auto address = reinterpret_cast<std::uintptr_t>(siginfo->si_addr);
    Fault::Info info;
    info.code = CodeOf(signal, siginfo, address);
    if (signal == SIGSEGV || signal == SIGBUS) {
        info.hasAccess = true;
        info.address = address;
    }
    FillRegisters(info, context);
    info.resumable = false; // returning would only fault again
    switch (sSettings.onFault(info)) {
    case FaultAction::Continue:
    case FaultAction::SystemDefault: {
        struct sigaction dfl;
        memset(&dfl, 0, sizeof(dfl));
        dfl.sa_handler = SIG_DFL;
        sigaction(signal, &dfl, nullptr);
        raise(signal);
        return;
    }
    case FaultAction::DebugBreak: raise(SIGTRAP); _exit(3);
    }
}

} // namespace

void InstallFaultHandlers(const FaultSettings& settings) noexcept {
    sSettings = settings;
    struct sigaction action;
    memset(&action, 0, sizeof(action));
    action.sa_sigaction = &OnFault;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigemptyset(&action.sa_mask);
    for (int signal : kFaultSignals) sigaction(signal, &action, nullptr);
}

NativeError SetUpThread(bool faultHandling, ThreadControl::COMModel) noexcept {
    if (!faultHandling || tAltStack != nullptr) return kSuccess;
    RememberStackBounds();
    void* stack =
        mmap(nullptr, kAltStackSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (stack == MAP_FAILED) return kSuccess; // faults are still reported, overflows not
    stack_t alt;
    alt.ss_sp = stack;
    alt.ss_size = kAltStackSize;
    alt.ss_flags = 0;
    if (sigaltstack(&alt, nullptr) != 0) {
        munmap(stack, kAltStackSize);
        return kSuccess;
    }
    tAltStack = stack;
    return kSuccess;
}

void TearDownThread(bool, ThreadControl::COMModel) noexcept {
    if (tAltStack == nullptr) return;
    stack_t alt;
    memset(&alt, 0, sizeof(alt));
    alt.ss_flags = SS_DISABLE;
    sigaltstack(&alt, nullptr);
    munmap(tAltStack, kAltStackSize);
    tAltStack = nullptr;
}

} // namespace Platform
} // namespace System
} // namespace Tessera
