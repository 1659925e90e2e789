// The command object of system/sysCommand.cpp, shared with the files that
// hold its asynchronous invocations (system/sysCommandAsync.cpp) and its
// standard streams (system/sysCommandStreams.cpp).
//
// Three locks: the object's own (state, the child, the kill flags), the
// output lock, held by the one thread that reads the pipes, whether it reads
// or waits, and the lock of the standard-input writer. The object's lock is
// always taken last and never held while blocking; Kill needs only it, so it
// is never held up by a wait, a read or a write.
#pragma once

#include <tessera/exception.h>
#include <tessera/formatter.h>
#include <tessera/logger.h>
#include <tessera/system/syncRaii.h>
#include <tessera/system/sysCommand.h>
#include <tessera/system/threadPool.h>

#include "system/platform/process.h"

#include <algorithm>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace Tessera {
namespace System {

// The texts of the command's failures.
inline constexpr char kSequenceError[] =
    "Sequence Error  - Invoke() in process or WaitForExit() not called yet";
inline constexpr char kResourceError[] =
    "Initialization Error  - Resource issues during object construction";
inline constexpr char kNoSpecError[] =
    "Initialization Error - Resource issues during object construction";
inline constexpr char kNoExitCode[] = "Invoke() was not called or did not complete";
inline constexpr char kNoOutput[] =
    "The specified stream does not exist.Invoke() must be called before reading from stdout/stderr";
inline constexpr char kNoStdin[] =
    "Stdin does not exist.Invoke() must be called before writing to stdin";
inline constexpr char kInvalidState[] = "Invalid state";

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
            TESSERA_LOG(Service::DefaultLogger(), Service::Logger::LOG_WARNING,
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
    // The platform's steps of a start: pipes, group, the child, in its group
    // and running. Throws, with whatever it made left for Cleanup.
    void Spawn(Platform::SpawnRequest& request);
    // Waits a little for a child whose start failed after it was created.
    void CollectFailedStart() noexcept;
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

} // namespace System
} // namespace Tessera
