// Child processes: the portable command object over the platform's steps
// (system/platform/process.h): its start, its wait and its kill.

#include "system/sysCommandImpl.h"

#include <tessera/assert.h>

#include "system/commandLine.h"
#include "system/platform/nativeError.h"
#include "system/systemFactoryImpl.h"
#include "system/utf8.h"

#include <chrono>
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

// The text a failed command is reported with.
std::string ResultText(const std::string& message, int code, const std::string& detail) {
    return "Error: " + message + ", code: " + std::to_string(code) + ", detail: " + detail;
}

} // namespace

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
    // Every text the system gets is UTF-8, on every platform.
    RequireUtf8(_spec.command, "Command");
    for (const std::string& arg : _spec.args) RequireUtf8(arg, "Argument");
    if (_spec.environment) {
        for (const std::string& entry : *_spec.environment) RequireUtf8(entry, "Environment entry");
    }
    RequireUtf8(_spec.workingDirectory, "Working directory");

    Logger* log = Service::DefaultLogger();
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

    const std::string commandLine = CommandLineText();
    TESSERA_LOG(log, Logger::LOG_VERBOSE, "Starting process: %1", commandLine);
    try {
        Spawn(request);
    } catch (const Exception& e) {
        const SystemException* system = dynamic_cast<const SystemException*>(&e);
        TESSERA_LOG(log, Logger::LOG_ERROR, "Process '%1' failed: %2", _spec.command,
                    ResultText(e.what(), system != nullptr ? system->ErrorId() : 0, commandLine));
        if (_started) {
            CollectFailedStart();
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

void SysCommandImpl::Spawn(Platform::SpawnRequest& request) {
    Logger* log = Service::DefaultLogger();
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
}

void SysCommandImpl::CollectFailedStart() noexcept {
    // A child started and killed again is collected, so that no zombie is
    // left behind.
    bool exited = false;
    int status = 0;
    bool signaled = false;
    for (int i = 0; i < 100 && !exited; ++i) {
        if (Platform::PollChildExit(_child, exited, status, signaled) != Platform::kSuccess) {
            break;
        }
        if (!exited) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    _started = false;
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

void SystemFactoryImpl::CreateSysCommand(Ref<SysCommand>& out) { out = new SysCommandImpl(); }

void SystemFactoryImpl::CreateSysCommand(const SysCommandSpec& spec, Ref<SysCommand>& out) {
    out = new SysCommandImpl(spec);
}

} // namespace System
} // namespace Tessera
