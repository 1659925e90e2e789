// Child processes: what POSIX does of its own (the rules of the command line,
// the checks of the command, descriptors, signals).

#include <tessera/exception.h>
#include <tessera/system/sysCommand.h>
#include <tessera/system/system.h>
#include <tessera/system/threadPool.h>

#include "system/threadPoolTesting.h"
#include "tests/asio/poolTestSupport.h"
#include "tests/scratchDir.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <string>
#include <thread>

#include <gtest/gtest.h>

using namespace Tessera;
using namespace Tessera::System;

namespace {

std::vector<std::string> Words(const std::string& raw) {
    SysCommandSpec spec;
    ParseRawCommand(raw, spec);
    std::vector<std::string> words{spec.command};
    words.insert(words.end(), spec.args.begin(), spec.args.end());
    return words;
}

std::string CheckFailure(const std::string& command) {
    SysCommandSpec spec;
    spec.command = command;
    Ref<SysCommand> cmd;
    GetSystemFactory()->CreateSysCommand(spec, cmd);
    try {
        cmd->Invoke();
    } catch (const FileIOException& e) {
        return e.what();
    }
    cmd->WaitForExit(60);
    return "started";
}

TEST(SysCommandPosix, ParseRawCommandQuotesLikeTheShellWithoutExpanding) {
    using V = std::vector<std::string>;
    EXPECT_EQ((V{"ls", "-l", "My Files", "$HOME"}), Words("ls -l 'My Files' \"$HOME\""));
    EXPECT_EQ((V{"echo", "a b", "c \"d\"", "*.txt"}), Words("echo a\\ b \"c \\\"d\\\"\" *.txt"));
    EXPECT_EQ((V{"x", "~", "`id`", "$(id)", "a\\b", "it's"}),
              Words("  x\t~ `id` $(id) \"a\\b\" it\\'s  "));
    EXPECT_EQ((V{"x", "", "ab"}), Words("x '' a\"\"b"));
    SysCommandSpec spec;
    spec.workingDirectory = "/tmp";
    ParseRawCommand("run", spec);
    EXPECT_EQ("/tmp", spec.workingDirectory);
    EXPECT_TRUE(spec.args.empty());
    for (const char* bad : {"x 'open", "x \"open", "x trailing\\"}) {
        EXPECT_THROW(Words(bad), InvalidArgumentException) << bad;
    }
}

class SysCommandPosixTest : public ScratchDirTest {
protected:
    void SetUp() override {
        ScratchDirTest::SetUp();
        std::filesystem::create_directories(_dir);
    }
};

TEST_F(SysCommandPosixTest, BadCommandsAreRefusedBeforeTheStart) {
    EXPECT_EQ("Command is not found", CheckFailure((_dir / "missing").string()));
    EXPECT_EQ("Command is not found", CheckFailure("tessera-no-such-program"));
    EXPECT_EQ("Command not found or not executable", CheckFailure(_dir.string()));
    const std::filesystem::path plain = _dir / "plain";
    std::ofstream(plain) << "#!/bin/sh\n";
    EXPECT_EQ("Command is not executable", CheckFailure(plain.string()));
    chmod(plain.c_str(), 0755);
    EXPECT_EQ("started", CheckFailure(plain.string()));
    EXPECT_EQ("started", CheckFailure("true")); // found on the PATH
}

TEST(SysCommandPosix, TheChildGetsItsThreeStreamsAndNothingElse) {
    // Open without close-on-exec, as a careless caller would.
    const int leaky = open("/dev/null", O_RDONLY);
    ASSERT_GE(leaky, 3);
    for (bool forked : {false, true}) {
        SysCommandSpec spec;
        spec.command = TESSERA_TEST_CHILD;
        spec.args = {"inherited"};
        spec.killTreeOnOwnerExit = forked; // started with fork and exec
        Ref<SysCommand> cmd;
        GetSystemFactory()->CreateSysCommand(spec, cmd);
        cmd->Invoke();
        EXPECT_EQ("0 1 2", cmd->ReadAll(SC_STDOUT)) << forked;
        cmd->WaitForExit(60);
    }
    close(leaky);
}

TEST(SysCommandPosix, ChildInAGroupOfItsOwnAndSignalsAsCodes) {
    SysCommandSpec spec;
    spec.command = TESSERA_TEST_CHILD;
    spec.args = {"signal"};
    Ref<SysCommand> cmd;
    GetSystemFactory()->CreateSysCommand(spec, cmd);
    cmd->Invoke();
    cmd->WaitForExit(60);
    EXPECT_EQ(128 + SIGTERM, cmd->GetExitCode());
    EXPECT_FALSE(cmd->IsJobless());

    spec.args = {"sleep", "30000"};
    cmd->SetSpec(spec);
    cmd->Invoke();
    EXPECT_EQ(cmd->GetProcessId(), getpgid(static_cast<pid_t>(cmd->GetProcessId())));
    cmd->Kill(77);
    cmd->WaitForExit(60);
    EXPECT_EQ(77, cmd->GetExitCode());
}

TEST(SysCommandPosix, ADroppedCommandsChildIsCollectedWhenItEnds) {
    SysCommandSpec spec;
    spec.command = TESSERA_TEST_CHILD;
    spec.args = {"sleep", "200"};
    Ref<SysCommand> cmd;
    GetSystemFactory()->CreateSysCommand(spec, cmd);
    cmd->Invoke();
    const pid_t pid = static_cast<pid_t>(cmd->GetProcessId());
    cmd = nullptr;
    // No zombie is left: the pool waits for it. (A zombie still takes
    // signals; a collected process is gone.)
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    bool gone = false;
    while (!gone && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        gone = kill(pid, 0) != 0 && errno == ESRCH;
    }
    EXPECT_TRUE(gone);
}

// While a caller waits for the child's end, the parent keeps the child's ends
// of the output pipes (so that the exit wakes it once); a reader must still
// see a pipe's end when the child closes it, before the child ends.
TEST(SysCommandPosix, AStreamEndsWhenTheChildClosesItNotWhenItExits) {
    SysCommandSpec spec;
    spec.command = "/bin/sh";
    spec.args = {"-c", "printf ready; exec >&- 2>&-; sleep 60"};
    Ref<SysCommand> cmd;
    GetSystemFactory()->CreateSysCommand(spec, cmd);
    for (const bool waitFirst : {false, true}) {
        cmd->Invoke();
        if (waitFirst) {
            EXPECT_THROW(cmd->WaitForExit(1), TimeoutException);
        }
        EXPECT_EQ("ready", cmd->ReadAll(SC_STDOUT));
        EXPECT_EQ("", cmd->ReadAll(SC_STDERR));
        // The reads came back while the child sleeps: it has not ended (a
        // look that leaves its exit status to the command).
        siginfo_t info = {};
        ASSERT_EQ(0, waitid(P_PID, static_cast<id_t>(cmd->GetProcessId()), &info,
                            WEXITED | WNOHANG | WNOWAIT));
        EXPECT_EQ(0, info.si_pid) << "the reads waited for the child's end";
        EXPECT_EQ(SysCommand::SC_RUNNING, cmd->GetProcessState());
        cmd->KillTree(7);
        cmd->WaitForExit(60);
        EXPECT_EQ(7, cmd->GetExitCode());
    }
}

// A command that waits for a line and then exits with 7; killed with the
// owner when the owner goes.
Ref<SysCommand> StartOwnedWaiter() {
    SysCommandSpec spec;
    spec.command = "/bin/sh";
    spec.args = {"-c", "read line; exit 7"};
    spec.killTreeOnOwnerExit = true;
    Ref<SysCommand> cmd;
    GetSystemFactory()->CreateSysCommand(spec, cmd);
    cmd->Invoke();
    return cmd;
}

// Whether thread `tid` of this process is gone, with whatever the kernel does
// when a thread ends (the parent-death signals among it).
bool ThreadGone(pid_t tid) {
    return access(("/proc/self/task/" + std::to_string(tid)).c_str(), F_OK) != 0;
}

// Commands started by a thread that then ends, and by pool threads one of
// which leaves through the idle exit, run on: the kill on the owner's exit
// follows the process, not the starting thread.
TEST(SysCommandPosix, KillOnOwnerExitOutlivesTheStartingThread) {
    std::vector<Ref<SysCommand>> commands(3);
    std::vector<pid_t> starters(3);
    std::thread([&] {
        starters[0] = gettid();
        commands[0] = StartOwnedWaiter();
    }).join();
    ASSERT_TRUE(PoolTest::WaitFor([&] { return ThreadGone(starters[0]); }, 60));

#ifdef TESSERA_TEST_HOOKS
    Testing::SetPoolIdleTickUsec(20 * 1000);
    Ref<Service::Config> config = PoolTest::PoolConfig({{"TaskMin", "1"},
                                                        {"TaskMax", "2"},
                                                        {"exitIdleThreads", "true"},
                                                        {"ThreadCheckTimeSecs", "5"}});
    const Service::Config::View view = config->GetView().GetChild("ThreadPool");
    Ref<ThreadPool> pool;
    GetSystemFactory()->CreateThreadPool(&view, pool);
    // Both items run at once, so on two threads; one of them leaves afterwards.
    std::atomic<int> arrived{0}, started{0};
    for (int i = 1; i <= 2; ++i) {
        pool->QueueWorkItem([&, i] {
            ++arrived;
            while (arrived.load() < 2) std::this_thread::yield();
            starters[i] = gettid();
            commands[i] = StartOwnedWaiter();
            ++started;
        });
    }
    ASSERT_TRUE(PoolTest::WaitFor([&] { return started.load() == 2; }, 60));
    ASSERT_TRUE(
        PoolTest::WaitFor([&] { return ThreadGone(starters[1]) || ThreadGone(starters[2]); }, 60));
#else
    commands.resize(1);
#endif
    for (const Ref<SysCommand>& cmd : commands) {
        cmd->WriteStdin("go\n", 3);
        cmd->CloseStdin();
        cmd->WaitForExit(60);
        EXPECT_EQ(7, cmd->GetExitCode()); // 137 when killed with its starter
    }
#ifdef TESSERA_TEST_HOOKS
    pool->Shutdown();
    Testing::SetPoolIdleTickUsec(0);
#endif
}

} // namespace

TEST(SysCommandPosix, FailuresNameThePosixCall) {
    SysCommandSpec spec;
    spec.command = TESSERA_TEST_CHILD;
    spec.args = {"exit", "0"};
    Ref<SysCommand> cmd;
    GetSystemFactory()->CreateSysCommand(spec, cmd);
    cmd->Invoke();
    cmd->WaitForExit(60);
    // Nobody reads the ended child's standard input: the write fails with
    // the broken pipe (never a signal), named by the call that met it.
    try {
        cmd->WriteStdin("x", 1);
        ADD_FAILURE() << "a write to an ended child succeeded";
    } catch (const SystemException& e) {
        EXPECT_EQ(e.ErrorId(), EPIPE);
        EXPECT_EQ(std::string(e.what()), "write: " + SystemException::GetSystemMessage(EPIPE));
    }
}
