// Local pipes as Windows named pipes in overlapped mode: each direction of a
// stream and each server has an OVERLAPPED of its own, whose event is what a
// pending operation waits for. Windows code only.

#include "system/platform/pipe.h"

#include "win32/support.h"

#include <windows.h>

#include <algorithm>
#include <climits>

namespace Tessera {
namespace System {
namespace Platform {
namespace {

constexpr DWORD kPipeBufferSize = 64 * 1024;
// The most one ReadFile or WriteFile is asked to move.
constexpr std::size_t kMaxTransfer = 1u << 30;

// An OVERLAPPED with its manual-reset event, and whether the system holds it.
class Overlapped {
public:
    Overlapped() = default;
    ~Overlapped() { CloseHandle(_event); }
    Overlapped(const Overlapped&) = delete;
    Overlapped& operator=(const Overlapped&) = delete;

    NativeError Open() {
        _event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        return _event == nullptr ? LastError() : kSuccess;
    }
    // Ready for an operation on `handle`.
    OVERLAPPED* Begin(HANDLE handle) {
        _handle = handle;
        ZeroMemory(&_overlapped, sizeof _overlapped);
        _overlapped.hEvent = _event;
        return &_overlapped;
    }
    // After the call that started the operation returned `ok` (and
    // `error` when it failed): the outcome, or pending.
    NativeError Started(BOOL ok, DWORD error, bool& pending, DWORD& count) {
        if (!ok && error != ERROR_IO_PENDING) {
            pending = false;
            return static_cast<NativeError>(error);
        }
        // Even a call that succeeded at once reports through the OVERLAPPED.
        _inFlight = true;
        return Result(pending, count);
    }
    NativeError Result(bool& pending, DWORD& count) {
        pending = false;
        count = 0;
        if (!_inFlight) return kSuccess;
        if (GetOverlappedResult(_handle, &_overlapped, &count, FALSE)) {
            _inFlight = false;
            return kSuccess;
        }
        const DWORD error = GetLastError();
        if (error == ERROR_IO_INCOMPLETE) {
            pending = true;
            return kSuccess;
        }
        _inFlight = false;
        return static_cast<NativeError>(error);
    }
    // Ends the operation under way and waits until the system is done with
    // it (and its buffers).
    void Cancel() {
        if (!_inFlight) return;
        CancelIoEx(_handle, &_overlapped);
        DWORD ignored = 0;
        GetOverlappedResult(_handle, &_overlapped, &ignored, TRUE);
        _inFlight = false;
    }
    HANDLE Event() const { return _event; }

private:
    OVERLAPPED _overlapped{};
    HANDLE _event = nullptr;
    HANDLE _handle = nullptr;
    bool _inFlight = false;
};

class HandleChannel final : public PipeChannel {
public:
    HandleChannel(HANDLE pipe, bool forWrite) : _pipe(pipe), _forWrite(forWrite) {}
    ~HandleChannel() override { _overlapped.Cancel(); }

    NativeError Open() { return _overlapped.Open(); }

    NativeError StartRead(char* data, std::size_t size, bool& pending,
                          std::size_t& count) override {
        const DWORD ask = static_cast<DWORD>(std::min(size, kMaxTransfer));
        const BOOL ok = ReadFile(_pipe, data, ask, nullptr, _overlapped.Begin(_pipe));
        return Finished(_overlapped.Started(ok, GetLastError(), pending, _count), count);
    }
    NativeError StartWrite(const PipeBuffer* buffers, std::size_t n, bool& pending,
                           std::size_t& count) override {
        // WriteFile takes one buffer: the first that is not empty.
        const PipeBuffer* first =
            std::find_if(buffers, buffers + n, [](const PipeBuffer& b) { return b.size > 0; });
        if (first == buffers + n) {
            pending = false;
            count = 0;
            return kSuccess;
        }
        const DWORD ask = static_cast<DWORD>(std::min(first->size, kMaxTransfer));
        const BOOL ok = WriteFile(_pipe, first->data, ask, nullptr, _overlapped.Begin(_pipe));
        return Finished(_overlapped.Started(ok, GetLastError(), pending, _count), count);
    }
    NativeError Finish(bool& pending, std::size_t& count) override {
        return Finished(_overlapped.Result(pending, _count), count);
    }
    void Cancel() override { _overlapped.Cancel(); }
    WaitableHandle GetWaitHandle() const override {
        return reinterpret_cast<WaitableHandle>(_overlapped.Event());
    }
    Readiness GetReadiness() const override {
        return _forWrite ? Readiness::Write : Readiness::Read;
    }

private:
    NativeError Finished(NativeError error, std::size_t& count) const {
        count = _count;
        return error;
    }

    const HANDLE _pipe;
    const bool _forWrite;
    Overlapped _overlapped;
    DWORD _count = 0;
};

// Makes an instance of the pipe `name`; the first claims the name.
NativeError NewInstance(const std::wstring& name, DWORD maxInstances, bool first, HANDLE& out) {
    DWORD openMode = PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED;
    if (first) openMode |= FILE_FLAG_FIRST_PIPE_INSTANCE;
    // Not inheritable: no security attributes asking for it.
    out = CreateNamedPipeW(
        name.c_str(), openMode,
        PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS, maxInstances,
        kPipeBufferSize, kPipeBufferSize, 0, nullptr);
    if (out == INVALID_HANDLE_VALUE) {
        out = nullptr;
        return LastError();
    }
    return kSuccess;
}

// A client connects to the waiting instance; once one has, the next is made
// at once, so that the name never goes missing between accepts (a client
// that came then would be told the pipe does not exist). Where no more
// instances are allowed now, the next accept tries again.
class InstanceListener final : public PipeListener {
public:
    InstanceListener(std::wstring name, DWORD maxInstances)
        : _name(std::move(name)), _maxInstances(maxInstances) {}
    ~InstanceListener() override {
        _overlapped.Cancel();
        _waiting.Reset();
    }

    NativeError Open() {
        const NativeError error = _overlapped.Open();
        if (error != kSuccess) return error;
        HANDLE first = nullptr;
        const NativeError made = NewInstance(_name, _maxInstances, true, first);
        _waiting.Reset(first);
        return made;
    }

    NativeError StartAccept(bool& pending, NativePipe& accepted) override {
        pending = false;
        for (;;) {
            if (!_waiting.Valid()) {
                HANDLE next = nullptr;
                const NativeError error = NewInstance(_name, _maxInstances, false, next);
                if (error != kSuccess) return error;
                _waiting.Reset(next);
            }
            const BOOL ok = ConnectNamedPipe(_waiting.Get(), _overlapped.Begin(_waiting.Get()));
            const DWORD lastError = ok ? ERROR_SUCCESS : GetLastError();
            if (lastError == ERROR_PIPE_CONNECTED) return Take(accepted);
            if (lastError == ERROR_NO_DATA) {
                // The client came and went before it was taken.
                DisconnectNamedPipe(_waiting.Get());
                continue;
            }
            DWORD ignored = 0;
            const NativeError error = _overlapped.Started(ok, lastError, pending, ignored);
            if (error != kSuccess || pending) return error;
            return Take(accepted);
        }
    }
    NativeError Finish(bool& pending, NativePipe& accepted) override {
        DWORD ignored = 0;
        const NativeError error = _overlapped.Result(pending, ignored);
        if (error != kSuccess || pending) return error;
        return Take(accepted);
    }
    void Cancel() override { _overlapped.Cancel(); }
    WaitableHandle GetWaitHandle() const override {
        return reinterpret_cast<WaitableHandle>(_overlapped.Event());
    }
    Readiness GetReadiness() const override { return Readiness::Read; }

private:
    NativeError Take(NativePipe& accepted) {
        accepted = reinterpret_cast<NativePipe>(_waiting.Release());
        HANDLE next = nullptr;
        if (NewInstance(_name, _maxInstances, false, next) == kSuccess) _waiting.Reset(next);
        return kSuccess;
    }

    const std::wstring _name;
    const DWORD _maxInstances;
    Overlapped _overlapped;
    ScopedHandle _waiting; // the instance the next client connects to
};

} // namespace

NativeError OpenPipeChannel(NativePipe pipe, bool forWrite, std::unique_ptr<PipeChannel>& out) {
    std::unique_ptr<HandleChannel> channel(
        new HandleChannel(reinterpret_cast<HANDLE>(pipe), forWrite));
    const NativeError error = channel->Open();
    if (error != kSuccess) return error;
    out = std::move(channel);
    return kSuccess;
}

NativeError ReadPipeNow(NativePipe, char*, std::size_t, std::size_t& count, bool& wouldBlock) {
    count = 0;
    wouldBlock = false;
    return ERROR_NOT_SUPPORTED;
}

NativeError WritePipeNow(NativePipe, const char*, std::size_t, std::size_t& count,
                         bool& wouldBlock) {
    count = 0;
    wouldBlock = false;
    return ERROR_NOT_SUPPORTED;
}

bool CanTryPipesNow() { return false; }

NativeError ShutdownPipeWrite(NativePipe) { return ERROR_NOT_SUPPORTED; }

void ClosePipe(NativePipe pipe) { CloseHandle(reinterpret_cast<HANDLE>(pipe)); }

std::string LocalPipeName(const std::string& base) { return "\\\\.\\pipe\\" + base; }

NativeError ConnectToPipe(const std::string& name, bool waitIfBusy, NativePipe& out) {
    std::wstring wide;
    NativeError error = Utf8ToWide(name, wide);
    if (error != kSuccess) return error;
    for (;;) {
        // Not inheritable: no security attributes asking for it.
        const HANDLE handle = CreateFileW(wide.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                          OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr);
        if (handle != INVALID_HANDLE_VALUE) {
            out = reinterpret_cast<NativePipe>(handle);
            return kSuccess;
        }
        error = LastError();
        if (error != ERROR_PIPE_BUSY || !waitIfBusy) return error;
        if (!WaitNamedPipeW(wide.c_str(), NMPWAIT_WAIT_FOREVER) &&
            GetLastError() != ERROR_FILE_NOT_FOUND) {
            return LastError();
        }
    }
}

NativeError ListenOnPipe(const std::string& name, int maxInstances,
                         std::unique_ptr<PipeListener>& out) {
    std::wstring wide;
    NativeError error = Utf8ToWide(name, wide);
    if (error != kSuccess) return error;
    const DWORD instances = maxInstances >= 1 && maxInstances < 255
                                ? static_cast<DWORD>(maxInstances)
                                : PIPE_UNLIMITED_INSTANCES;
    std::unique_ptr<InstanceListener> listener(new InstanceListener(std::move(wide), instances));
    error = listener->Open();
    if (error != kSuccess) return error;
    out = std::move(listener);
    return kSuccess;
}

} // namespace Platform
} // namespace System
} // namespace Tessera
