// Child processes through the factory, on every platform. The child is the
// small program of tests/child, which each case runs in one of its modes.

#include <tessera/exception.h>
#include <tessera/logger.h>
#include <tessera/system/sysCommand.h>
#include <tessera/system/system.h>
#include <tessera/system/threadPool.h>
#include <tessera/writer.h>

#include "tests/scratchDir.h"
#include "tests/testSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using namespace Tessera;
using namespace Tessera::System;

namespace {

SysCommandSpec ChildSpec(std::vector<std::string> args) {
    SysCommandSpec spec;
    spec.command = TESSERA_TEST_CHILD;
    spec.args = std::move(args);
    return spec;
}

Ref<SysCommand> Command(std::vector<std::string> args) {
    Ref<SysCommand> cmd;
    GetSystemFactory()->CreateSysCommand(ChildSpec(std::move(args)), cmd);
    return cmd;
}

// Runs the child to its end and gives its exit code.
int RunChild(std::vector<std::string> args, std::string* out = nullptr) {
    Ref<SysCommand> cmd = Command(std::move(args));
    cmd->Invoke();
    cmd->WaitForExit(60);
    if (out != nullptr) {
        *out = cmd->ReadAll(SC_STDOUT);
    }
    return cmd->GetExitCode();
}

template <class E, class F>
std::string MessageOf(F f) {
    try {
        f();
    } catch (const E& e) {
        return e.what();
    }
    return "(nothing thrown)";
}

std::uintmax_t SizeOf(const std::filesystem::path& file) {
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(file, error);
    return error ? 0 : size;
}

// Waits until the file has grown past `size`; false after 60 s.
bool GrowsPast(const std::filesystem::path& file, std::uintmax_t size) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (SizeOf(file) <= size) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return true;
}

// Whether the file stays the same size for 600 ms (after 300 ms for a write
// under way to land).
bool StaysStill(const std::filesystem::path& file) {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const std::uintmax_t before = SizeOf(file);
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
    return SizeOf(file) == before;
}

class SysCommandTest : public ScratchDirTest {
protected:
    void SetUp() override {
        ScratchDirTest::SetUp();
        std::filesystem::create_directories(_dir);
    }
};

// ---- Exit codes, the environment and the working directory ----

TEST(SysCommand, ExitCodesAndArguments) {
    EXPECT_EQ(0, RunChild({"exit", "0"}));
    EXPECT_EQ(255, RunChild({"exit", "255"}));

    // Arguments arrive as they were given, blanks, quotes and backslashes
    // included.
    std::string out;
    EXPECT_EQ(0,
              RunChild({"args", "a b", "", "q\"uote", "back\\slash\\", "\\\"x\\\\\"", "*", "$HOME"},
                       &out));
    EXPECT_EQ("[a b]\n[]\n[q\"uote]\n[back\\slash\\]\n[\\\"x\\\\\"]\n[*]\n[$HOME]\n", out);

    // One object runs again once waited for, under a new serial number.
    Ref<SysCommand> cmd = Command({"exit", "3"});
    EXPECT_EQ(0u, cmd->GetSerialNumber());
    cmd->Invoke();
    EXPECT_EQ(SysCommand::SC_INVK_CALLED, cmd->GetInvokeState());
    cmd->WaitForExit(60);
    EXPECT_EQ(SysCommand::SC_NOT_RUNNING, cmd->GetProcessState());
    EXPECT_EQ(SysCommand::SC_INVK_NONE, cmd->GetInvokeState());
    EXPECT_EQ(3, cmd->GetExitCode());
    cmd->Invoke();
    EXPECT_EQ(2u, cmd->GetSerialNumber());
    cmd->WaitForExit(60);
    EXPECT_EQ(3, cmd->GetExitCode());
}

TEST_F(SysCommandTest, EnvironmentAndWorkingDirectoryApplyExactly) {
    SysCommandSpec spec = ChildSpec({"env"});
    spec.environment = std::vector<std::string>{"TESSERA_ONLY=yes"};
    Ref<SysCommand> cmd;
    GetSystemFactory()->CreateSysCommand(spec, cmd);
    cmd->Invoke();
    cmd->WaitForExit(60);
    std::string env = cmd->ReadAll(SC_STDOUT);
    EXPECT_NE(std::string::npos, env.find("TESSERA_ONLY=yes\n")) << env;
    EXPECT_EQ(std::string::npos, env.find("PATH=")) << env;

    spec.environment = std::vector<std::string>{};
    cmd->SetSpec(spec);
    cmd->Invoke();
    cmd->WaitForExit(60);
    env = cmd->ReadAll(SC_STDOUT);
    EXPECT_EQ(std::string::npos, env.find("TESSERA_ONLY")) << env;
    EXPECT_EQ(std::string::npos, env.find("PATH=")) << env;

    spec.environment.reset(); // the parent's
    cmd->SetSpec(spec);
    cmd->Invoke();
    cmd->WaitForExit(60);
    env = cmd->ReadAll(SC_STDOUT);
    EXPECT_TRUE(env.find("PATH=") != std::string::npos || env.find("Path=") != std::string::npos)
        << env;

    spec = ChildSpec({"cwd"});
    spec.workingDirectory = _dir.string();
    cmd->SetSpec(spec);
    cmd->Invoke();
    cmd->WaitForExit(60);
    const std::string cwd = cmd->ReadAll(SC_STDOUT);
    EXPECT_TRUE(std::filesystem::equivalent(_dir, cwd)) << cwd;
}

// ---- Time-outs and kills ----

TEST(SysCommand, TimeoutLeavesTheChildToKill) {
    Ref<SysCommand> cmd = Command({"sleep", "30000"});
    cmd->Invoke();
    EXPECT_EQ("Timeout occured after 1 seconds",
              MessageOf<TimeoutException>([&] { cmd->WaitForExit(1); }));
    EXPECT_EQ(SysCommand::SC_RUNNING, cmd->GetProcessState());
    EXPECT_EQ("Sequence Error  - Invoke() in process or WaitForExit() not called yet",
              MessageOf<InvalidStateException>([&] { cmd->Invoke(); }));
    EXPECT_EQ("Invoke() was not called or did not complete",
              MessageOf<InvalidStateException>([&] { cmd->GetExitCode(); }));
    cmd->Kill(42);
    cmd->WaitForExit(60);
    EXPECT_EQ(42, cmd->GetExitCode());
    EXPECT_EQ("No child process to kill", MessageOf<InvalidStateException>([&] { cmd->Kill(1); }));
}

TEST(SysCommand, AWaitOfNoTimeSeesAChildThatHasEnded) {
    Ref<SysCommand> cmd = Command({"exit", "3"});
    cmd->Invoke();
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    bool ended = false;
    while (!ended && std::chrono::steady_clock::now() < end) {
        try {
            cmd->WaitForExit(0);
            ended = true;
        } catch (const TimeoutException&) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }
    ASSERT_TRUE(ended);
    EXPECT_EQ(3, cmd->GetExitCode());
}

TEST(SysCommand, KillAfterTheChildEndedReportsTheKillsCode) {
    Ref<StringWriter> log;
    CreateStringWriter(log);
    Service::LogManager::AddWriter("sysCommandTest", log, Service::Logger::MASK_WARNING);
    Ref<SysCommand> cmd = Command({"exit", "3"});
    cmd->Invoke();
    // The child ends with 3 before the kill, and nobody has waited for it
    // yet.
    ASSERT_TRUE(TestSupport::WaitUntilEnded(cmd->GetProcessId()));
    cmd->Kill(9);
    cmd->WaitForExit(60);
    Service::LogManager::RemoveWriter("sysCommandTest");
    EXPECT_EQ(9, cmd->GetExitCode());
    EXPECT_NE(std::string::npos,
              log->GetString().find(
                  "Kill was issued, exit code should be 9, ignoring exit code returned: 3"))
        << log->GetString();
}

TEST_F(SysCommandTest, KillTreeReachesGrandchildrenKillAloneDoesNot) {
    const std::filesystem::path touched = _dir / "tree";
    Ref<SysCommand> cmd = Command({"tree", touched.string()});
    cmd->Invoke();
    ASSERT_TRUE(GrowsPast(touched, 2));
    cmd->KillTree(5);
    cmd->WaitForExit(60);
    EXPECT_EQ(5, cmd->GetExitCode());
    EXPECT_TRUE(StaysStill(touched));

    const std::filesystem::path alone = _dir / "alone";
    cmd->SetSpec(ChildSpec({"tree", alone.string()}));
    cmd->Invoke();
    ASSERT_TRUE(GrowsPast(alone, 2));
    cmd->Kill(6);
    cmd->WaitForExit(60);
    EXPECT_EQ(6, cmd->GetExitCode());
    // The grandchild goes on after its parent's end, until the tree is
    // killed.
    const std::uintmax_t size = SizeOf(alone);
    EXPECT_TRUE(GrowsPast(alone, size + 2));
    cmd->KillTree(0);
    EXPECT_TRUE(StaysStill(alone));
    EXPECT_EQ(6, cmd->GetExitCode());
}

TEST_F(SysCommandTest, KillOnOwnerExitEndsTheTreeWithTheObject) {
    const std::filesystem::path touched = _dir / "owned";
    SysCommandSpec spec = ChildSpec({"tree", touched.string()});
    spec.killTreeOnOwnerExit = true;
    Ref<SysCommand> cmd;
    GetSystemFactory()->CreateSysCommand(spec, cmd);
    cmd->Invoke();
    ASSERT_TRUE(GrowsPast(touched, 2));
    cmd = nullptr;
    EXPECT_TRUE(StaysStill(touched));
}

// ---- Streams ----

TEST(SysCommand, TenMegabytesOnBothStreamsNeverDeadlock) {
    const std::size_t size = 10 * 1024 * 1024;
    // Read standard output to its end first, then standard error.
    Ref<SysCommand> cmd = Command({"spew", std::to_string(size)});
    cmd->Invoke();
    std::string out = cmd->ReadAll(SC_STDOUT);
    std::string err = cmd->ReadAll(SC_STDERR);
    cmd->WaitForExit(60);
    EXPECT_EQ(0, cmd->GetExitCode());
    EXPECT_EQ(size, out.size());
    EXPECT_EQ(size, err.size());
    EXPECT_EQ(std::string::npos, out.find_first_not_of('o'));
    EXPECT_EQ(std::string::npos, err.find_first_not_of('e'));

    // Wait first, read after the end.
    cmd->Invoke();
    cmd->WaitForExit(60);
    EXPECT_EQ(0, cmd->GetExitCode());
    EXPECT_EQ(size, cmd->ReadAll(SC_STDERR).size());
    EXPECT_EQ(size, cmd->ReadAll(SC_STDOUT).size());
}

TEST(SysCommand, StdinWrittenAndClosed) {
    Ref<SysCommand> cmd = Command({"echo"});
    cmd->Invoke();
    std::string data;
    for (int i = 0; data.size() < 16000; ++i) {
        data += "line " + std::to_string(i) + "\n";
    }
    cmd->WriteStdin(data.data(), data.size());
    cmd->CloseStdin();
    EXPECT_EQ(data, cmd->ReadAll(SC_STDOUT));
    EXPECT_EQ(std::to_string(data.size()) + " bytes", cmd->ReadAll(SC_STDERR));
    cmd->WaitForExit(60);
    EXPECT_EQ(0, cmd->GetExitCode());
    EXPECT_EQ("Stdin does not exist.Invoke() must be called before writing to stdin",
              MessageOf<InvalidStateException>([&] { cmd->WriteStdin("x", 1); }));
}

TEST(SysCommand, MergedErrorGoesToOutput) {
    SysCommandSpec spec = ChildSpec({"spew", "100"});
    spec.separateStderr = false;
    Ref<SysCommand> cmd;
    GetSystemFactory()->CreateSysCommand(spec, cmd);
    cmd->Invoke();
    EXPECT_EQ(200u, cmd->ReadAll(SC_STDOUT).size());
    EXPECT_EQ("", cmd->ReadAll(SC_STDERR));
    cmd->WaitForExit(60);
}

TEST(SysCommand, TextsThatAreNotUtf8AreInvalidArguments) {
    // The command, an argument, an environment entry, the working directory.
    std::vector<SysCommandSpec> specs(4, ChildSpec({"exit", "0"}));
    specs[0].command = std::string(TESSERA_TEST_CHILD) + "\xFF";
    specs[1].args.push_back("\xC3");
    specs[2].environment = std::vector<std::string>{"A=\xED\xA0\x80"};
    specs[3].workingDirectory = "\x80";
    const char* const names[] = {"Command", "Argument", "Environment entry", "Working directory"};
    for (std::size_t i = 0; i < specs.size(); ++i) {
        Ref<SysCommand> cmd;
        GetSystemFactory()->CreateSysCommand(specs[i], cmd);
        const std::string text = MessageOf<InvalidArgumentException>([&] { cmd->Invoke(); });
        EXPECT_EQ(
            text.rfind(std::string("Invalid argument : ") + names[i] + " is not valid UTF-8: '", 0),
            0u)
            << text;
        // Nothing was started: there is no exit code to ask for.
        EXPECT_THROW(cmd->GetExitCode(), InvalidStateException);
    }
    Ref<SysCommand> good;
    GetSystemFactory()->CreateSysCommand(ChildSpec({"args", "\xC3\xBC"}), good);
    good->Invoke();
    good->WaitForExit(60);
    EXPECT_EQ(0, good->GetExitCode());
}

// ---- Misuse ----

TEST(SysCommand, MisuseTexts) {
    Ref<SysCommand> empty;
    GetSystemFactory()->CreateSysCommand(empty);
    EXPECT_EQ("Initialization Error - Resource issues during object construction",
              MessageOf<InvalidStateException>([&] { empty->Invoke(); }));
    EXPECT_EQ(
        "The specified stream does not exist.Invoke() must be called before reading from "
        "stdout/stderr",
        MessageOf<InvalidStateException>([&] {
            char c;
            empty->Read(SC_STDOUT, &c, 1);
        }));
    EXPECT_EQ("Stdin does not exist.Invoke() must be called before writing to stdin",
              MessageOf<InvalidStateException>([&] { empty->WriteStdin("x", 1); }));
    EXPECT_EQ("Invoke() was not called or did not complete",
              MessageOf<InvalidStateException>([&] { empty->GetExitCode(); }));
    EXPECT_EQ("Invalid state", MessageOf<InvalidStateException>([&] { empty->WaitForExit(1); }));
    EXPECT_EQ("Invalid argument : Invalid stream type argument: 0",
              MessageOf<InvalidArgumentException>([&] {
                  char c;
                  empty->Read(SC_STDIN, &c, 1);
              }));
    EXPECT_EQ("No child process to kill",
              MessageOf<InvalidStateException>([&] { empty->Kill(1); }));
    EXPECT_EQ("No child job to kill",
              MessageOf<InvalidStateException>([&] { empty->KillTree(1); }));
    EXPECT_EQ("Invalid argument : Empty command line '  '",
              MessageOf<InvalidArgumentException>([&] {
                  SysCommandSpec spec;
                  ParseRawCommand("  ", spec);
              }));
}

TEST(SysCommandDeathTest, NegativeReadSizeStops) {
    Ref<SysCommand> cmd = Command({"exit", "0"});
    char c;
    EXPECT_DEATH(cmd->Read(SC_STDOUT, &c, -1), "sizeRead >= 0");
}

// ---- Asynchronous invocations ----

// Records the completions of asynchronous invocations.
class Completions {
public:
    SysCommand::Callback Callback() {
        return [this](SysCommand* cmd, Exception* error) {
            std::lock_guard<std::mutex> hold(_lock);
            _errors.push_back(error != nullptr ? error->what() : "");
            _serials.push_back(cmd->GetSerialNumber());
            _changed.notify_all();
        };
    }
    // Waits for the `n`th completion (from 1) and gives its error text ("" for
    // none).
    std::string Wait(std::size_t n) {
        std::unique_lock<std::mutex> hold(_lock);
        if (!_changed.wait_for(hold, std::chrono::seconds(60),
                               [&] { return _errors.size() >= n; })) {
            return "(no completion)";
        }
        return _errors[n - 1];
    }
    std::size_t Count() {
        std::lock_guard<std::mutex> hold(_lock);
        return _errors.size();
    }
    std::uint64_t Serial(std::size_t n) {
        std::lock_guard<std::mutex> hold(_lock);
        return _serials.at(n - 1);
    }

private:
    std::mutex _lock;
    std::condition_variable _changed;
    std::vector<std::string> _errors;
    std::vector<std::uint64_t> _serials;
};

TEST(SysCommandAsync, CompletesWithTheExitCodeAndAllTheOutput) {
    const std::size_t size = 10 * 1024 * 1024;
    Completions done;
    Ref<SysCommand> cmd = Command({"spew", std::to_string(size)});
    cmd->AsyncInvoke(done.Callback(), 60);
    EXPECT_EQ(SysCommand::SC_INVK_ASYNC, cmd->GetInvokeState());
    EXPECT_EQ("Invalid state", MessageOf<InvalidStateException>([&] { cmd->WaitForExit(1); }));
    EXPECT_EQ("", done.Wait(1));
    EXPECT_EQ(0, cmd->GetExitCode());
    EXPECT_EQ(size, cmd->ReadAll(SC_STDERR).size());
    EXPECT_EQ(size, cmd->ReadAll(SC_STDOUT).size());

    // Killed while it runs: the kill's code.
    cmd->SetSpec(ChildSpec({"sleep", "30000"}));
    cmd->AsyncInvoke(done.Callback(), SYSCOMMAND_WAIT_INFINITE);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    cmd->KillTree(12);
    EXPECT_EQ("", done.Wait(2));
    EXPECT_EQ(12, cmd->GetExitCode());
    EXPECT_EQ(2u, done.Serial(2));
}

TEST(SysCommandAsync, TimeoutKillsTheTreeAndCompletesOnce) {
    Completions done;
    Ref<SysCommand> cmd = Command({"sleep", "30000"});
    cmd->AsyncInvoke(done.Callback(), 1);
    EXPECT_EQ("Operation timed out", done.Wait(1));
    EXPECT_EQ(SysCommand::SC_NOT_RUNNING, cmd->GetProcessState());
    EXPECT_EQ("Invoke() was not called or did not complete",
              MessageOf<InvalidStateException>([&] { cmd->GetExitCode(); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(1u, done.Count());
}

// Children that end about when their time-out fires: whichever comes first
// completes the invocation, the other finds an outdated serial number and
// does nothing, and the next invocation is never completed by either.
TEST(SysCommandAsync, LateCompletionsOfEarlierInvocationsAreIgnored) {
    Completions done;
    Ref<SysCommand> cmd = Command({"sleep", "1000"});
    const std::size_t rounds = 6;
    for (std::size_t i = 1; i <= rounds; ++i) {
        cmd->AsyncInvoke(done.Callback(), 1);
        const std::string error = done.Wait(i);
        EXPECT_TRUE(error.empty() || error == "Operation timed out") << error;
        EXPECT_EQ(i, done.Serial(i));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    EXPECT_EQ(rounds, done.Count());
}

TEST(SysCommandAsync, ManyAtOnceFromSeveralThreads) {
    Completions done;
    std::vector<Ref<SysCommand>> commands;
    std::mutex lock;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 5; ++i) {
                Ref<SysCommand> cmd = Command({"exit", std::to_string(t * 10 + i)});
                cmd->AsyncInvoke(done.Callback(), 60);
                std::lock_guard<std::mutex> hold(lock);
                commands.push_back(cmd);
            }
        });
    }
    for (std::thread& t : threads) {
        t.join();
    }
    EXPECT_EQ("", done.Wait(20));
    std::vector<int> codes;
    for (const Ref<SysCommand>& cmd : commands) {
        codes.push_back(cmd->GetExitCode());
    }
    std::sort(codes.begin(), codes.end());
    std::vector<int> expected;
    for (int t = 0; t < 4; ++t) {
        for (int i = 0; i < 5; ++i) {
            expected.push_back(t * 10 + i);
        }
    }
    EXPECT_EQ(expected, codes);
}

// ---- Many commands at once ----

TEST(SysCommand, ManyCommandsFromSeveralThreads) {
    std::atomic<int> wrong{0};
    std::mutex failuresLock;
    std::vector<std::string> failures; // what a thread threw, instead of ending the program
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t, &wrong, &failuresLock, &failures] {
            try {
                for (int i = 0; i < 8; ++i) {
                    const int code = t * 10 + i;
                    Ref<SysCommand> cmd = Command({"spew", "70000"});
                    cmd->Invoke();
                    if (cmd->ReadAll(SC_STDERR).size() != 70000) {
                        ++wrong;
                    }
                    cmd->WaitForExit(60);
                    if (cmd->GetExitCode() != 0 ||
                        RunChild({"exit", std::to_string(code)}) != code) {
                        ++wrong;
                    }
                }
            } catch (const std::exception& e) {
                std::lock_guard<std::mutex> hold(failuresLock);
                failures.push_back(e.what());
            }
        });
    }
    // One more thread kills a sleeper while another waits for it.
    Ref<SysCommand> sleeper = Command({"sleep", "30000"});
    sleeper->Invoke();
    std::thread waiter([&] { sleeper->WaitForExit(60); });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    sleeper->KillTree(11);
    waiter.join();
    for (std::thread& t : threads) {
        t.join();
    }
    EXPECT_EQ(0, wrong.load());
    EXPECT_TRUE(failures.empty()) << failures.size() << " threads failed, first: " << failures[0];
    EXPECT_EQ(11, sleeper->GetExitCode());
}

} // namespace
