// Child processes, implemented in posix/process.cpp and win32/process.cpp.
//
// The portable command object (system/sysCommand.cpp) drives a start through
// the steps below and turns every native error into an exception itself; the
// back ends only call the system. A start is:
//
//     CheckCommand        resolve the command, look at the file
//     CreateChildPipes    the three standard-stream pipes
//     CreateChildGroup    Windows: an anonymous job object; POSIX: nothing yet
//     SpawnChild          create the child (suspended on Windows)
//     AssignChildToGroup  Windows: the job; POSIX: nothing (the group is made
//                         at spawn)
//     ResumeChild         Windows: resume the main thread; POSIX: nothing
//
// A child runs in a group of its own that its descendants join: a job object
// on Windows, a process group on POSIX. Killing the group reaches every
// process of the tree except one that left it on purpose (a child started
// with break-away from the job; one that called setsid or setpgid).
#pragma once

#include "system/platform/nativeError.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Tessera {
namespace System {
namespace Platform {

// How ParseRawCommand splits a command line on this platform.
enum class CommandLineStyle { Windows, Shell };
extern const CommandLineStyle kCommandLineStyle;

// What CheckCommand found wrong with a command, in the order of the checks.
enum class CommandCheck {
    Ok,
    NotAnImage, // "Command not found or not executable"
    NotFound, // "Command is not found"
    NotExecutable, // "Command is not executable"
};

// Resolves `command` (a path, or a name looked up on the PATH of this
// process) and checks that it may be started. `resolved` is the path to start;
// it is `command` itself when the check is left to the system. With `beforeStart`,
// a back end whose system reports a bad image when it starts the child itself
// (POSIX: the exec's error) may pass a path unlooked-at: the caller checks
// again, fully, when the start fails.
CommandCheck CheckCommand(const std::string& command, std::string& resolved, bool beforeStart);

// A native handle or descriptor; kNoHandle when there is none.
using NativeHandle = std::intptr_t;
extern const NativeHandle kNoHandle;

// The parent's ends of the three standard streams and the child's, before
// the child is started. Every handle here is kept from other children.
struct ChildPipes {
    NativeHandle parentIn = kNoHandle; // written by the parent
    NativeHandle parentOut = kNoHandle; // read by the parent
    NativeHandle parentErr = kNoHandle; // read by the parent; none when merged
    NativeHandle childIn = kNoHandle;
    NativeHandle childOut = kNoHandle;
    NativeHandle childErr = kNoHandle; // the output pipe again when merged
};

// A started child.
struct Child {
    std::int64_t pid = 0;
    NativeHandle process = kNoHandle; // Windows: the process; POSIX: a pidfd or none
    NativeHandle thread = kNoHandle; // Windows: the main thread until resumed
    NativeHandle group = kNoHandle; // Windows: the job, none when jobless
    bool ownGroup = false; // the child leads a group of its own
};

struct SpawnRequest {
    std::string path; // from CheckCommand
    std::vector<std::string> argv; // argv[0] is the command as given
    // kCommandLineStyle Windows: argv joined into one line by the portable
    // layer (the child splits it itself); empty otherwise.
    std::string commandLine;
    const std::vector<std::string>* environment; // "NAME=value"; null: the parent's
    std::string workingDirectory; // empty: the parent's
    bool killOnOwnerExit = false;
};

// Makes the pipes; `separateError` false sends the child's standard error to
// its standard output. On failure nothing is left open.
NativeError CreateChildPipes(bool separateError, ChildPipes& pipes);
// Closes a pipe end, a job or a descriptor and sets it to kNoHandle;
// nothing for kNoHandle.
NativeError CloseHandleOrFd(NativeHandle& handle) noexcept;

// Makes the group a child will be put in (Windows: the job object, with
// kill-on-close when `killOnClose`). POSIX: `group` stays kNoHandle.
NativeError CreateChildGroup(bool killOnClose, NativeHandle& group);

// Whether SpawnChild failed because the caller's job forbids a child to break
// away from it; the start is then retried without break-away.
bool IsBreakawayRefused(NativeError error) noexcept;

// The system calls behind the functions below, as failures name them (the
// back end's own names: "CreateProcessW" on Windows, "posix_spawn" on POSIX).
extern const char* const kSpawnCall; // SpawnChild
extern const char* const kCreateGroupCall; // CreateChildGroup
extern const char* const kAssignGroupCall; // AssignChildToGroup
extern const char* const kResumeCall; // ResumeChild
extern const char* const kKillCall; // KillChild
extern const char* const kKillGroupCall; // KillChildGroup
extern const char* const kPollExitCall; // PollChildExit
extern const char* const kWatchCall; // GetWatchHandles
extern const char* const kPumpCall; // PumpOutput
extern const char* const kWriteCall; // WriteToChild

// Starts the child with exactly the three child ends as its standard streams.
NativeError SpawnChild(const SpawnRequest& request, const ChildPipes& pipes, bool breakaway,
                       Child& child);
NativeError AssignChildToGroup(NativeHandle group, Child& child);
NativeError ResumeChild(Child& child);

// Ends the child alone, or its whole group, with `exitCode` (POSIX: SIGKILL;
// the portable layer reports the kill's code).
NativeError KillChild(const Child& child, int exitCode);
NativeError KillChildGroup(NativeHandle group, const Child& child, int exitCode);

// Releases the child's handles (not the child). Idempotent.
void ReleaseChild(Child& child) noexcept;

// The child's exit status once it has ended: `exited` false while it runs.
// `signaled` tells a POSIX child ended by a signal, `status` then being the
// signal. Never collects the status of another child.
NativeError PollChildExit(Child& child, bool& exited, int& status, bool& signaled);

// Output of a running child read into memory, so that neither pipe fills up
// while the caller waits for the other or for the child's end.
struct OutputPump;
// Made once the child runs, before the parent closes its copies of the
// child's ends. A back end whose pump watches the child's end through a
// handle (POSIX with a pidfd) takes the child's ends of the output pipes from
// `pipes` and keeps them open from the start until the first pump call
// without `watchExit`, ReleaseChildEnds, or the pump's end: while a caller
// waits for the child's end, an exiting child then wakes it once, by its end,
// instead of once for each pipe it closes and again for its end. A reader
// (a call without `watchExit`) lets them go first and sees a pipe's end as
// soon as the child closes it.
OutputPump* CreateOutputPump(ChildPipes& pipes, const Child& child);
// Closes what the pump kept of the child's ends; once the child has ended, or
// before a read that must see the end of a pipe. Idempotent; nothing for a
// null pump.
void ReleaseChildEnds(OutputPump* pump) noexcept;
void DestroyOutputPump(OutputPump* pump) noexcept;

// What a pump saw.
struct PumpResult {
    bool outEnded = false; // the pipe is at its end (or there is none)
    bool errEnded = false;
    bool childExited = false; // the child's status may be polled
    bool timedOut = false;
};

// Waits at most `timeoutMs` (negative: no limit) for output on either pipe,
// the end of a pipe, or, when `watchExit`, the end of the child, and appends
// what arrived to `out` and `err`. Returns at the first of these events.
NativeError PumpOutput(OutputPump* pump, const Child* watchExit, std::int64_t timeoutMs,
                       std::string& out, std::string& err, PumpResult& result);

// The handles that become ready (readable on POSIX, signalled on Windows)
// when PumpOutput has something to do for the pump and its child, for a
// waiter such as the thread pool: Linux, one epoll descriptor; Windows, the
// events of the reads it starts here and the process. None where the platform
// has no such handle: look again now and then.
NativeError GetWatchHandles(OutputPump* pump, std::vector<NativeHandle>& handles);

// Writes all of `data` to the child's standard input; a child that closed its
// end gives the broken-pipe error, never a signal.
NativeError WriteToChild(NativeHandle in, const char* data, std::size_t size);

} // namespace Platform
} // namespace System
} // namespace Tessera
