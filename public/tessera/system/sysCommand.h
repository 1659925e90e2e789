// Child processes: run a command with its standard streams redirected, wait
// for it with a time-out, read its output, write its input, kill it alone or
// with every process it started.
//
//     SysCommandSpec spec;
//     ParseRawCommand("tar -czf backup.tgz /var/lib/data", spec);
//     Ref<SysCommand> cmd;
//     GetSystemFactory()->CreateSysCommand(spec, cmd);
//     cmd->Invoke();                                 // started
//     try {
//         cmd->WaitForExit(30);                      // TimeoutException after 30 s
//     } catch (const TimeoutException&) {
//         cmd->KillTree(1);                          // the child and its children
//         cmd->WaitForExit(SYSCOMMAND_WAIT_INFINITE);
//     }
//     std::string out = cmd->ReadAll(SC_STDOUT);     // what it wrote
//     int code = cmd->GetExitCode();                 // 1 after the kill
//
// Output. While a command is waited for, and while one of its output streams
// is read, whatever arrives on either output pipe is taken into memory, so a
// child that fills both pipes at once never blocks and the caller may read
// them in any order, after the child has ended too. Output nobody reads stays
// in memory until the object goes away or is invoked again.
//
// The tree. The child runs in a group of its own that its descendants join:
// an anonymous job object on Windows, a process group that the child leads on
// POSIX. KillTree ends every process of the group; Kill ends the child alone
// and its children go on. A process that leaves the group on purpose is out
// of reach, as on Windows one started with break-away from the job is: on
// POSIX one that calls setsid() or setpgid(). When the caller itself runs in a
// job that forbids break-away (Windows), the child is started without a job
// of its own (IsJobless()), and KillTree then fails with "No child job to
// kill".
//
// Exit codes. GetExitCode is the child's exit code; after Kill or KillTree it
// is the code given to the kill, whatever the child returned (on POSIX a
// child ended by a signal it did not get from us reports 128 plus the
// signal's number, as shells do).
//
// Handles. The child gets its three standard streams and nothing else of the
// parent: no other descriptor (POSIX) and no other inheritable handle
// (Windows) reaches it.
//
// Errors. Before the start the command is checked (see Invoke below): a
// command, argument, environment entry or working directory that is not valid
// UTF-8 raises InvalidArgumentException; a
// command that is missing or no image raises FileIONotFoundException ("Command
// is not found", "Command not found or not executable"), one that may not be
// executed FileIOPermissionDeniedException ("Command is not executable"). A
// failed system call raises SystemException naming the platform's call and
// carrying the system's code ("CreateProcessW: ...", "posix_spawn: ...",
// "TerminateJobObject: ...", "kill: ...", "WriteFile: ...", "write: ..."),
// or, when the child's pipes could not be made, "Initialization Error  -
// Resource issues during object construction: ...". A failed start is logged
// as "Process '<command>' failed: Error: <message>, code: <code>, detail:
// <command line>". Misuse raises InvalidStateException:
//   "Sequence Error  - Invoke() in process or WaitForExit() not called yet"
//                 Invoke while the previous invocation has not been waited for
//   "Invoke() was not called or did not complete"
//                 GetExitCode before the child's end was seen
//   "The specified stream does not exist.Invoke() must be called before
//    reading from stdout/stderr", "Stdin does not exist.Invoke() must be
//    called before writing to stdin"
//                 the streams of a command never invoked (or stdin closed)
//   "Initialization Error - Resource issues during object construction"
//                 Invoke on an object made empty that was never given a command
//   "No child process to kill", "No child job to kill"
//   "Invalid state"  any other operation out of place
//
// Thread safety: every operation may be called from any thread; Kill and
// KillTree may be called while another thread waits or reads. Reads and waits
// of the same command from two threads at once take turns.
#pragma once

#include <tessera/api.h>
#include <tessera/functor.h>
#include <tessera/object.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Tessera {

class Exception;

namespace System {

// What to run.
struct TESSERA_EXPORT SysCommandSpec {
    // The program: a path, or a name looked up on the PATH of this process.
    std::string command;
    // The arguments after the program's own name.
    std::vector<std::string> args;
    // The child's whole environment, each entry "NAME=value". Empty gives the
    // child an empty environment; absent (std::nullopt), this process's.
    std::optional<std::vector<std::string>> environment;
    // The child's working directory; empty, this process's.
    std::string workingDirectory;
    // Standard error on a pipe of its own (true) or sent to standard output.
    bool separateStderr = true;
    // Kill the child's tree when this process dies or the command object goes
    // away, whichever thread started it. Windows: the job is made
    // kill-on-close. Linux: the child gets SIGKILL when this process ends (the
    // parent-death signal, given to children forked by one thread of the
    // library that lives as long as the process), and the destruction of the
    // object kills the group; a grandchild whose parent died with this
    // process is out of reach of the signal. The child is then started with
    // fork and exec instead of posix_spawn. Off by default.
    bool killTreeOnOwnerExit = false;
};

// Splits `raw` into `spec.command` and `spec.args` (the other fields are
// left as they are). Nothing is expanded: no variables, globs, `~` or
// substitutions, on either platform. An empty command line raises
// InvalidArgumentException.
//
// Windows: the rules of CommandLineToArgvW. The program name runs to the
// first blank, or is everything between a leading pair of double quotes. In
// the arguments, blanks separate outside double quotes; 2n backslashes before
// a double quote give n backslashes and the quote opens or closes a quoted
// part, 2n+1 give n backslashes and a literal quote; backslashes elsewhere
// are literal; inside a quoted part a doubled quote gives one literal quote.
// Leading blanks before the program name are skipped.
//     C:\Tools\x.exe "a b" c\\"d e"      ->  C:\Tools\x.exe | a b | c\d e
//     x.exe a\"b "c""d"                  ->  x.exe | a"b | c"d
//
// POSIX: the quoting of the shell, without any expansion. Blanks (space, tab,
// new line) separate words outside quotes; a backslash outside quotes makes
// the next character literal; '...' is literal; inside "..." a backslash
// escapes only $ ` " \ and a new line; $ * ? ~ ` are ordinary characters.
// An unterminated quote or a trailing backslash raises
// InvalidArgumentException.
//     ls -l 'My Files' "$HOME"           ->  ls | -l | My Files | $HOME
//     echo a\ b "c \"d\"" *.txt          ->  echo | a b | c "d" | *.txt
TESSERA_EXPORT void ParseRawCommand(const std::string& raw, SysCommandSpec& spec);

// Which standard stream.
enum SysCommandStream { SC_STDIN = 0, SC_STDOUT = 1, SC_STDERR = 2 };

// No time-out for WaitForExit.
constexpr std::int64_t SYSCOMMAND_WAIT_INFINITE = -1;

class TESSERA_EXPORT SysCommand : public virtual Object {
public:
    enum ProcessState { SC_NOT_RUNNING = 0, SC_RUNNING = 1 };
    enum InvokeState { SC_INVK_NONE = 0, SC_INVK_CALLED = 1, SC_INVK_ASYNC = 2 };

    // The command to run at the next Invoke (for an object made empty).
    virtual void SetSpec(const SysCommandSpec& spec) = 0;
    virtual SysCommandSpec GetSpec() const = 0;

    // Checks the command and starts it. The checks, in order:
    //   a command ending in ".exe" (Windows) must be an executable image,
    //   else "Command not found or not executable"; one ending in ".bat",
    //   ".cmd" or ".com" must exist ("Command is not found") and be a file
    //   that may be executed ("Command is not executable");
    //   POSIX: the command must exist ("Command is not found"), be a regular
    //   file ("Command not found or not executable": a directory, a device)
    //   and be executable by this process ("Command is not executable").
    // Each invocation has a serial number of its own; an object may be
    // invoked again once the previous invocation has been waited for.
    virtual void Invoke() = 0;
    // Waits for the child's end, at most `timeoutSecs` seconds
    // (SYSCOMMAND_WAIT_INFINITE: no limit). A time-out raises
    // TimeoutException "Timeout occured after <n> seconds" and leaves the
    // child running; wait again or kill it.
    virtual void WaitForExit(std::int64_t timeoutSecs) = 0;

    // Completion of AsyncInvoke: the command, and the exception or null when
    // the child ended (its code is GetExitCode()). The exception lives for
    // the call only: Clone() it to keep it.
    typedef Functor<void(SysCommand*, Exception*)> Callback;

    // Checks and starts the command as Invoke does, then returns; `done` runs
    // once on a thread of the process's pool (threadPool.h) when the child
    // has ended, its output having been taken into memory meanwhile, or when
    // `timeoutSecs` seconds have passed first (SYSCOMMAND_WAIT_INFINITE: no
    // limit). A time-out kills the child's tree (the child alone when it has
    // none), logs "AsyncInvoke: timeout occured" and completes with
    // TimeoutException "Operation timed out"; GetExitCode then fails. The
    // command holds itself alive until `done` has run.
    //
    // The child's end is watched by the pool: on Linux through one epoll
    // descriptor over the process descriptor (pidfd) and the two output
    // pipes; on Windows through the process handle and the events of the two
    // pipes' reads (three of the pool's 64 pollable handles). Where the
    // kernel has no process descriptor, a pool timer looks every 10 ms, by
    // the child's own id, so the status of other children is never taken.
    virtual void AsyncInvoke(const Callback& done, std::int64_t timeoutSecs) = 0;

    // The exit code of the invocation that was waited for.
    virtual int GetExitCode() const = 0;
    virtual ProcessState GetProcessState() const = 0;
    virtual InvokeState GetInvokeState() const = 0;
    // The serial number of the current (or last) invocation; 0 before the
    // first.
    virtual std::uint64_t GetSerialNumber() const = 0;
    // The child's process id; 0 before the first start.
    virtual std::int64_t GetProcessId() const = 0;
    // Whether the child runs without a job of its own (see above).
    virtual bool IsJobless() const = 0;

    // Ends the child alone ("No child process to kill" when there is none);
    // its exit code becomes `exitCode`.
    virtual void Kill(int exitCode) = 0;
    // Ends the child and every process of its group ("No child job to kill"
    // when there is none).
    virtual void KillTree(int exitCode) = 0;

    // Reads at most `sizeRead` bytes of SC_STDOUT or SC_STDERR into `buffer`,
    // waiting until some have arrived; 0 at the end of the stream. Another
    // selector raises InvalidArgumentException "Invalid stream type
    // argument: <n>"; a negative size stops the process on the assertion
    // "sizeRead >= 0".
    virtual int Read(SysCommandStream stream, char* buffer, int sizeRead) = 0;
    // Everything the stream gives up to its end.
    virtual std::string ReadAll(SysCommandStream stream) = 0;
    // Writes all of `data` to the child's standard input, blocking while the
    // pipe is full. The outputs are not read meanwhile: a child that answers
    // as it reads must be read by another thread (or asynchronously) when it
    // may write more than a pipe holds (64 KiB) before the input ends. A
    // child that has closed its input gives SystemException, never a signal.
    virtual void WriteStdin(const char* data, std::size_t size) = 0;
    // Closes the child's standard input: the child reads its end.
    virtual void CloseStdin() = 0;
};

} // namespace System
} // namespace Tessera
