#include <tessera/config.h>
#include <tessera/exception.h>
#include <tessera/logger.h>
#include <tessera/system/runtime.h>
#include <tessera/system/thread.h>
#include <tessera/writer.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <thread>

using namespace Tessera;
using namespace Tessera::System;

namespace {

Ref<ThreadControl> Control() {
    Ref<ThreadControl> control;
    GetThreadControl(control);
    return control;
}

// Uses about `bytes` of stack, in frames the optimizer cannot remove.
int UseStack(std::size_t bytes) {
    volatile char frame[64 * 1024];
    std::memset(const_cast<char*>(frame), 1, sizeof(frame));
    if (bytes <= sizeof(frame)) return frame[0];
    return frame[100] + UseStack(bytes - sizeof(frame));
}

} // namespace

TEST(ThreadControl, StartsJoinsAndWaitsForThreads) {
    Ref<ThreadControl> control = Control();
    EXPECT_FALSE(ThisThreadExists());
    Ref<Thread> none;
    EXPECT_THROW(GetThisThread(none), NotFoundException);

    std::atomic<bool> release{false};
    std::atomic<int> ran{0};
    Ref<Thread> self, seenInside;
    bool existsInside = false;
    std::uint64_t idInside = 0;
    // A stack far beyond every platform's default, used for real.
    control->StartThread(
        [&] {
            existsInside = ThisThreadExists();
            GetThisThread(seenInside);
            idInside = GetThreadId();
            UseStack(12u << 20);
            ++ran;
        },
        32u << 20, self);
    control->JoinThread(self.Get());
    EXPECT_EQ(ran.load(), 1);
    EXPECT_TRUE(existsInside);
    EXPECT_EQ(seenInside.Get(), self.Get());
    EXPECT_EQ(self->GetId(), idInside);
    EXPECT_NE(idInside, GetThreadId());
    EXPECT_FALSE(self->IsRunning());

    // The one that is let go first is the one found.
    Ref<Thread> slow1, fast, slow2;
    control->StartThread(
        [&] {
            while (!release) std::this_thread::yield();
        },
        0, slow1);
    control->StartThread([&] { ++ran; }, 0, fast);
    control->StartThread(
        [&] {
            while (!release) std::this_thread::yield();
        },
        0, slow2);
    EXPECT_EQ(control->WaitForAnyThread({slow1.Get(), fast.Get(), slow2.Get()}), 1);
    EXPECT_TRUE(slow1->IsRunning());
    release = true;
    for (Thread* t : {slow1.Get(), fast.Get(), slow2.Get()}) control->JoinThread(t);
    EXPECT_EQ(ran.load(), 2);
}

TEST(ThreadControlDeathTest, SettingsAreReadOnceWithWarningsForUnknownWords) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            Ref<StringWriter> log;
            CreateStringWriter(log);
            Service::LogManager::AddWriter("capture", Ref<Writer>(log.Get()),
                                           Service::Logger::MASK_TRIVIA);
            Xml::Node root("config");
            root.AddChild("SETermination").SetText("bogus");
            root.AddChild("initializeCOM").SetText("MTA-ish");
            root.AddChild("windowsStackImmediateCommit").SetText("false");
            Ref<Service::Config> config(new Service::Config(root));
            Service::Config::View view = config->GetView();
            Init(&view);
            Ref<ThreadControl> control = Control();
            const bool ok = control->GetSETermination() == ThreadControl::PanicExitTermination &&
                            control->GetCOMModel() == ThreadControl::NoCOM &&
                            !control->GetStackImmediateCommit() && control->UseSETranslator() &&
                            !control->PanicUnknownSE();
            Init(&view); // too late: changes nothing, logs nothing
            std::fputs(log->GetString().c_str(), stderr);
            std::exit(ok ? 0 : 1);
        },
        testing::ExitedWithCode(0),
        "warning 'default'\\] Unrecognized SE termination value 'bogus' specified\n"
        ".*warning 'default'\\] Unrecognized COM initialization value 'MTA-ish' "
        "specified\n.*info 'default'\\] ThreadPool windowsStackImmediateCommit = false\n$");

    EXPECT_EXIT(
        {
            Xml::Node root("config");
            root.AddChild("UseSETranslator").SetText("maybe");
            Ref<Service::Config> config(new Service::Config(root));
            Service::Config::View view = config->GetView();
            try {
                Init(&view);
            } catch (const InvalidArgumentException& e) {
                std::fputs(e.what(), stderr);
                std::exit(0);
            }
            std::exit(1);
        },
        testing::ExitedWithCode(0), "'maybe'.*'/UseSETranslator'");
}

TEST(ThreadControlDeathTest, FaultsAndEscapesEndTheProcessWithAReport) {
    EXPECT_DEATH(
        {
            Ref<Thread> t;
            Control()->StartThread([] { throw TimeoutException("nobody caught me"); }, 0, t);
            Control()->JoinThread(t.Get());
        },
        "PANIC: Unhandled exception on a library thread: .*TimeoutException.*\\(nobody caught "
        "me\\)");
    EXPECT_DEATH(
        {
            Ref<Thread> t;
            Control()->StartThread(
                [] {
                    int* volatile bad = reinterpret_cast<int*>(16); // opaque to the optimizer
                    *bad = 1;
                },
                0, t);
            Control()->JoinThread(t.Get());
        },
        "Win32 exception: Access Violation \\(0xc0000005\\)\n   Write \\(1\\) at address "
        "0000000000000010\n   rip: \\w+ rsp: \\w+ rbp: \\w+\n   rax: \\w+ ");
}
