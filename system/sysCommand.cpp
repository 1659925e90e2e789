// Child processes: the portable command object over the platform's steps
// (system/platform/process.h).
//
// Three locks: the object's own (state, the child, the kill flags), the
// output lock, held by the one thread that reads the pipes, whether it reads
// or waits, and the lock of the standard-input writer. The object's lock is
// always taken last and never held while blocking; Kill needs only it, so it
// is never held up by a wait, a read or a write.

#include <tessera/assert.h>
#include <tessera/exception.h>
#include <tessera/formatter.h>
#include <tessera/logger.h>
#include <tessera/system/syncRaii.h>
#include <tessera/system/sysCommand.h>
#include <tessera/system/threadPool.h>

#include "system/commandLine.h"
#include "system/platform/process.h"
#include "system/systemFactoryImpl.h"
#include "system/utf8.h"

#include <algorithm>
#include <chrono>
#include <memory>
#include <mutex>
#include <thread>

namespace Tessera {
namespace System {

using Service::Logger;

void ParseRawCommand(const std::string& raw, SysCommandSpec& spec) {
    std::vector<std::string> words;
    if (Platform::kCommandLineStyle == Platform::CommandLineStyle::Windows) {
        SplitWindowsCommandLine(raw, words);
    } else {
        std::string error;
        if (!SplitShellWords(raw, words, error)) {
            throw InvalidArgumentException(
                MessageFormatter::ASPrint("Command line '%1': %2", raw, error));
        }
    }
    if (words.empty() || words[0].empty()) {
        throw InvalidArgumentException(MessageFormatter::ASPrint("Empty command line '%1'", raw));
    }
    spec.command = words[0];
    spec.args.assign(words.begin() + 1, words.end());
}

namespace {

const char kSequenceError[] =
    "Sequence Error  - Invoke() in process or WaitForExit() not called yet";
const char kResourceError[] = "Initialization Error  - Resource issues during object construction";
const char kNoSpecError[] = "Initialization Error - Resource issues during object construction";
const char kNoExitCode[] = "Invoke() was not called or did not complete";
const char kNoOutput[] =
    "The specified stream does not exist.Invoke() must be called before reading from stdout/stderr";
const char kNoStdin[] = "Stdin does not exist.Invoke() must be called before writing to stdin";
const char kInvalidState[] = "Invalid state";

// The text a failed command is reported with.
std::string ResultText(const std::string& message, int code, const std::string& detail) {
    return "Error: " + message + ", code: " + std::to_string(code) + ", detail: " + detail;
}

// Received output, read from the front.
struct OutputBuffer {
    std::string data;
    std::size_t pos = 0;
    bool ended = false;

    std::size_t Available() const { return data.size() - pos; }
    std::size_t Take(char* to, std::size_t max) {
        const std::size_t n = std::min(max, Available());
        data.copy(to, n, pos);
        pos += n;
        if (pos == data.size()) {
            data.clear();
            pos = 0;
        } else if (pos > 65536 && pos > data.size() / 2) {
            data.erase(0, pos);
            pos = 0;
        }
        return n;
    }
    void Reset() {
        data.clear();
        pos = 0;
        ended = false;
    }
};

class SysCommandImpl final : public LockableObjectImpl, public SysCommand {
public:
    SysCommandImpl() = default;
    explicit SysCommandImpl(const SysCommandSpec& spec) : _spec(spec), _hasSpec(true) {}
    ~SysCommandImpl() override {
        if (_started && _processState == SC_RUNNING) {
            if (_spec.killTreeOnOwnerExit) {
                Platform::KillChildGroup(_group, _child, 1);
            }
            CollectLater();
        }
        Cleanup();
    }

    // SysCommand:
    void SetSpec(const SysCommandSpec& spec) override {
        Synchronized hold(this);
        if (_invokeState != SC_INVK_NONE) {
            throw InvalidStateException(kInvalidState);
        }
        _spec = spec;
        _hasSpec = true;
    }
    SysCommandSpec GetSpec() const override {
        Synchronized hold(const_cast<SysCommandImpl*>(this));
        return _spec;
    }

    void Invoke() override;
    void AsyncInvoke(const Callback& done, std::int64_t timeoutSecs) override;
    void WaitForExit(std::int64_t timeoutSecs) override;

    int GetExitCode() const override {
        Synchronized hold(const_cast<SysCommandImpl*>(this));
        if (!_completed) {
            throw InvalidStateException(kNoExitCode);
        }
        return _exitCode;
    }
    ProcessState GetProcessState() const override {
        Synchronized hold(const_cast<SysCommandImpl*>(this));
        return _processState;
    }
    InvokeState GetInvokeState() const override {
        Synchronized hold(const_cast<SysCommandImpl*>(this));
        return _invokeState;
    }
    std::uint64_t GetSerialNumber() const override {
        Synchronized hold(const_cast<SysCommandImpl*>(this));
        return _currentSn;
    }
    std::int64_t GetProcessId() const override {
        Synchronized hold(const_cast<SysCommandImpl*>(this));
        return _child.pid;
    }
    bool IsJobless() const override {
        Synchronized hold(const_cast<SysCommandImpl*>(this));
        return _jobless;
    }

    void Kill(int exitCode) override;
    void KillTree(int exitCode) override;

    int Read(SysCommandStream stream, char* buffer, int sizeRead) override;
    std::string ReadAll(SysCommandStream stream) override;
    void WriteStdin(const char* data, std::size_t size) override;
    void CloseStdin() override;

private:
    // Everything of the last invocation but its results. Called with every
    // lock held, or from the destructor.
    void Cleanup() noexcept {
        if (_pump != nullptr) {
            Platform::DestroyOutputPump(_pump);
            _pump = nullptr;
        }
        ClosePipeEnd(_pipes.parentIn);
        ClosePipeEnd(_pipes.parentOut);
        ClosePipeEnd(_pipes.parentErr);
        CloseChildEnds();
        Platform::ReleaseChild(_child);
        Platform::CloseHandleOrFd(_group);
    }
    static void ClosePipeEnd(Platform::NativeHandle& end) noexcept {
        const Platform::NativeHandle handle = end;
        const Platform::NativeError error = Platform::CloseHandleOrFd(end);
        if (error != Platform::kSuccess) {
            TESSERA_LOG(Service::DefaultLogger(), Logger::LOG_WARNING,
                        "Unable to close pipe handle: %1 (error %2)",
                        static_cast<long long>(handle), error);
        }
    }
    // The child's ends, once the child has them.
    void CloseChildEnds() noexcept {
        if (_pipes.childErr == _pipes.childOut) {
            _pipes.childErr = Platform::kNoHandle;
        }
        ClosePipeEnd(_pipes.childIn);
        ClosePipeEnd(_pipes.childOut);
        ClosePipeEnd(_pipes.childErr);
    }
    // A child still running when its command goes away is collected by the
    // pool once it ends, so that it leaves no zombie behind (POSIX).
    void CollectLater() noexcept {
        if (_child.process == Platform::kNoHandle) {
            return;
        }
        Platform::Child child = _child;
        try {
            GetThreadPool()->RegisterPollable(child.process, [child]() mutable {
                bool exited = false;
                int status = 0;
                bool signaled = false;
                Platform::PollChildExit(child, exited, status, signaled);
                Platform::ReleaseChild(child);
            });
            _child.process = Platform::kNoHandle;
            _child.thread = Platform::kNoHandle;
        } catch (...) {
            // The pool is gone or full: the system collects the child when
            // this process ends.
        }
    }
    // Checks the command and starts the child; every lock held.
    void Start(InvokeState how);
    // Asynchronous invocations. Each pool functor carries the serial number
    // of its invocation and, for the watches, the number of the arming that
    // registered it; one that finds either outdated does nothing.
    void Arm();
    void Disarm();
    void OnReady(std::uint64_t sn, std::uint64_t armId);
    void OnTimeout(std::uint64_t sn);
    // Ends an asynchronous invocation whose child did not end by itself: the
    // tree is killed and the child collected.
    void Abandon();
    // Looks whether the child has ended and, when it has, completes the
    // invocation. Called with both locks held.
    void CheckExit();
    void Complete(int status, bool signaled);
    std::string CommandLineText() const {
        std::string line = _spec.command;
        for (const std::string& a : _spec.args) {
            line += ' ';
            line += a;
        }
        return line;
    }

    SysCommandSpec _spec;
    bool _hasSpec = false;

    ProcessState _processState = SC_NOT_RUNNING;
    InvokeState _invokeState = SC_INVK_NONE;
    std::uint64_t _currentSn = 0;

    bool _started = false; // a child was started and is not yet waited for
    bool _jobless = false;
    Platform::Child _child;
    Platform::NativeHandle _group = Platform::kNoHandle;
    Platform::ChildPipes _pipes;
    Platform::OutputPump* _pump = nullptr;

    bool _killIssued = false;
    int _killCode = 0;
    bool _completed = false;
    int _exitCode = 0;

    // Taken in this order: output, standard input, the object's lock.
    std::mutex _outputLock;
    OutputBuffer _out;
    OutputBuffer _err;
    std::mutex _stdinLock; // the writer of standard input

    // Asynchronous invocations.
    Callback _callback;
    Ref<Timer> _timeoutTimer;
    Ref<Timer> _lookAgainTimer;
    std::vector<Platform::NativeHandle> _watched;
    std::uint64_t _armId = 0;
};

namespace {

void ThrowIfRefused(Platform::CommandCheck check) {
    switch (check) {
    case Platform::CommandCheck::Ok: return;
    case Platform::CommandCheck::NotAnImage:
        throw FileIONotFoundException("Command not found or not executable");
    case Platform::CommandCheck::NotFound: throw FileIONotFoundException("Command is not found");
    case Platform::CommandCheck::NotExecutable:
        throw FileIOPermissionDeniedException("Command is not executable");
    }
}

} // namespace

void SysCommandImpl::Invoke() {
    std::lock_guard<std::mutex> output(_outputLock);
    std::lock_guard<std::mutex> in(_stdinLock);
    Synchronized hold(this);
    Start(SC_INVK_CALLED);
}

void SysCommandImpl::Start(InvokeState how) {
    if (_invokeState != SC_INVK_NONE) {
        throw InvalidStateException(kSequenceError);
    }
    if (!_hasSpec || _spec.command.empty()) {
        throw InvalidStateException(kNoSpecError);
    }
    Logger* log = Service::DefaultLogger();
    const std::string commandLine = CommandLineText();

    // Every text the system gets is UTF-8, on every platform.
    RequireUtf8(_spec.command, "Command");
    for (const std::string& arg : _spec.args) RequireUtf8(arg, "Argument");
    if (_spec.environment) {
        for (const std::string& entry : *_spec.environment) RequireUtf8(entry, "Environment entry");
    }
    RequireUtf8(_spec.workingDirectory, "Working directory");

    TESSERA_LOG(log, Logger::LOG_VERBOSE, "Checking command %1", _spec.command);
    Platform::SpawnRequest request;
    ThrowIfRefused(Platform::CheckCommand(_spec.command, request.path, true));

    Cleanup();
    _started = false;
    _jobless = false;
    _child = Platform::Child{};
    _killIssued = false;
    _completed = false;
    _exitCode = 0;
    _out.Reset();
    _err.Reset();
    ++_currentSn;

    TESSERA_LOG(log, Logger::LOG_VERBOSE, "Starting process: %1", commandLine);
    try {
        Platform::NativeError error = Platform::CreateChildPipes(_spec.separateStderr, _pipes);
        if (error != Platform::kSuccess) {
            ThrowSystemError(error, kResourceError);
        }
        TESSERA_LOG(log, Logger::LOG_VERBOSE, "Prepared command pipes");

        error = Platform::CreateChildGroup(_spec.killTreeOnOwnerExit, _group);
        if (error != Platform::kSuccess) {
            ThrowSystemError(error, Platform::kCreateGroupCall);
        }
        if (_group != Platform::kNoHandle) {
            TESSERA_LOG(log, Logger::LOG_VERBOSE, "Created Job Object");
        }

        request.argv.reserve(_spec.args.size() + 1);
        request.argv.push_back(_spec.command);
        request.argv.insert(request.argv.end(), _spec.args.begin(), _spec.args.end());
        if (Platform::kCommandLineStyle == Platform::CommandLineStyle::Windows) {
            request.commandLine = JoinWindowsCommandLine(request.argv);
        }
        request.environment = _spec.environment ? &*_spec.environment : nullptr;
        request.workingDirectory = _spec.workingDirectory;
        request.killOnOwnerExit = _spec.killTreeOnOwnerExit;

        error = Platform::SpawnChild(request, _pipes, true, _child);
        if (error != Platform::kSuccess && Platform::IsBreakawayRefused(error)) {
            TESSERA_LOG(log, Logger::LOG_WARNING,
                        "Access Denied creating process, attempting no breakaway create.");
            error = Platform::SpawnChild(request, _pipes, false, _child);
            if (error == Platform::kSuccess) {
                TESSERA_LOG(log, Logger::LOG_WARNING, "Creating a jobless child process.");
                Platform::CloseHandleOrFd(_group);
                _jobless = true;
            }
        }
        if (error != Platform::kSuccess) {
            // Where the check was left to the start, it now says why.
            std::string ignored;
            ThrowIfRefused(Platform::CheckCommand(_spec.command, ignored, false));
            ThrowSystemError(error, Platform::kSpawnCall);
        }
        _started = true;

        if (!_jobless && _group != Platform::kNoHandle) {
            error = Platform::AssignChildToGroup(_group, _child);
            if (error != Platform::kSuccess) {
                Platform::KillChild(_child, 1);
                ThrowSystemError(error, Platform::kAssignGroupCall);
            }
        }
        error = Platform::ResumeChild(_child);
        if (error != Platform::kSuccess) {
            Platform::KillChild(_child, 1);
            ThrowSystemError(error, Platform::kResumeCall);
        }
    } catch (const Exception& e) {
        const SystemException* system = dynamic_cast<const SystemException*>(&e);
        TESSERA_LOG(log, Logger::LOG_ERROR, "Process '%1' failed: %2", _spec.command,
                    ResultText(e.what(), system != nullptr ? system->ErrorId() : 0, commandLine));
        if (_started) {
            // Collected so that no zombie is left behind.
            bool exited = false;
            int status = 0;
            bool signaled = false;
            for (int i = 0; i < 100 && !exited; ++i) {
                if (Platform::PollChildExit(_child, exited, status, signaled) !=
                    Platform::kSuccess) {
                    break;
                }
                if (!exited) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(10));
                }
            }
            _started = false;
        }
        Cleanup();
        throw;
    }
    _pump = Platform::CreateOutputPump(_pipes, _child);
    CloseChildEnds(); // those the pump did not keep
    _out.ended = _pipes.parentOut == Platform::kNoHandle;
    _err.ended = _pipes.parentErr == Platform::kNoHandle;
    _processState = SC_RUNNING;
    _invokeState = how;
    TESSERA_LOG(log, Logger::LOG_VERBOSE, "Command invoked");
}

void SysCommandImpl::AsyncInvoke(const Callback& done, std::int64_t timeoutSecs) {
    if (done.IsNull()) {
        throw InvalidArgumentException("AsyncInvoke: no completion callback");
    }
    std::lock_guard<std::mutex> output(_outputLock);
    std::lock_guard<std::mutex> in(_stdinLock);
    Synchronized hold(this);
    Start(SC_INVK_ASYNC);
    _callback = done;
    try {
        if (timeoutSecs >= 0) {
            const std::uint64_t sn = _currentSn;
            Ref<SysCommandImpl> self(this);
            GetThreadPool()->ScheduleTimer(
                timeoutSecs * 1000000, [self, sn] { self->OnTimeout(sn); }, _timeoutTimer);
        }
        Arm();
    } catch (...) {
        Abandon();
        throw;
    }
}

void SysCommandImpl::Arm() {
    const std::uint64_t sn = _currentSn;
    const std::uint64_t armId = ++_armId;
    Ref<SysCommandImpl> self(this);
    std::vector<Platform::NativeHandle> handles;
    const Platform::NativeError error = Platform::GetWatchHandles(_pump, handles);
    if (error != Platform::kSuccess) {
        ThrowSystemError(error, Platform::kWatchCall);
    }
    ThreadPool* pool = GetThreadPool();
    if (handles.empty()) {
        pool->ScheduleTimer(
            10000, [self, sn, armId] { self->OnReady(sn, armId); }, _lookAgainTimer);
        return;
    }
    for (Platform::NativeHandle h : handles) {
        pool->RegisterPollable(h, [self, sn, armId] { self->OnReady(sn, armId); });
        _watched.push_back(h);
    }
}

void SysCommandImpl::Disarm() {
    ++_armId;
    ThreadPool* pool = GetThreadPool();
    for (Platform::NativeHandle h : _watched) {
        pool->UnregisterPollable(h);
    }
    _watched.clear();
    if (_lookAgainTimer) {
        _lookAgainTimer->Cancel();
        _lookAgainTimer = nullptr;
    }
}

void SysCommandImpl::Abandon() {
    Disarm();
    if (_timeoutTimer) {
        _timeoutTimer->Cancel();
        _timeoutTimer = nullptr;
    }
    if (_jobless || (_group == Platform::kNoHandle && !_child.ownGroup)) {
        Platform::KillChild(_child, 1);
    } else {
        Platform::KillChildGroup(_group, _child, 1);
    }
    bool exited = false;
    int status = 0;
    bool signaled = false;
    for (int i = 0; i < 1000 && !exited; ++i) {
        if (Platform::PollChildExit(_child, exited, status, signaled) != Platform::kSuccess) {
            break;
        }
        if (!exited) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    Platform::ReleaseChildEnds(_pump);
    Platform::ReleaseChild(_child);
    _processState = SC_NOT_RUNNING;
    _invokeState = SC_INVK_NONE;
    _completed = false;
    _callback.Clear();
}

void SysCommandImpl::OnReady(std::uint64_t sn, std::uint64_t armId) {
    Callback done;
    std::unique_ptr<Exception> failure;
    {
        std::lock_guard<std::mutex> output(_outputLock);
        Synchronized hold(this);
        TESSERA_ASSERT(sn <= _currentSn);
        if (sn != _currentSn || armId != _armId || _invokeState != SC_INVK_ASYNC) {
            return; // a late call of an earlier invocation or arming
        }
        try {
            Disarm();
            Platform::PumpResult result;
            do {
                const Platform::NativeError error =
                    Platform::PumpOutput(_pump, &_child, 0, _out.data, _err.data, result);
                if (error != Platform::kSuccess) {
                    ThrowSystemError(error, Platform::kPumpCall);
                }
                _out.ended = _out.ended || result.outEnded;
                _err.ended = _err.ended || result.errEnded;
            } while (!result.timedOut && !result.childExited &&
                     !(result.outEnded && result.errEnded));
            done = _callback;
            CheckExit();
            if (_invokeState == SC_INVK_ASYNC) {
                done.Clear();
                Arm();
                return;
            }
            _callback.Clear();
            if (_timeoutTimer) {
                _timeoutTimer->Cancel();
                _timeoutTimer = nullptr;
            }
        } catch (const Exception& e) {
            failure.reset(e.Clone());
            done = _callback;
            Abandon();
        }
    }
    done(this, failure.get());
}

void SysCommandImpl::OnTimeout(std::uint64_t sn) {
    Callback done;
    {
        std::lock_guard<std::mutex> output(_outputLock);
        Synchronized hold(this);
        if (sn != _currentSn || _invokeState != SC_INVK_ASYNC) {
            return; // the invocation it was set for is over
        }
        TESSERA_LOG(Service::DefaultLogger(), Logger::LOG_WARNING, "AsyncInvoke: timeout occured");
        done = _callback;
        _timeoutTimer = nullptr;
        Abandon();
    }
    TimeoutException timedOut("Operation timed out");
    done(this, &timedOut);
}

void SysCommandImpl::CheckExit() {
    if (!_started || _processState != SC_RUNNING) {
        return;
    }
    bool exited = false;
    int status = 0;
    bool signaled = false;
    const Platform::NativeError error = Platform::PollChildExit(_child, exited, status, signaled);
    if (error != Platform::kSuccess) {
        ThrowSystemError(error, Platform::kPollExitCall);
    }
    if (exited) {
        Complete(status, signaled);
    }
}

void SysCommandImpl::Complete(int status, bool signaled) {
    Logger* log = Service::DefaultLogger();
    int code = signaled ? 128 + status : status;
    if (_killIssued) {
        // A child ended by our kill reports the kill's code; one that ended on
        // its own just before the kill is overruled, with a note.
        if (!signaled && code != _killCode) {
            if (_invokeState == SC_INVK_ASYNC) {
                TESSERA_LOG(log, Logger::LOG_WARNING,
                            "Kill was issued, expected exit code: %1, returned exit code: %2. "
                            "Ignoring ...",
                            _killCode, code);
            } else {
                TESSERA_LOG(log, Logger::LOG_WARNING,
                            "Kill was issued, exit code should be %1, ignoring exit code "
                            "returned: %2",
                            _killCode, code);
            }
        }
        code = _killCode;
    } else {
        TESSERA_LOG(log, Logger::LOG_VERBOSE, "Process exited with %1", code);
    }
    _exitCode = code;
    _completed = true;
    _processState = SC_NOT_RUNNING;
    _invokeState = SC_INVK_NONE;
    // The process handle goes; the job (the tree) stays reachable until the
    // next invocation.
    Platform::ReleaseChildEnds(_pump);
    Platform::ReleaseChild(_child);
}

void SysCommandImpl::WaitForExit(std::int64_t timeoutSecs) {
    std::lock_guard<std::mutex> output(_outputLock);
    {
        Synchronized hold(this);
        if (_invokeState != SC_INVK_CALLED) {
            throw InvalidStateException(kInvalidState);
        }
    }
    const auto start = std::chrono::steady_clock::now();
    // With a handle to wait on, the pump says when the child has ended (at
    // once when it already has); without one it says when to look. Before a
    // time-out the child is looked at all the same: one that has ended is
    // never reported as timed out.
    bool look = false;
    for (;;) {
        std::int64_t left = -1;
        if (timeoutSecs >= 0) {
            const auto spent = std::chrono::duration_cast<std::chrono::milliseconds>(
                                   std::chrono::steady_clock::now() - start)
                                   .count();
            left = std::max<std::int64_t>(0, timeoutSecs * 1000 - spent);
        }
        Platform::Child child;
        {
            Synchronized hold(this);
            if (look || left == 0 || _child.process == Platform::kNoHandle) {
                CheckExit();
            }
            if (_processState != SC_RUNNING) {
                return;
            }
            child = _child;
        }
        if (left == 0) {
            throw TimeoutException(
                MessageFormatter::ASPrint("Timeout occured after %1 seconds", timeoutSecs));
        }
        Platform::PumpResult result;
        const Platform::NativeError error =
            Platform::PumpOutput(_pump, &child, left, _out.data, _err.data, result);
        if (error != Platform::kSuccess) {
            ThrowSystemError(error, Platform::kPumpCall);
        }
        _out.ended = _out.ended || result.outEnded;
        _err.ended = _err.ended || result.errEnded;
        look = result.childExited;
    }
}

void SysCommandImpl::Kill(int exitCode) {
    Synchronized hold(this);
    Logger* log = Service::DefaultLogger();
    TESSERA_LOG(log, Logger::LOG_INFO, "Killing child process ...");
    if (!_started || _processState != SC_RUNNING) {
        throw InvalidStateException("No child process to kill");
    }
    const Platform::NativeError error = Platform::KillChild(_child, exitCode);
    if (error != Platform::kSuccess) {
        ThrowSystemError(error, Platform::kKillCall);
    }
    _killIssued = true;
    _killCode = exitCode;
}

void SysCommandImpl::KillTree(int exitCode) {
    Synchronized hold(this);
    Logger* log = Service::DefaultLogger();
    TESSERA_LOG(log, Logger::LOG_INFO, "Killing child process tree ...");
    const bool haveTree = _group != Platform::kNoHandle || (_child.ownGroup && _child.pid != 0);
    if (!_started || _jobless || !haveTree) {
        throw InvalidStateException("No child job to kill");
    }
    const Platform::NativeError error = Platform::KillChildGroup(_group, _child, exitCode);
    if (error != Platform::kSuccess &&
        Platform::ClassifyNativeError(error) != Platform::ErrorKind::NotFound) {
        ThrowSystemError(error, Platform::kKillGroupCall);
    }
    if (_processState == SC_RUNNING) {
        _killIssued = true;
        _killCode = exitCode;
    }
}

int SysCommandImpl::Read(SysCommandStream stream, char* buffer, int sizeRead) {
    if (stream != SC_STDOUT && stream != SC_STDERR) {
        throw InvalidArgumentException(MessageFormatter::ASPrint("Invalid stream type argument: %1",
                                                                 static_cast<int>(stream)));
    }
    TESSERA_ASSERT(sizeRead >= 0);
    std::lock_guard<std::mutex> output(_outputLock);
    {
        Synchronized hold(this);
        if (_currentSn == 0 || _pump == nullptr) {
            throw InvalidStateException(kNoOutput);
        }
    }
    OutputBuffer& from = stream == SC_STDOUT ? _out : _err;
    while (from.Available() == 0 && !from.ended && sizeRead > 0) {
        Platform::PumpResult result;
        const Platform::NativeError error =
            Platform::PumpOutput(_pump, nullptr, -1, _out.data, _err.data, result);
        if (error != Platform::kSuccess) {
            ThrowSystemError(error, Platform::kPumpCall);
        }
        _out.ended = _out.ended || result.outEnded;
        _err.ended = _err.ended || result.errEnded;
    }
    return static_cast<int>(from.Take(buffer, static_cast<std::size_t>(sizeRead)));
}

std::string SysCommandImpl::ReadAll(SysCommandStream stream) {
    std::string all;
    char buffer[65536];
    for (;;) {
        const int n = Read(stream, buffer, sizeof buffer);
        if (n == 0) {
            return all;
        }
        all.append(buffer, static_cast<std::size_t>(n));
    }
}

void SysCommandImpl::WriteStdin(const char* data, std::size_t size) {
    std::lock_guard<std::mutex> in(_stdinLock);
    Platform::NativeHandle handle;
    {
        Synchronized hold(this);
        handle = _pipes.parentIn;
    }
    if (handle == Platform::kNoHandle) {
        throw InvalidStateException(kNoStdin);
    }
    const Platform::NativeError error = Platform::WriteToChild(handle, data, size);
    if (error != Platform::kSuccess) {
        ThrowSystemError(error, Platform::kWriteCall);
    }
}

void SysCommandImpl::CloseStdin() {
    std::lock_guard<std::mutex> in(_stdinLock);
    Synchronized hold(this);
    if (_pipes.parentIn == Platform::kNoHandle) {
        throw InvalidStateException(kNoStdin);
    }
    ClosePipeEnd(_pipes.parentIn);
}

} // namespace

void SystemFactoryImpl::CreateSysCommand(Ref<SysCommand>& out) { out = new SysCommandImpl(); }

void SystemFactoryImpl::CreateSysCommand(const SysCommandSpec& spec, Ref<SysCommand>& out) {
    out = new SysCommandImpl(spec);
}

} // namespace System
} // namespace Tessera
