// The Windows platform services, seen through the public interface.

#include <tessera/assert.h>
#include <tessera/exception.h>
#include <tessera/system/system.h>
#include <tessera/system/thread.h>

#include <windows.h>

#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

using namespace Tessera;

namespace {

// The system's text for `code` through the wide API, converted by the test
// itself: an independent path to what the library must return.
std::string WideSystemText(DWORD code) {
    wchar_t wide[2048];
    const DWORD length = FormatMessageW(
        FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_MAX_WIDTH_MASK,
        nullptr, code, MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), wide, 2048, nullptr);
    if (length == 0) return std::string();
    char utf8[4096];
    const int n = WideCharToMultiByte(CP_UTF8, 0, wide, static_cast<int>(length), utf8,
                                      sizeof(utf8), nullptr, nullptr);
    return std::string(utf8, n > 0 ? static_cast<std::size_t>(n) : 0u);
}

std::string FirstLine(const std::string& text) { return text.substr(0, text.find('\n')); }

} // namespace

TEST(Win32ErrorText, IsTheSystemsText) {
    const DWORD codes[] = {ERROR_FILE_NOT_FOUND, ERROR_ACCESS_DENIED, ERROR_INVALID_HANDLE,
                           ERROR_NOT_ENOUGH_MEMORY};
    for (DWORD code : codes) {
        const std::string expected = WideSystemText(code);
        ASSERT_FALSE(expected.empty()) << code;
        EXPECT_EQ(SystemException::GetSystemMessage(static_cast<int>(code)), expected) << code;
    }
    // A code in the customer range: no system text.
    EXPECT_EQ(SystemException::GetSystemMessage(0x2000abcd),
              "Unknown error 536914893 (0x2000abcd)\n");
}

TEST(Win32ErrorText, LastErrorIsGetLastError) {
    SetLastError(ERROR_SHARING_VIOLATION);
    const SystemErrorCode code;
    EXPECT_EQ(code.Value(), ERROR_SHARING_VIOLATION);
    SetLastError(ERROR_SUCCESS);
    EXPECT_EQ(SystemErrorCode().Value(), 0);
}

namespace {

// Keeps the call before it from becoming a tail call, which would take the
// caller's frame off the stack before the capture runs.
#define KEEP_FRAME() __asm__ __volatile__("" ::: "memory")

// Two captures from one frame, through functions the optimizer cannot see
// through.
__declspec(noinline) void CaptureBoth(System::Stacktrace* quick, System::Stacktrace* full) {
    quick->Capture();
    full->CaptureFull();
    KEEP_FRAME();
}
void (*volatile sCaptureBoth)(System::Stacktrace*, System::Stacktrace*) = &CaptureBoth;

__declspec(noinline) void CaptureOuter(System::Stacktrace* quick, System::Stacktrace* full) {
    sCaptureBoth(quick, full);
    KEEP_FRAME();
}
void (*volatile sCaptureOuter)(System::Stacktrace*, System::Stacktrace*) = &CaptureOuter;

} // namespace

TEST(Win32Capture, StackWalkerAndFastUnwinderAgree) {
    System::Stacktrace quick, full;
    sCaptureOuter(&quick, &full);
    ASSERT_GE(quick.GetNumStackFrames(), 4);
    ASSERT_GE(full.GetNumStackFrames(), 4);
    // Frame 0 is in CaptureBoth at two different calls; above it the stack is
    // the same, so the unwinders must agree frame for frame.
    EXPECT_NE(quick.GetStackFrame(0), full.GetStackFrame(0));
    for (int i = 1; i < 4; ++i) {
        EXPECT_EQ(quick.GetStackFrame(i), full.GetStackFrame(i)) << "frame " << i;
    }
    // Both start inside CaptureBoth, just after the call to the library.
    const auto begin = reinterpret_cast<std::uintptr_t>(&CaptureBoth);
    for (const System::Stacktrace* t : {&quick, &full}) {
        const auto at = reinterpret_cast<std::uintptr_t>(t->GetStackFrame(0));
        EXPECT_GT(at, begin);
        EXPECT_LT(at, begin + 256);
    }
    // Neither carries null or a frame past the end of the stack.
    for (int i = 0; i < quick.GetNumStackFrames(); ++i) EXPECT_NE(quick.GetStackFrame(i), nullptr);
    for (int i = 0; i < full.GetNumStackFrames(); ++i) EXPECT_NE(full.GetStackFrame(i), nullptr);
}

TEST(Win32Describe, QuickTraceGivesModuleAndOffset) {
    Ref<System::Backtrace> quick;
    System::GetSystemFactory()->CreateQuickBacktrace(quick);
    ASSERT_FALSE(quick.IsNull());
    ASSERT_GE(quick->GetStacktrace().GetNumStackFrames(), 1);
    // Frame 0 is in this test, so in this program's image.
    void* address = quick->GetStacktrace().GetStackFrame(0);
    const auto base = reinterpret_cast<std::uintptr_t>(GetModuleHandleW(nullptr));
    char expected[128];
    std::snprintf(expected, sizeof(expected),
                  "#0 0x%016" PRIxPTR " in tessera_tests.exe+0x%" PRIxPTR,
                  reinterpret_cast<std::uintptr_t>(address),
                  reinterpret_cast<std::uintptr_t>(address) - base);
    EXPECT_EQ(FirstLine(quick->ToString()), expected);
}

namespace {
__declspec(noinline) void ThrowFromANamedWindowsFunction() { throw TimeoutException("t"); }
void (*volatile sThrow)() = &ThrowFromANamedWindowsFunction;
} // namespace

TEST(Win32Describe, FullTraceNamesFunctionsAndLines) {
#ifndef TESSERA_TEST_DEBUG_INFO
    GTEST_SKIP() << "built without debug information: nothing to name frames with";
#endif
    try {
        sThrow();
        FAIL() << "did not throw";
    } catch (const Exception& e) {
        const std::string where = e.Where();
        EXPECT_NE(where.find(" in ThrowFromANamedWindowsFunction at "), std::string::npos) << where;
        EXPECT_NE(where.find("platformTest.cpp:"), std::string::npos) << where;
    }
}

TEST(Win32Describe, ManyThreadsNameFramesAtOnce) {
    // The debug-help library is single-threaded: the library must serialise.
    std::vector<std::thread> threads;
    std::vector<int> named(4, 0);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t, &named] {
            for (int i = 0; i < 20; ++i) {
                Ref<System::Backtrace> trace;
                System::GetSystemFactory()->CreateBacktrace(trace);
                if (trace->ToString().find("#0 0x") == 0) ++named[t];
            }
        });
    }
    for (std::thread& t : threads) t.join();
    for (int t = 0; t < 4; ++t) EXPECT_EQ(named[t], 20) << "thread " << t;
}

TEST(Win32PanicDeathTest, EndsWithExitCodeThreeAfterTheReport) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(PanicExit("no dialog, no atexit"), testing::ExitedWithCode(3),
                "PANIC: no dialog, no atexit\nBacktrace:\n#0 0x");
}

TEST(Win32PanicDeathTest, RunsNoAtexitHandlers) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // An atexit handler that prints would show up in the captured output.
    EXPECT_EXIT(
        {
            std::atexit([] {
                const char text[] = "atexit ran\n";
                DWORD written = 0;
                WriteFile(GetStdHandle(STD_ERROR_HANDLE), text, sizeof(text) - 1, &written,
                          nullptr);
                ExitProcess(0);
            });
            TESSERA_ASSERT(sizeof(int) == 1);
        },
        testing::ExitedWithCode(3), "PANIC: Assertion \"sizeof\\(int\\) == 1\" failed");
}

// A thread that nobody joins gives its handle back with its last reference.
TEST(Win32Thread, UnjoinedThreadsLeaveNoHandles) {
    Ref<System::ThreadControl> control;
    System::GetThreadControl(control);
    auto startAndDrop = [&](int count) {
        for (int i = 0; i < count; ++i) {
            Ref<System::Thread> thread;
            control->StartThread([] {}, 0, thread);
            while (thread->IsRunning()) std::this_thread::yield();
        }
    };
    startAndDrop(10); // the first threads' one-time costs
    DWORD before = 0, after = 0;
    ASSERT_TRUE(GetProcessHandleCount(GetCurrentProcess(), &before));
    startAndDrop(200);
    ASSERT_TRUE(GetProcessHandleCount(GetCurrentProcess(), &after));
    EXPECT_LT(after, before + 20) << "handles before " << before << ", after " << after;
}
