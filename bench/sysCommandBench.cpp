// Child processes against their peers, side by side in one run:
//
//   Spawn_*       start /bin/true and wait for its end: ours (three pipes, its
//                 own process group, a pidfd) against posix_spawn + waitpid
//                 called directly, Boost.Process and Poco::Process::launch
//                 (and, for analysis, against posix_spawn doing what ours
//                 does by hand: three pipes, a process group, both outputs
//                 read to their end)
//   Read1MiB_*    start a child that writes 1 MiB to its standard output and
//                 read it to the end: ours against posix_spawn with one plain
//                 pipe, read and waitpid called directly
//   Spawn256_*    Spawn_* from a process holding 256 MiB of touched memory,
//                 where spawners that fork copy its page tables
//
// The direct calls are what a careful program would write by hand; ours do
// more (three pipes, the command check, a descriptor for the wait) and are
// measured through the factory as a caller reaches them.

#include <tessera/system/sysCommand.h>
#include <tessera/system/system.h>

#include <Poco/Pipe.h>
#include <Poco/PipeStream.h>
#include <Poco/Process.h>
#include <benchmark/benchmark.h>
#include <boost/process.hpp>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <vector>

extern char** environ;

namespace TesseraBench {
namespace {

using namespace Tessera;
using namespace Tessera::System;

const char kTrue[] = "/bin/true";
const char kHead[] = "/usr/bin/head";
const std::size_t kMiB = 1 << 20;

// 256 MiB, every page touched, held for the time of one benchmark.
class Hog {
public:
    explicit Hog(bool on) {
        if (on) {
            _bytes.assign(256 * kMiB, 0);
            for (std::size_t i = 0; i < _bytes.size(); i += 4096) {
                _bytes[i] = static_cast<char>(i);
            }
            benchmark::DoNotOptimize(_bytes.data());
        }
    }

private:
    std::vector<char> _bytes;
};

void TesseraSpawn(benchmark::State& state, bool hog) {
    Hog memory(hog);
    SysCommandSpec spec;
    spec.command = kTrue;
    for (auto _ : state) {
        Ref<SysCommand> cmd;
        GetSystemFactory()->CreateSysCommand(spec, cmd);
        cmd->Invoke();
        cmd->WaitForExit(SYSCOMMAND_WAIT_INFINITE);
        if (cmd->GetExitCode() != 0) {
            state.SkipWithError("exit code");
        }
    }
}

void DirectSpawn(benchmark::State& state, bool hog) {
    Hog memory(hog);
    char* const argv[] = {const_cast<char*>(kTrue), nullptr};
    for (auto _ : state) {
        pid_t pid;
        if (posix_spawn(&pid, kTrue, nullptr, nullptr, argv, environ) != 0) {
            state.SkipWithError("posix_spawn");
        }
        int status;
        waitpid(pid, &status, 0);
    }
}

// What ours does, written by hand: three pipes, the child in a group of its
// own with the standard signals at their defaults, both outputs read to their
// end, then waitpid (no command check, no pidfd).
void Spawn_PosixSpawnAsOurs(benchmark::State& state) {
    char* const argv[] = {const_cast<char*>(kTrue), nullptr};
    sigset_t none;
    sigset_t standard;
    sigemptyset(&none);
    sigemptyset(&standard);
    for (int sig = 1; sig < 32; ++sig) {
        if (sig != SIGKILL && sig != SIGSTOP) sigaddset(&standard, sig);
    }
    for (auto _ : state) {
        int in[2];
        int out[2];
        int err[2];
        if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
            state.SkipWithError("pipe");
            break;
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, in[0], 0);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        posix_spawn_file_actions_adddup2(&actions, err[1], 2);
        posix_spawn_file_actions_addclosefrom_np(&actions, 3);
        posix_spawnattr_t attr;
        posix_spawnattr_init(&attr);
        posix_spawnattr_setsigmask(&attr, &none);
        posix_spawnattr_setsigdefault(&attr, &standard);
        posix_spawnattr_setpgroup(&attr, 0);
        posix_spawnattr_setflags(
            &attr, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
        pid_t pid;
        if (posix_spawn(&pid, kTrue, &actions, &attr, argv, environ) != 0) {
            state.SkipWithError("posix_spawn");
        }
        posix_spawnattr_destroy(&attr);
        posix_spawn_file_actions_destroy(&actions);
        close(in[0]);
        close(out[1]);
        close(err[1]);
        char buffer[4096];
        while (read(out[0], buffer, sizeof buffer) > 0) {}
        while (read(err[0], buffer, sizeof buffer) > 0) {}
        int status;
        waitpid(pid, &status, 0);
        close(in[1]);
        close(out[0]);
        close(err[0]);
    }
}

void BoostSpawn(benchmark::State& state, bool hog) {
    Hog memory(hog);
    for (auto _ : state) {
        boost::process::child child(kTrue);
        child.wait();
    }
}

void PocoSpawn(benchmark::State& state, bool hog) {
    Hog memory(hog);
    const Poco::Process::Args args;
    for (auto _ : state) {
        Poco::ProcessHandle handle = Poco::Process::launch(kTrue, args);
        handle.wait();
    }
}

void Spawn_Tessera(benchmark::State& state) { TesseraSpawn(state, false); }
void Spawn_PosixSpawn(benchmark::State& state) { DirectSpawn(state, false); }
void Spawn_BoostProcess(benchmark::State& state) { BoostSpawn(state, false); }
void Spawn_Poco(benchmark::State& state) { PocoSpawn(state, false); }
void Spawn256_Tessera(benchmark::State& state) { TesseraSpawn(state, true); }
void Spawn256_PosixSpawn(benchmark::State& state) { DirectSpawn(state, true); }
void Spawn256_BoostProcess(benchmark::State& state) { BoostSpawn(state, true); }
void Spawn256_Poco(benchmark::State& state) { PocoSpawn(state, true); }

void Read1MiB_Tessera(benchmark::State& state) {
    SysCommandSpec spec;
    spec.command = kHead;
    spec.args = {"-c", "1048576", "/dev/zero"};
    for (auto _ : state) {
        Ref<SysCommand> cmd;
        GetSystemFactory()->CreateSysCommand(spec, cmd);
        cmd->Invoke();
        char buffer[65536];
        std::size_t total = 0;
        int n;
        while ((n = cmd->Read(SC_STDOUT, buffer, sizeof buffer)) > 0) {
            total += static_cast<std::size_t>(n);
        }
        cmd->WaitForExit(SYSCOMMAND_WAIT_INFINITE);
        if (total != kMiB) {
            state.SkipWithError("short read");
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kMiB));
}

void Read1MiB_PosixSpawn(benchmark::State& state) {
    char* const argv[] = {const_cast<char*>(kHead), const_cast<char*>("-c"),
                          const_cast<char*>("1048576"), const_cast<char*>("/dev/zero"), nullptr};
    for (auto _ : state) {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) {
            state.SkipWithError("pipe");
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
        pid_t pid;
        if (posix_spawn(&pid, kHead, &actions, nullptr, argv, environ) != 0) {
            state.SkipWithError("posix_spawn");
        }
        posix_spawn_file_actions_destroy(&actions);
        close(fds[1]);
        char buffer[65536];
        std::size_t total = 0;
        ssize_t n;
        while ((n = read(fds[0], buffer, sizeof buffer)) > 0) {
            total += static_cast<std::size_t>(n);
        }
        close(fds[0]);
        int status;
        waitpid(pid, &status, 0);
        if (total != kMiB) {
            state.SkipWithError("short read");
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kMiB));
}

void Read1MiB_BoostProcess(benchmark::State& state) {
    for (auto _ : state) {
        boost::process::ipstream out;
        boost::process::child child(kHead, "-c", "1048576", "/dev/zero",
                                    boost::process::std_out > out);
        char buffer[65536];
        std::size_t total = 0;
        while (out.read(buffer, sizeof buffer) || out.gcount() > 0) {
            total += static_cast<std::size_t>(out.gcount());
        }
        child.wait();
        if (total != kMiB) {
            state.SkipWithError("short read");
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kMiB));
}

void Read1MiB_Poco(benchmark::State& state) {
    const Poco::Process::Args args{"-c", "1048576", "/dev/zero"};
    for (auto _ : state) {
        Poco::Pipe out;
        Poco::ProcessHandle handle = Poco::Process::launch(kHead, args, nullptr, &out, nullptr);
        char buffer[65536];
        std::size_t total = 0;
        int n;
        while ((n = out.readBytes(buffer, sizeof buffer)) > 0) {
            total += static_cast<std::size_t>(n);
        }
        handle.wait();
        if (total != kMiB) {
            state.SkipWithError("short read");
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kMiB));
}

BENCHMARK(Spawn_Tessera)->UseRealTime();
BENCHMARK(Spawn_PosixSpawn)->UseRealTime();
BENCHMARK(Spawn_PosixSpawnAsOurs)->UseRealTime();
BENCHMARK(Spawn_BoostProcess)->UseRealTime();
BENCHMARK(Spawn_Poco)->UseRealTime();
BENCHMARK(Read1MiB_Tessera)->UseRealTime();
BENCHMARK(Read1MiB_PosixSpawn)->UseRealTime();
BENCHMARK(Read1MiB_BoostProcess)->UseRealTime();
BENCHMARK(Read1MiB_Poco)->UseRealTime();
BENCHMARK(Spawn256_Tessera)->UseRealTime();
BENCHMARK(Spawn256_PosixSpawn)->UseRealTime();
BENCHMARK(Spawn256_BoostProcess)->UseRealTime();
BENCHMARK(Spawn256_Poco)->UseRealTime();

} // namespace
} // namespace TesseraBench
