// POSIX child processes: posix_spawn into a process group of the child's own,
// pipes made close-on-exec and every other descriptor closed in the child,
// waits on a process descriptor (pidfd) where the kernel has one. Generic
// POSIX apart from the Linux calls marked as such.

#include "system/platform/process.h"

#include "posix/backgroundThread.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#if defined(__linux__)
#include <sys/epoll.h>
#include <sys/prctl.h>
#endif

#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>

extern char** environ;

namespace Tessera {
namespace System {
namespace Platform {

const CommandLineStyle kCommandLineStyle = CommandLineStyle::Shell;
const NativeHandle kNoHandle = -1;
const char* const kSpawnCall = "posix_spawn";
const char* const kCreateGroupCall = "setpgid"; // made by the spawn; never fails
const char* const kAssignGroupCall = "setpgid"; // likewise
const char* const kResumeCall = "posix_spawn"; // the child runs from its spawn
const char* const kKillCall = "kill";
const char* const kKillGroupCall = "kill";
const char* const kPollExitCall = "waitpid";
const char* const kWatchCall = "epoll_ctl";
const char* const kPumpCall = "poll";
const char* const kWriteCall = "write";

namespace {

int Fd(NativeHandle h) { return static_cast<int>(h); }

// A descriptor above the standard three, close-on-exec, so that the child's
// dup2 onto 0, 1 and 2 never meets one of its own sources.
NativeError MovedAboveStandard(int& fd) {
    if (fd > 2) {
        return kSuccess;
    }
    const int moved = fcntl(fd, F_DUPFD_CLOEXEC, 3);
    const int error = errno;
    close(fd);
    fd = moved;
    return moved < 0 ? error : kSuccess;
}

NativeError MakePipe(int& readEnd, int& writeEnd) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        return errno;
    }
    readEnd = fds[0];
    writeEnd = fds[1];
    NativeError error = MovedAboveStandard(readEnd);
    if (error == kSuccess) {
        error = MovedAboveStandard(writeEnd);
    }
    if (error != kSuccess) {
        if (readEnd >= 0) {
            close(readEnd);
        }
        if (writeEnd >= 0) {
            close(writeEnd);
        }
    }
    return error;
}

std::string FindOnPath(const std::string& name) {
    const char* path = std::getenv("PATH");
    std::string dirs = path != nullptr ? path : "/usr/local/bin:/usr/bin:/bin";
    std::size_t start = 0;
    std::string firstExisting;
    for (;;) {
        const std::size_t end = dirs.find(':', start);
        std::string dir = dirs.substr(start, end == std::string::npos ? end : end - start);
        if (dir.empty()) {
            dir = ".";
        }
        std::string candidate = dir + "/" + name;
        struct stat st;
        if (stat(candidate.c_str(), &st) == 0) {
            if (S_ISREG(st.st_mode) && access(candidate.c_str(), X_OK) == 0) {
                return candidate;
            }
            if (firstExisting.empty()) {
                firstExisting = candidate;
            }
        }
        if (end == std::string::npos) {
            break;
        }
        start = end + 1;
    }
    return firstExisting;
}

NativeError CloseFd(NativeHandle& h) noexcept {
    if (h == kNoHandle) {
        return kSuccess;
    }
    const int closed = close(Fd(h));
    h = kNoHandle;
    // After EINTR the descriptor is gone all the same (Linux).
    return closed == 0 || errno == EINTR ? kSuccess : errno;
}

#if defined(__linux__) && defined(SYS_pidfd_open)
int OpenPidFd(pid_t pid) {
    const long fd = syscall(SYS_pidfd_open, pid, 0);
    return fd < 0 ? -1 : static_cast<int>(fd);
}
#else
int OpenPidFd(pid_t) { return -1; }
#endif

// fork and exec, for what posix_spawn cannot do: the parent-death signal.
// Between fork and exec only async-signal-safe calls are made.
NativeError ForkChild(const SpawnRequest& request, const ChildPipes& pipes, char* const* argv,
                      char* const* envp, pid_t& pid) {
    int report[2];
    if (pipe2(report, O_CLOEXEC) != 0) {
        return errno;
    }
    const pid_t parent = getpid();
    pid = fork();
    if (pid < 0) {
        const int error = errno;
        close(report[0]);
        close(report[1]);
        return error;
    }
    if (pid == 0) {
        int error = 0;
        sigset_t none;
        sigemptyset(&none);
        struct sigaction dfl;
        std::memset(&dfl, 0, sizeof dfl);
        dfl.sa_handler = SIG_DFL;
        for (int s = 1; s < NSIG; ++s) {
            sigaction(s, &dfl, nullptr);
        }
        sigprocmask(SIG_SETMASK, &none, nullptr);
        if (setpgid(0, 0) != 0) {
            error = errno;
        }
#if defined(__linux__)
        if (error == 0 && prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) {
            error = errno;
        }
        if (error == 0 && getppid() != parent) { // the parent died before the line above
            _exit(127);
        }
#endif
        if (error == 0 && (dup2(Fd(pipes.childIn), 0) < 0 || dup2(Fd(pipes.childOut), 1) < 0 ||
                           dup2(Fd(pipes.childErr), 2) < 0)) {
            error = errno;
        }
        if (error == 0) {
            close_range(3, ~0u, CLOSE_RANGE_CLOEXEC);
        }
        if (error == 0 && !request.workingDirectory.empty() &&
            chdir(request.workingDirectory.c_str()) != 0) {
            error = errno;
        }
        if (error == 0) {
            execve(request.path.c_str(), argv, envp);
            error = errno;
        }
        ssize_t ignored = write(report[1], &error, sizeof error);
        (void)ignored;
        _exit(127);
    }
    close(report[1]);
    int childError = 0;
    ssize_t got;
    do {
        got = read(report[0], &childError, sizeof childError);
    } while (got < 0 && errno == EINTR);
    close(report[0]);
    if (got == static_cast<ssize_t>(sizeof childError)) {
        int status;
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {}
        return childError;
    }
    return kSuccess;
}

// The parent-death signal follows the thread that forked the child, not the
// process: a child forked by a thread that later ends (a pool thread leaving
// through its idle exit) would be killed then, while its owner lives on. Such
// children are therefore forked by one thread that lives as long as the
// process. Its state is never destroyed, so that nothing it waits on goes
// away under it at exit.
class Forker {
public:
    // Runs ForkChild on the forking thread and waits for its answer.
    static NativeError Fork(const SpawnRequest& request, const ChildPipes& pipes, char* const* argv,
                            char* const* envp, pid_t& pid) {
        Forker* forker = Instance();
        if (forker == nullptr) {
            return EAGAIN;
        }
        std::lock_guard<std::mutex> turn(forker->_turn);
        Job job{&request, &pipes, argv, envp};
        std::unique_lock<std::mutex> hold(forker->_lock);
        forker->_job = &job;
        forker->_changed.notify_all();
        forker->_changed.wait(hold, [&job] { return job.done; });
        pid = job.pid;
        return job.error;
    }

private:
    struct Job {
        const SpawnRequest* request;
        const ChildPipes* pipes;
        char* const* argv;
        char* const* envp;
        pid_t pid = 0;
        NativeError error = kSuccess;
        bool done = false;
    };

    // Made on first use, and again in a process made by fork, which has no
    // copy of the thread; null when no thread could be started.
    static Forker* Instance() {
        static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
        static Forker* current = nullptr;
        pthread_mutex_lock(&lock);
        if (current == nullptr || current->_process != getpid()) {
            current = Start();
        }
        Forker* forker = current;
        pthread_mutex_unlock(&lock);
        return forker;
    }

    static Forker* Start() {
        Forker* forker = new Forker;
        if (StartBackgroundThread(&Forker::Main, forker) != kSuccess) {
            delete forker;
            return nullptr;
        }
        return forker;
    }

    static void* Main(void* self) {
        Forker* forker = static_cast<Forker*>(self);
        std::unique_lock<std::mutex> hold(forker->_lock);
        for (;;) {
            forker->_changed.wait(hold, [forker] { return forker->_job != nullptr; });
            Job& job = *forker->_job;
            forker->_job = nullptr;
            hold.unlock();
            job.error = ForkChild(*job.request, *job.pipes, job.argv, job.envp, job.pid);
            hold.lock();
            job.done = true;
            forker->_changed.notify_all();
        }
    }

    const pid_t _process = getpid();
    std::mutex _turn; // one caller at a time
    std::mutex _lock;
    std::condition_variable _changed;
    Job* _job = nullptr;
};

} // namespace

CommandCheck CheckCommand(const std::string& command, std::string& resolved, bool beforeStart) {
    const bool isPath = command.find('/') != std::string::npos;
    resolved = isPath ? command : FindOnPath(command);
    if (isPath && beforeStart) {
        return CommandCheck::Ok; // posix_spawn reports what exec found
    }
    struct stat st;
    if (resolved.empty() || stat(resolved.c_str(), &st) != 0) {
        return CommandCheck::NotFound;
    }
    if (!S_ISREG(st.st_mode)) {
        return CommandCheck::NotAnImage;
    }
    if (access(resolved.c_str(), X_OK) != 0) {
        return CommandCheck::NotExecutable;
    }
    return CommandCheck::Ok;
}

NativeError CreateChildPipes(bool separateError, ChildPipes& pipes) {
    int fds[6] = {-1, -1, -1, -1, -1, -1};
    NativeError error = MakePipe(fds[0], fds[1]);
    if (error == kSuccess) {
        error = MakePipe(fds[2], fds[3]);
    }
    if (error == kSuccess && separateError) {
        error = MakePipe(fds[4], fds[5]);
    }
    if (error != kSuccess) {
        for (int fd : fds) {
            if (fd >= 0) {
                close(fd);
            }
        }
        return error;
    }
    pipes.childIn = fds[0];
    pipes.parentIn = fds[1];
    pipes.parentOut = fds[2];
    pipes.childOut = fds[3];
    pipes.parentErr = separateError ? fds[4] : kNoHandle;
    pipes.childErr = separateError ? fds[5] : fds[3];
    // The parent's reading ends stay blocking: the pump reads each once
    // after poll has said it is ready, which never blocks.
    return kSuccess;
}

NativeError CloseHandleOrFd(NativeHandle& handle) noexcept { return CloseFd(handle); }

NativeError CreateChildGroup(bool, NativeHandle& group) {
    group = kNoHandle; // the child makes its group when it starts
    return kSuccess;
}

bool IsBreakawayRefused(NativeError) noexcept { return false; }

NativeError SpawnChild(const SpawnRequest& request, const ChildPipes& pipes, bool, Child& child) {
    std::vector<char*> argv;
    for (const std::string& a : request.argv) {
        argv.push_back(const_cast<char*>(a.c_str()));
    }
    argv.push_back(nullptr);
    std::vector<char*> envp;
    if (request.environment != nullptr) {
        for (const std::string& e : *request.environment) {
            envp.push_back(const_cast<char*>(e.c_str()));
        }
        envp.push_back(nullptr);
    }
    char* const* env = request.environment != nullptr ? envp.data() : environ;

    pid_t pid = 0;
    NativeError error = kSuccess;
    if (request.killOnOwnerExit) {
        error = Forker::Fork(request, pipes, argv.data(), env, pid);
    } else {
        posix_spawn_file_actions_t actions;
        posix_spawnattr_t attr;
        posix_spawn_file_actions_init(&actions);
        posix_spawnattr_init(&attr);
        posix_spawn_file_actions_adddup2(&actions, Fd(pipes.childIn), 0);
        posix_spawn_file_actions_adddup2(&actions, Fd(pipes.childOut), 1);
        posix_spawn_file_actions_adddup2(&actions, Fd(pipes.childErr), 2);
        // Whatever this process has open without close-on-exec stays here.
        posix_spawn_file_actions_addclosefrom_np(&actions, 3);
        if (!request.workingDirectory.empty()) {
            posix_spawn_file_actions_addchdir_np(&actions, request.workingDirectory.c_str());
        }
        // Handlers never survive an exec; what this process ignores would. The
        // child starts with the standard signals at their defaults (one
        // system call each in the child, while this thread waits for it);
        // real-time signals are left as they are.
        sigset_t none;
        sigset_t standard;
        sigemptyset(&none);
        sigemptyset(&standard);
        for (int sig = 1; sig < 32; ++sig) {
            if (sig != SIGKILL && sig != SIGSTOP) sigaddset(&standard, sig);
        }
        posix_spawnattr_setsigmask(&attr, &none);
        posix_spawnattr_setsigdefault(&attr, &standard);
        posix_spawnattr_setpgroup(&attr, 0);
        posix_spawnattr_setflags(
            &attr, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
        error = posix_spawn(&pid, request.path.c_str(), &actions, &attr, argv.data(), env);
        posix_spawnattr_destroy(&attr);
        posix_spawn_file_actions_destroy(&actions);
    }
    if (error != kSuccess) {
        return error;
    }
    child.pid = pid;
    child.process = OpenPidFd(pid); // close-on-exec from the start
    if (child.process < 0) {
        child.process = kNoHandle;
    }
    child.thread = kNoHandle;
    child.group = kNoHandle;
    child.ownGroup = true;
    return kSuccess;
}

NativeError AssignChildToGroup(NativeHandle, Child&) { return kSuccess; }
NativeError ResumeChild(Child&) { return kSuccess; }

NativeError KillChild(const Child& child, int) {
#if defined(__linux__) && defined(SYS_pidfd_send_signal)
    if (child.process != kNoHandle) {
        // Through the descriptor: never a process that took over a reused id.
        if (syscall(SYS_pidfd_send_signal, Fd(child.process), SIGKILL, nullptr, 0) == 0) {
            return kSuccess;
        }
        return errno;
    }
#endif
    return kill(static_cast<pid_t>(child.pid), SIGKILL) == 0 ? kSuccess : errno;
}

NativeError KillChildGroup(NativeHandle, const Child& child, int) {
    // The group outlives its leader as long as one member is left, and its id
    // is not reused while it exists.
    return kill(-static_cast<pid_t>(child.pid), SIGKILL) == 0 ? kSuccess : errno;
}

void ReleaseChild(Child& child) noexcept { CloseFd(child.process); }

NativeError PollChildExit(Child& child, bool& exited, int& status, bool& signaled) {
    int raw = 0;
    pid_t got;
    do {
        // By pid: the status of a child this object did not start is never
        // collected here.
        got = waitpid(static_cast<pid_t>(child.pid), &raw, WNOHANG);
    } while (got < 0 && errno == EINTR);
    if (got < 0) {
        return errno;
    }
    exited = got != 0;
    if (exited) {
        signaled = WIFSIGNALED(raw);
        status = signaled ? WTERMSIG(raw) : WEXITSTATUS(raw);
    }
    return kSuccess;
}

struct OutputPump {
    int out;
    int err;
    int pidfd;
    int heldOut = -1; // the child's ends, kept while its end is waited for
    int heldErr = -1;
    int epoll = -1; // made by the first GetWatchHandles
    bool outEnded = false;
    bool errEnded = false;
    bool outWatched = false;
    bool errWatched = false;
};

OutputPump* CreateOutputPump(ChildPipes& pipes, const Child& child) {
    OutputPump* pump = new OutputPump{Fd(pipes.parentOut), Fd(pipes.parentErr), Fd(child.process)};
    // Without a pidfd the child's end is looked for on a tick, and the end of
    // its pipes is the quicker sign: nothing is kept then.
    if (child.process != kNoHandle) {
        pump->heldOut = Fd(pipes.childOut);
        if (pipes.childErr != pipes.childOut) {
            pump->heldErr = Fd(pipes.childErr);
        }
        pipes.childOut = kNoHandle;
        pipes.childErr = kNoHandle;
    }
    return pump;
}

void ReleaseChildEnds(OutputPump* pump) noexcept {
    if (pump == nullptr) {
        return;
    }
    if (pump->heldOut >= 0) {
        close(pump->heldOut);
        pump->heldOut = -1;
    }
    if (pump->heldErr >= 0) {
        close(pump->heldErr);
        pump->heldErr = -1;
    }
}

void DestroyOutputPump(OutputPump* pump) noexcept {
    ReleaseChildEnds(pump);
    if (pump->epoll >= 0) {
        close(pump->epoll);
    }
    delete pump;
}

NativeError GetWatchHandles(OutputPump* pump, std::vector<NativeHandle>& handles) {
    handles.clear();
#if defined(__linux__)
    if (pump->pidfd < 0) {
        return kSuccess;
    }
    if (pump->epoll < 0) {
        pump->epoll = epoll_create1(EPOLL_CLOEXEC);
        if (pump->epoll < 0) {
            return errno;
        }
        epoll_event exit{};
        exit.events = EPOLLIN;
        if (epoll_ctl(pump->epoll, EPOLL_CTL_ADD, pump->pidfd, &exit) != 0) {
            return errno;
        }
    }
    // A pipe at its end would be ready for ever: it leaves the set.
    struct Member {
        int fd;
        bool ended;
        bool& watched;
    } members[] = {{pump->out, pump->outEnded || pump->out < 0, pump->outWatched},
                   {pump->err, pump->errEnded || pump->err < 0, pump->errWatched}};
    for (Member& m : members) {
        if (m.ended && m.watched) {
            epoll_ctl(pump->epoll, EPOLL_CTL_DEL, m.fd, nullptr);
            m.watched = false;
        } else if (!m.ended && !m.watched) {
            epoll_event in{};
            in.events = EPOLLIN;
            if (epoll_ctl(pump->epoll, EPOLL_CTL_ADD, m.fd, &in) != 0) {
                return errno;
            }
            m.watched = true;
        }
    }
    handles.push_back(pump->epoll);
#else
    (void)pump;
#endif
    return kSuccess;
}

namespace {

// One read of a pipe that poll found ready (data, or its end): as much as a
// full pipe holds, and `ended` at its end.
NativeError Drain(int fd, std::string& to, bool& ended) {
    char buffer[65536];
    ssize_t got;
    do {
        got = read(fd, buffer, sizeof buffer);
    } while (got < 0 && errno == EINTR);
    if (got < 0) {
        return errno;
    }
    if (got == 0) {
        ended = true;
    }
    to.append(buffer, static_cast<std::size_t>(got));
    return kSuccess;
}

std::int64_t NowMs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// One round of the pump's poll: the descriptors still to watch and how long.
struct PumpPoll {
    pollfd fds[3];
    nfds_t count = 0;
    int outIndex = -1;
    int errIndex = -1;
    int exitIndex = -1;
    int wait = -1; // milliseconds; -1 without a limit

    PumpPoll(const OutputPump* pump, const Child* watchExit, const PumpResult& result,
             std::int64_t deadline) {
        if (!result.outEnded) Add(pump->out, outIndex);
        if (!result.errEnded) Add(pump->err, errIndex);
        // Without a process descriptor the child's end is looked for every
        // 10 ms.
        if (watchExit != nullptr) {
            if (watchExit->process != kNoHandle) {
                Add(Fd(watchExit->process), exitIndex);
            } else {
                wait = 10;
            }
        }
        if (deadline >= 0) {
            const std::int64_t left = std::max<std::int64_t>(0, deadline - NowMs());
            wait = wait < 0 ? static_cast<int>(std::min<std::int64_t>(left, 1 << 30))
                            : static_cast<int>(std::min<std::int64_t>(left, wait));
        }
    }
    bool Ready(int index) const { return index >= 0 && fds[index].revents != 0; }

private:
    void Add(int fd, int& index) {
        index = static_cast<int>(count);
        fds[count++] = pollfd{fd, POLLIN, 0};
    }
};

// Reads what a ready pipe holds into `to`; `ended` follows the pipe's end.
NativeError TakeReady(int fd, std::string& to, bool& ended, bool& pumpEnded) {
    const NativeError error = Drain(fd, to, ended);
    pumpEnded = ended;
    return error;
}

} // namespace

NativeError PumpOutput(OutputPump* pump, const Child* watchExit, std::int64_t timeoutMs,
                       std::string& out, std::string& err, PumpResult& result) {
    result = PumpResult{};
    if (watchExit == nullptr) {
        ReleaseChildEnds(pump); // the caller waits for the pipes' end
    }
    result.outEnded = pump->out < 0 || pump->outEnded;
    result.errEnded = pump->err < 0 || pump->errEnded;
    const std::int64_t deadline = timeoutMs < 0 ? -1 : NowMs() + timeoutMs;
    for (;;) {
        PumpPoll round(pump, watchExit, result, deadline);
        if (round.count == 0 && watchExit == nullptr) {
            return kSuccess; // nothing left to wait for
        }
        if (poll(round.fds, round.count, round.wait) < 0) {
            if (errno == EINTR) {
                continue;
            }
            return errno;
        }
        bool any = false;
        if (round.Ready(round.outIndex)) {
            const NativeError e = TakeReady(pump->out, out, result.outEnded, pump->outEnded);
            if (e != kSuccess) return e;
            any = true;
        }
        if (round.Ready(round.errIndex)) {
            const NativeError e = TakeReady(pump->err, err, result.errEnded, pump->errEnded);
            if (e != kSuccess) return e;
            any = true;
        }
        // Seen through the process descriptor, or, without one, looked for
        // by the caller's PollChildExit: a tick is reported.
        if (round.Ready(round.exitIndex) || (watchExit != nullptr && round.exitIndex < 0)) {
            result.childExited = true;
            any = true;
        }
        if (any) {
            return kSuccess;
        }
        if (deadline >= 0 && NowMs() >= deadline) {
            result.timedOut = true;
            return kSuccess;
        }
    }
}

NativeError WriteToChild(NativeHandle in, const char* data, std::size_t size) {
    // SIGPIPE is held back for this thread while it writes; one raised by a
    // write here is taken off again before the mask is restored.
    sigset_t pipeOnly;
    sigset_t old;
    sigemptyset(&pipeOnly);
    sigaddset(&pipeOnly, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipeOnly, &old);
    sigset_t pendingBefore;
    sigpending(&pendingBefore);
    const bool wasPending = sigismember(&pendingBefore, SIGPIPE) == 1;
    NativeError error = kSuccess;
    while (size > 0) {
        const ssize_t done = write(Fd(in), data, size);
        if (done < 0) {
            if (errno == EINTR) {
                continue;
            }
            error = errno;
            break;
        }
        data += done;
        size -= static_cast<std::size_t>(done);
    }
    if (error == EPIPE && !wasPending) {
        const timespec zero{0, 0};
        while (sigtimedwait(&pipeOnly, nullptr, &zero) < 0 && errno == EINTR) {}
    }
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    return error;
}

} // namespace Platform
} // namespace System
} // namespace Tessera
