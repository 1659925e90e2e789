// Local pipes as Windows named pipes in overlapped mode, their completions on
// the pool's completion port. Windows code only.

#include <tessera/system/namedPipe.h>

#include "asio/streamBase.h"
#include "system/platform/nativeError.h"
#include "system/systemFactoryImpl.h"
#include "win32/support.h"

#include <boost/asio/windows/overlapped_ptr.hpp>
#include <boost/asio/windows/stream_handle.hpp>

#include <windows.h>

namespace Tessera {
namespace System {
namespace {

using boost::asio::windows::stream_handle;

constexpr DWORD kPipeBufferSize = 64 * 1024;

// The pipe's name in UTF-16; a name that is not UTF-8 is an invalid argument.
std::wstring Wide(const std::string& name) {
    std::wstring wide;
    const Platform::NativeError error = Platform::Utf8ToWide(name, wide);
    if (error != Platform::kSuccess) ThrowSystemError(error, "Invalid pipe name " + name);
    return wide;
}

boost::system::error_code LastError() {
    return boost::system::error_code(static_cast<int>(GetLastError()),
                                     boost::system::system_category());
}

class PipeStreamImpl final : public AsioStream<stream_handle, NamedPipeClientStream> {
public:
    PipeStreamImpl(ThreadPoolAsio* pool, const std::string& name) : AsioStream(pool, name) {}

    // Takes `handle` over; closes it on failure.
    void Adopt(HANDLE handle, boost::system::error_code& ec) {
        _socket.assign(handle, ec);
        if (ec) CloseHandle(handle);
    }
};

class NamedPipeServerImpl final : public ObjectImpl, public NamedPipeServer {
public:
    NamedPipeServerImpl(ThreadPoolAsio* pool, const std::string& name, int maxInstances)
        : _pool(pool),
          _name(name),
          _wideName(Wide(name)),
          _maxInstances(maxInstances >= 1 && maxInstances < 255 ? static_cast<DWORD>(maxInstances)
                                                                : PIPE_UNLIMITED_INSTANCES) {
        // The first instance claims the name, so clients may connect before
        // the first Accept.
        boost::system::error_code ec;
        _next = NewInstance(true, ec);
        if (ec) StreamError(ec, "create the pipe", _name)->Throw();
    }
    ~NamedPipeServerImpl() override { Close(); }

    void Accept(Ref<Stream>& out) override {
        SyncWait wait;
        Ref<Stream> accepted;
        StartAccept([&](Stream* s, Exception* e) {
            accepted = s;
            wait.Done(0, e);
        });
        wait.Result();
        out = accepted;
    }
    void AsyncAccept(const AcceptCallback& done) override {
        Ref<NamedPipeServerImpl> self(this);
        StartAccept([self, done](Stream* s, Exception* e) {
            self->_pool->Run(ThreadPool::WORK_IO, [&] { done(self.Get(), s, e); });
        });
    }
    const std::string& GetName() const override { return _name; }
    void Close() override {
        std::lock_guard<std::mutex> hold(_lock);
        _open = false;
        if (!_next.IsNull()) {
            // A pending connect completes as aborted.
            _next->Close();
            _next = nullptr;
        }
    }

private:
    typedef boost::function<void(Stream*, Exception*)> Done;

    Ref<PipeStreamImpl> NewInstance(bool first, boost::system::error_code& ec) {
        DWORD openMode = PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED;
        if (first) openMode |= FILE_FLAG_FIRST_PIPE_INSTANCE;
        // Not inheritable: no security attributes asking for it.
        HANDLE handle = CreateNamedPipeW(
            _wideName.c_str(), openMode,
            PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS,
            _maxInstances, kPipeBufferSize, kPipeBufferSize, 0, nullptr);
        if (handle == INVALID_HANDLE_VALUE) {
            ec = LastError();
            return nullptr;
        }
        Ref<PipeStreamImpl> stream(new PipeStreamImpl(_pool.Get(), _name));
        stream->Adopt(handle, ec);
        return ec ? nullptr : stream;
    }

    void StartAccept(const Done& done) {
        std::unique_lock<std::mutex> hold(_lock);
        std::shared_ptr<Exception> error;
        if (!_open) {
            error.reset(new InvalidStateException("The pipe server " + _name + " is closed"));
        } else if (_next.IsNull()) {
            boost::system::error_code ec;
            _next = NewInstance(false, ec);
            if (ec) error = StreamError(ec, "create an instance of", _name);
        }
        if (error) {
            hold.unlock();
            boost::asio::post(_pool->GetIoService(), [done, error] { done(nullptr, error.get()); });
            return;
        }
        TESSERA_ASSERT(!_acceptPending);
        _acceptPending = true;
        Ref<NamedPipeServerImpl> self(this);
        Ref<PipeStreamImpl> instance = _next;
        boost::asio::windows::overlapped_ptr overlapped(
            _pool->GetIoService(),
            [self, instance, done](const boost::system::error_code& ec, std::size_t) {
                self->Connected(ec, instance, done);
            });
        const BOOL ok = ConnectNamedPipe(instance->GetSocket().native_handle(), overlapped.get());
        const DWORD lastError = GetLastError();
        if (!ok && lastError == ERROR_PIPE_CONNECTED) {
            overlapped.complete(boost::system::error_code(), 0);
        } else if (!ok && lastError != ERROR_IO_PENDING) {
            overlapped.complete(boost::system::error_code(static_cast<int>(lastError),
                                                          boost::system::system_category()),
                                0);
        } else {
            overlapped.release();
        }
    }

    void Connected(const boost::system::error_code& ec, const Ref<PipeStreamImpl>& instance,
                   const Done& done) {
        std::unique_lock<std::mutex> hold(_lock);
        _acceptPending = false;
        std::unique_ptr<Exception> error;
        if (!_open) {
            error.reset(new InvalidStateException("The pipe server " + _name + " is closed"));
        } else if (ec) {
            error = StreamError(ec, "accept a client of", _name);
        } else if (_next == instance) {
            // The next instance is made at once, so that the name never goes
            // missing between accepts: a client that came in then would be
            // told the pipe does not exist. Where no more instances are
            // allowed now, the next Accept tries again.
            boost::system::error_code ignored;
            _next = NewInstance(false, ignored);
        }
        hold.unlock();
        done(error ? nullptr : instance.Get(), error.get());
    }

    Ref<ThreadPoolAsio> _pool;
    const std::string _name;
    const std::wstring _wideName;
    const DWORD _maxInstances;
    std::mutex _lock;
    Ref<PipeStreamImpl> _next; // the instance the next client connects to
    bool _open = true;
    bool _acceptPending = false;
};

} // namespace

void SystemFactoryImpl::CreateNamedPipeClientStream(const std::string& name, bool waitIfBusy,
                                                    Ref<NamedPipeClientStream>& out) {
    CreateNamedPipeClientStream(GetThreadPool(), name, waitIfBusy, out);
}

void SystemFactoryImpl::CreateNamedPipeClientStream(ThreadPool* pool, const std::string& name,
                                                    bool waitIfBusy,
                                                    Ref<NamedPipeClientStream>& out) {
    ThreadPoolAsio* streamPool = StreamPool(pool);
    const std::wstring wide = Wide(name);
    HANDLE handle = INVALID_HANDLE_VALUE;
    for (;;) {
        // Not inheritable: no security attributes asking for it.
        handle = CreateFileW(wide.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                             FILE_FLAG_OVERLAPPED, nullptr);
        if (handle != INVALID_HANDLE_VALUE) break;
        const boost::system::error_code ec = LastError();
        if (ec.value() != ERROR_PIPE_BUSY || !waitIfBusy) {
            StreamError(ec, "connect to", name)->Throw();
        }
        if (!WaitNamedPipeW(wide.c_str(), NMPWAIT_WAIT_FOREVER) &&
            GetLastError() != ERROR_FILE_NOT_FOUND) {
            StreamError(LastError(), "wait for", name)->Throw();
        }
    }
    Ref<PipeStreamImpl> stream(new PipeStreamImpl(streamPool, name));
    boost::system::error_code ec;
    stream->Adopt(handle, ec);
    if (ec) StreamError(ec, "connect to", name)->Throw();
    out = stream;
}

void SystemFactoryImpl::CreateNamedPipeServer(const std::string& name, std::int32_t maxInstances,
                                              Ref<NamedPipeServer>& out) {
    CreateNamedPipeServer(GetThreadPool(), name, maxInstances, out);
}

void SystemFactoryImpl::CreateNamedPipeServer(ThreadPool* pool, const std::string& name,
                                              std::int32_t maxInstances,
                                              Ref<NamedPipeServer>& out) {
    out = new NamedPipeServerImpl(StreamPool(pool), name, maxInstances);
}

std::string GetLocalPipeName(const std::string& base) { return "\\\\.\\pipe\\" + base; }

} // namespace System
} // namespace Tessera
