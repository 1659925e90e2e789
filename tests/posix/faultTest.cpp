// Fault signals reported as the library's fault report.

#include <tessera/config.h>
#include <tessera/system/thread.h>

#include <gtest/gtest.h>

#include <csignal>

using namespace Tessera;
using namespace Tessera::System;

namespace {

volatile int sLimit = 1 << 30; // never reached: the stack runs out first

int Recurse(int depth) {
    volatile char frame[4096];
    frame[0] = static_cast<char>(depth);
    if (depth > sLimit) return 0;
    return Recurse(depth + 1) + frame[0];
}

void FaultOnALibraryThread(void (*body)()) {
    Ref<ThreadControl> control;
    GetThreadControl(control);
    Ref<Thread> t;
    control->StartThread(body, 1 << 20, t);
    control->JoinThread(t.Get());
}

} // namespace

TEST(FaultDeathTest, StackOverflowIsToldApart) {
    EXPECT_DEATH(FaultOnALibraryThread([] { Recurse(0); }),
                 "Win32 exception: Stack overflow \\(0xc00000fd\\)\n   rip: .*PANIC: fatal "
                 "fault\nBacktrace:\n#0 \\w+\n");
}

TEST(FaultDeathTest, UnhandledExceptionFilterMeansTheDefaultAction) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            Xml::Node root("config");
            root.AddChild("SETermination").SetText("UnhandledExceptionFilter");
            Ref<Service::Config> config(new Service::Config(root));
            Service::Config::View view = config->GetView();
            Init(&view);
            FaultOnALibraryThread([] {
                int* volatile bad = reinterpret_cast<int*>(8); // opaque to the optimizer
                *bad = 0;
            });
        },
        testing::KilledBySignal(SIGSEGV), "Win32 exception: Access Violation");
}
