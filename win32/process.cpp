// Windows child processes: the three standard streams over named pipes made
// by CmdPipe, an anonymous job object for the tree, CreateProcessW with an
// explicit list of the handles the child may inherit.

#include "system/platform/process.h"
#include "win32/support.h"

#include <tessera/assert.h>

#include <windows.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <memory>

namespace Tessera {
namespace System {
namespace Platform {

const CommandLineStyle kCommandLineStyle = CommandLineStyle::Windows;
const NativeHandle kNoHandle = reinterpret_cast<NativeHandle>(INVALID_HANDLE_VALUE);
const char* const kSpawnCall = "CreateProcessW";
const char* const kCreateGroupCall = "CreateJobObjectW";
const char* const kAssignGroupCall = "AssignProcessToJobObject";
const char* const kResumeCall = "ResumeThread";
const char* const kKillCall = "TerminateProcess";
const char* const kKillGroupCall = "TerminateJobObject";
const char* const kPollExitCall = "GetExitCodeProcess";
const char* const kWatchCall = "ReadFile";
const char* const kPumpCall = "WaitForMultipleObjects";
const char* const kWriteCall = "WriteFile";

namespace {

// No window, break away from the caller's job, wide-text environment, normal
// priority, suspended; the same without break-away for the second attempt.
constexpr DWORD kCreateFlags = 0x9000424;
constexpr DWORD kCreateFlagsNoBreakaway = 0x8000424;
static_assert(kCreateFlags ==
                  (CREATE_NO_WINDOW | CREATE_BREAKAWAY_FROM_JOB | CREATE_UNICODE_ENVIRONMENT |
                   NORMAL_PRIORITY_CLASS | CREATE_SUSPENDED),
              "creation flags");
static_assert(kCreateFlagsNoBreakaway == (kCreateFlags & ~CREATE_BREAKAWAY_FROM_JOB),
              "creation flags without break-away");

constexpr DWORD kPipeBufferSize = 65536;

HANDLE H(NativeHandle h) { return reinterpret_cast<HANDLE>(h); }
NativeHandle N(HANDLE h) { return reinterpret_cast<NativeHandle>(h); }

bool EndsWith(const std::string& text, const char* suffix) {
    const std::size_t n = std::strlen(suffix);
    if (text.size() < n) {
        return false;
    }
    return _stricmp(text.c_str() + text.size() - n, suffix) == 0;
}

// One end of a named pipe for a child's standard stream: the server end stays
// with the parent (overlapped, not inheritable), the client end, opened with
// `accessMode`, goes to the child (synchronous, inheritable). The name is
// "\\.\pipe\<process id>-<serial>-<stream>".
class CmdPipe {
public:
    CmdPipe() = default;
    CmdPipe(const CmdPipe&) = delete;
    CmdPipe& operator=(const CmdPipe&) = delete;

    NativeError Open(DWORD accessMode, const char* stream) {
        TESSERA_ASSERT(accessMode == (0x80000000L) || accessMode == (0x40000000L));
        TESSERA_ASSERT(!_rd.Valid());
        static std::atomic<unsigned> serial{0};
        wchar_t name[128];
        std::swprintf(name, sizeof name / sizeof name[0], L"\\\\.\\pipe\\%lu-%u-%hs",
                      GetCurrentProcessId(), ++serial, stream);
        // The child reads (GENERIC_READ) what the parent writes, and the
        // other way round.
        const DWORD direction =
            accessMode == GENERIC_READ ? PIPE_ACCESS_OUTBOUND : PIPE_ACCESS_INBOUND;
        _rd.Reset(CreateNamedPipeW(
            name, direction | FILE_FLAG_OVERLAPPED | FILE_FLAG_FIRST_PIPE_INSTANCE,
            PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS, 1,
            kPipeBufferSize, kPipeBufferSize, 0, nullptr));
        if (!_rd.Valid()) {
            return LastError();
        }
        SECURITY_ATTRIBUTES inherit{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
        _wr.Reset(CreateFileW(name, accessMode, 0, &inherit, OPEN_EXISTING, 0, nullptr));
        if (!_wr.Valid()) {
            return LastError();
        }
        // The client is there already: the connection completes at once.
        OVERLAPPED connect{};
        connect.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        if (connect.hEvent == nullptr) {
            return LastError();
        }
        NativeError error = kSuccess;
        if (!ConnectNamedPipe(_rd.Get(), &connect)) {
            const DWORD e = GetLastError();
            if (e == ERROR_IO_PENDING) {
                DWORD ignored;
                if (!GetOverlappedResult(_rd.Get(), &connect, &ignored, TRUE)) {
                    error = LastError();
                }
            } else if (e != ERROR_PIPE_CONNECTED) {
                error = static_cast<NativeError>(e);
            }
        }
        CloseHandle(connect.hEvent);
        return error;
    }

    // The parent's end and the child's, given up by the pipe.
    HANDLE TakeServer() { return _rd.Release(); }
    HANDLE TakeClient() { return _wr.Release(); }

private:
    ScopedHandle _rd; // the server end
    ScopedHandle _wr; // the client end
};

// "A=1\0B=2\0\0"; an empty environment is two zeros.
NativeError EnvironmentBlock(const std::vector<std::string>& environment, std::wstring& block) {
    block.clear();
    std::wstring wide;
    for (const std::string& entry : environment) {
        if (const NativeError error = Utf8ToWide(entry, wide)) {
            return error;
        }
        block += wide;
        block += L'\0';
    }
    if (block.empty()) {
        block += L'\0';
    }
    block += L'\0';
    return kSuccess;
}

} // namespace

CommandCheck CheckCommand(const std::string& command, std::string& resolved, bool) {
    resolved = command;
    std::wstring path;
    if (Utf8ToWide(command, path) != kSuccess) {
        return CommandCheck::Ok; // left to the start, which reports the text
    }
    if (command.find_first_of("\\/:") == std::string::npos) {
        wchar_t found[MAX_PATH];
        const DWORD n = SearchPathW(nullptr, path.c_str(), nullptr, MAX_PATH, found, nullptr);
        if (n > 0 && n < MAX_PATH) {
            path = found;
        }
    }
    if (EndsWith(command, ".exe")) {
        DWORD type;
        return GetBinaryTypeW(path.c_str(), &type) ? CommandCheck::Ok : CommandCheck::NotAnImage;
    }
    if (EndsWith(command, ".bat") || EndsWith(command, ".cmd") || EndsWith(command, ".com")) {
        const DWORD attributes = GetFileAttributesW(path.c_str());
        if (attributes == INVALID_FILE_ATTRIBUTES) {
            return CommandCheck::NotFound;
        }
        if ((attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
            return CommandCheck::NotExecutable;
        }
    }
    return CommandCheck::Ok;
}

NativeError CreateChildPipes(bool separateError, ChildPipes& pipes) {
    CmdPipe in;
    CmdPipe out;
    CmdPipe err;
    NativeError error = in.Open(GENERIC_READ, "stdin");
    if (error == kSuccess) {
        error = out.Open(GENERIC_WRITE, "stdout");
    }
    if (error == kSuccess && separateError) {
        error = err.Open(GENERIC_WRITE, "stderr");
    }
    if (error != kSuccess) {
        return error;
    }
    pipes.parentIn = N(in.TakeServer());
    pipes.childIn = N(in.TakeClient());
    pipes.parentOut = N(out.TakeServer());
    pipes.childOut = N(out.TakeClient());
    if (separateError) {
        pipes.parentErr = N(err.TakeServer());
        pipes.childErr = N(err.TakeClient());
    } else {
        pipes.parentErr = kNoHandle;
        pipes.childErr = pipes.childOut;
    }
    return kSuccess;
}

NativeError CloseHandleOrFd(NativeHandle& handle) noexcept {
    if (handle == kNoHandle) {
        return kSuccess;
    }
    const BOOL closed = CloseHandle(H(handle));
    handle = kNoHandle;
    return closed ? kSuccess : LastError();
}

NativeError CreateChildGroup(bool killOnClose, NativeHandle& group) {
    const HANDLE job = CreateJobObjectW(nullptr, nullptr);
    if (job == nullptr) {
        return LastError();
    }
    if (killOnClose) {
        JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
        limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
        if (!SetInformationJobObject(job, JobObjectExtendedLimitInformation, &limits,
                                     sizeof limits)) {
            const NativeError error = LastError();
            CloseHandle(job);
            return error;
        }
    }
    group = N(job);
    return kSuccess;
}

bool IsBreakawayRefused(NativeError error) noexcept { return error == ERROR_ACCESS_DENIED; }

NativeError SpawnChild(const SpawnRequest& request, const ChildPipes& pipes, bool breakaway,
                       Child& child) {
    // Only the child's three ends are inherited, whatever else of this
    // process is inheritable.
    HANDLE inherited[3];
    DWORD count = 0;
    inherited[count++] = H(pipes.childIn);
    inherited[count++] = H(pipes.childOut);
    if (pipes.childErr != pipes.childOut) {
        inherited[count++] = H(pipes.childErr);
    }
    SIZE_T size = 0;
    InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
    std::unique_ptr<char[]> storage(new char[size]);
    auto* attributes = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(storage.get());
    if (!InitializeProcThreadAttributeList(attributes, 1, 0, &size)) {
        return LastError();
    }
    struct AttributeListGuard {
        LPPROC_THREAD_ATTRIBUTE_LIST list;
        ~AttributeListGuard() { DeleteProcThreadAttributeList(list); }
    } guard{attributes};
    if (!UpdateProcThreadAttribute(attributes, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, inherited,
                                   count * sizeof(HANDLE), nullptr, nullptr)) {
        return LastError();
    }

    STARTUPINFOEXW startup{};
    startup.StartupInfo.cb = sizeof startup;
    startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
    startup.StartupInfo.hStdInput = H(pipes.childIn);
    startup.StartupInfo.hStdOutput = H(pipes.childOut);
    startup.StartupInfo.hStdError = H(pipes.childErr);
    startup.lpAttributeList = attributes;

    std::wstring commandLine;
    if (const NativeError error = Utf8ToWide(request.commandLine, commandLine)) {
        return error;
    }
    std::wstring environment;
    if (request.environment != nullptr) {
        if (const NativeError error = EnvironmentBlock(*request.environment, environment)) {
            return error;
        }
    }
    std::wstring directory;
    if (const NativeError error = Utf8ToWide(request.workingDirectory, directory)) {
        return error;
    }
    PROCESS_INFORMATION info{};
    const DWORD flags =
        (breakaway ? kCreateFlags : kCreateFlagsNoBreakaway) | EXTENDED_STARTUPINFO_PRESENT;
    if (!CreateProcessW(nullptr, &commandLine[0], nullptr, nullptr, TRUE, flags,
                        request.environment != nullptr ? &environment[0] : nullptr,
                        directory.empty() ? nullptr : directory.c_str(), &startup.StartupInfo,
                        &info)) {
        return LastError();
    }
    child.pid = info.dwProcessId;
    child.process = N(info.hProcess);
    child.thread = N(info.hThread);
    child.ownGroup = false;
    return kSuccess;
}

NativeError AssignChildToGroup(NativeHandle group, Child& child) {
    return AssignProcessToJobObject(H(group), H(child.process)) ? kSuccess : LastError();
}

NativeError ResumeChild(Child& child) {
    NativeError error = kSuccess;
    if (ResumeThread(H(child.thread)) == static_cast<DWORD>(-1)) {
        error = LastError();
    }
    CloseHandleOrFd(child.thread);
    return error;
}

NativeError KillChild(const Child& child, int exitCode) {
    if (TerminateProcess(H(child.process), static_cast<UINT>(exitCode))) {
        return kSuccess;
    }
    const NativeError error = LastError();
    // A child that has ended already is not an error.
    return WaitForSingleObject(H(child.process), 0) == WAIT_OBJECT_0 ? kSuccess : error;
}

NativeError KillChildGroup(NativeHandle group, const Child&, int exitCode) {
    return TerminateJobObject(H(group), static_cast<UINT>(exitCode)) ? kSuccess : LastError();
}

void ReleaseChild(Child& child) noexcept {
    CloseHandleOrFd(child.thread);
    CloseHandleOrFd(child.process);
}

NativeError PollChildExit(Child& child, bool& exited, int& status, bool& signaled) {
    signaled = false;
    const DWORD wait = WaitForSingleObject(H(child.process), 0);
    if (wait == WAIT_FAILED) {
        return LastError();
    }
    exited = wait == WAIT_OBJECT_0;
    if (exited) {
        DWORD code = 0;
        if (!GetExitCodeProcess(H(child.process), &code)) {
            return LastError();
        }
        status = static_cast<int>(code);
    }
    return kSuccess;
}

// One output pipe with an overlapped read that may be under way between two
// pumps.
struct PumpedPipe {
    HANDLE pipe = INVALID_HANDLE_VALUE;
    OVERLAPPED overlapped{};
    bool pending = false;
    bool ended = true;
    char buffer[kPipeBufferSize];

    void Start(HANDLE h) {
        pipe = h;
        ended = h == INVALID_HANDLE_VALUE;
        if (!ended) {
            overlapped.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        }
    }
    ~PumpedPipe() {
        if (pending) {
            CancelIoEx(pipe, &overlapped);
            DWORD ignored;
            GetOverlappedResult(pipe, &overlapped, &ignored, TRUE);
        }
        if (overlapped.hEvent != nullptr) {
            CloseHandle(overlapped.hEvent);
        }
    }

    // Starts a read unless one is under way or the pipe has ended.
    NativeError Issue() {
        if (pending || ended) {
            return kSuccess;
        }
        ResetEvent(overlapped.hEvent);
        if (ReadFile(pipe, buffer, sizeof buffer, nullptr, &overlapped)) {
            pending = true; // done at once; collected like any other
            return kSuccess;
        }
        const DWORD error = GetLastError();
        if (error == ERROR_IO_PENDING) {
            pending = true;
            return kSuccess;
        }
        if (error == ERROR_BROKEN_PIPE || error == ERROR_PIPE_NOT_CONNECTED) {
            ended = true;
            return kSuccess;
        }
        return static_cast<NativeError>(error);
    }

    // Takes a finished read's bytes; true when something happened.
    bool Collect(std::string& to, NativeError& error) {
        if (!pending || !HasOverlappedIoCompleted(&overlapped)) {
            return false;
        }
        pending = false;
        DWORD got = 0;
        if (GetOverlappedResult(pipe, &overlapped, &got, FALSE)) {
            to.append(buffer, got);
            return true;
        }
        const DWORD e = GetLastError();
        if (e == ERROR_BROKEN_PIPE || e == ERROR_PIPE_NOT_CONNECTED) {
            ended = true;
        } else if (e == ERROR_OPERATION_ABORTED) {
            // The thread that started the read has ended, which cancels its
            // I/O: the bytes are still in the pipe, the next read takes them.
        } else {
            error = static_cast<NativeError>(e);
        }
        return true;
    }
};

struct OutputPump {
    PumpedPipe out;
    PumpedPipe err;
    HANDLE process = INVALID_HANDLE_VALUE;
};

OutputPump* CreateOutputPump(ChildPipes& pipes, const Child& child) {
    OutputPump* pump = new OutputPump;
    pump->process = H(child.process);
    pump->out.Start(H(pipes.parentOut));
    pump->err.Start(H(pipes.parentErr));
    return pump;
}

void ReleaseChildEnds(OutputPump*) noexcept {}

void DestroyOutputPump(OutputPump* pump) noexcept { delete pump; }

NativeError GetWatchHandles(OutputPump* pump, std::vector<NativeHandle>& handles) {
    handles.clear();
    NativeError error = pump->out.Issue();
    if (error == kSuccess) {
        error = pump->err.Issue();
    }
    if (error != kSuccess) {
        return error;
    }
    if (pump->out.pending) {
        handles.push_back(N(pump->out.overlapped.hEvent));
    }
    if (pump->err.pending) {
        handles.push_back(N(pump->err.overlapped.hEvent));
    }
    handles.push_back(N(pump->process));
    return kSuccess;
}

NativeError PumpOutput(OutputPump* pump, const Child* watchExit, std::int64_t timeoutMs,
                       std::string& out, std::string& err, PumpResult& result) {
    result = PumpResult{};
    const ULONGLONG deadline =
        timeoutMs < 0 ? 0 : GetTickCount64() + static_cast<ULONGLONG>(timeoutMs);
    for (;;) {
        NativeError error = pump->out.Issue();
        if (error == kSuccess) {
            error = pump->err.Issue();
        }
        if (error != kSuccess) {
            return error;
        }
        HANDLE handles[3];
        DWORD count = 0;
        if (pump->out.pending) {
            handles[count++] = pump->out.overlapped.hEvent;
        }
        if (pump->err.pending) {
            handles[count++] = pump->err.overlapped.hEvent;
        }
        if (watchExit != nullptr) {
            handles[count++] = H(watchExit->process);
        }
        result.outEnded = pump->out.ended;
        result.errEnded = pump->err.ended;
        if (count == 0) {
            return kSuccess;
        }
        DWORD wait = INFINITE;
        if (timeoutMs >= 0) {
            const ULONGLONG now = GetTickCount64();
            wait = now >= deadline ? 0 : static_cast<DWORD>(deadline - now);
        }
        const DWORD woke = WaitForMultipleObjects(count, handles, FALSE, wait);
        if (woke == WAIT_FAILED) {
            return LastError();
        }
        bool any = pump->out.Collect(out, error);
        any = pump->err.Collect(err, error) || any;
        if (error != kSuccess) {
            return error;
        }
        if (watchExit != nullptr &&
            WaitForSingleObject(H(watchExit->process), 0) == WAIT_OBJECT_0) {
            result.childExited = true;
            any = true;
        }
        result.outEnded = pump->out.ended;
        result.errEnded = pump->err.ended;
        if (any) {
            return kSuccess;
        }
        if (woke == WAIT_TIMEOUT) {
            result.timedOut = true;
            return kSuccess;
        }
    }
}

NativeError WriteToChild(NativeHandle in, const char* data, std::size_t size) {
    OVERLAPPED overlapped{};
    overlapped.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    if (overlapped.hEvent == nullptr) {
        return LastError();
    }
    NativeError error = kSuccess;
    while (size > 0 && error == kSuccess) {
        const DWORD piece = size > (1u << 30) ? (1u << 30) : static_cast<DWORD>(size);
        DWORD done = 0;
        ResetEvent(overlapped.hEvent);
        if (!WriteFile(H(in), data, piece, nullptr, &overlapped) &&
            GetLastError() != ERROR_IO_PENDING) {
            error = LastError();
        } else if (!GetOverlappedResult(H(in), &overlapped, &done, TRUE)) {
            error = LastError();
        }
        data += done;
        size -= done;
    }
    CloseHandle(overlapped.hEvent);
    return error;
}

} // namespace Platform
} // namespace System
} // namespace Tessera
