// Local pipes on the pool's I/O service: the streams of asio/streamBase.h
// over pipe handles (asio/pipeHandle.h), and the server that accepts them,
// over the pipe back end.

#include <tessera/system/namedPipe.h>

#include "asio/pipeHandle.h"
#include "asio/streamBase.h"
#include "system/systemFactoryImpl.h"
#include "system/utf8.h"

#include <boost/asio/post.hpp>

namespace Tessera {
namespace System {
namespace {

class PipeStreamImpl final : public AsioStream<PipeHandle, NamedPipeClientStream> {
public:
    PipeStreamImpl(ThreadPoolAsio* pool, const std::string& name) : AsioStream(pool, name) {}
};

// A stream over `native`, which it takes over.
Ref<PipeStreamImpl> NewStream(ThreadPoolAsio* pool, const std::string& name,
                              Platform::NativePipe native) {
    Ref<PipeStreamImpl> stream(new PipeStreamImpl(pool, name));
    boost::system::error_code ec;
    stream->GetSocket().assign(native, ec); // a new handle cannot be open yet
    return stream;
}

class NamedPipeServerImpl final : public ObjectImpl, public NamedPipeServer {
public:
    NamedPipeServerImpl(ThreadPoolAsio* pool, const std::string& name, int maxInstances)
        : _pool(pool), _name(name) {
        RequireUtf8(name, "The pipe name");
        const Platform::NativeError error = Platform::ListenOnPipe(name, maxInstances, _listener);
        if (error != Platform::kSuccess) ThrowSystemError(error, "Failed to listen on " + name);
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
        if (_done) {
            _wait.reset();
            _listener->Cancel();
            Fail(std::move(_done), ClosedError());
        }
        _listener.reset(); // the name goes with it
    }

private:
    typedef std::function<void(Stream*, Exception*)> Done;

    std::unique_ptr<Exception> ClosedError() const {
        return std::unique_ptr<Exception>(
            new InvalidStateException("The pipe server " + _name + " is closed"));
    }

    // Runs `done` on the pool with `error`.
    void Fail(Done done, std::unique_ptr<Exception> error) {
        std::shared_ptr<Exception> shared(std::move(error));
        boost::asio::post(_pool->GetIoService(),
                          [done = std::move(done), shared] { done(nullptr, shared.get()); });
    }

    void StartAccept(Done done) {
        std::lock_guard<std::mutex> hold(_lock);
        if (!_listener) {
            Fail(std::move(done), ClosedError());
            return;
        }
        TESSERA_ASSERT(!_done);
        _done = std::move(done);
        bool pending = false;
        Platform::NativePipe accepted = 0;
        const Platform::NativeError error = _listener->StartAccept(pending, accepted);
        Stepped(error, pending, accepted);
    }

    // Under the lock: the outcome of a step of the pending accept, which
    // either completes it (on the pool) or waits for the next step.
    void Stepped(Platform::NativeError error, bool pending, Platform::NativePipe accepted) {
        if (error == Platform::kSuccess && pending) {
            const std::uint64_t generation = ++_generation;
            Ref<NamedPipeServerImpl> self(this);
            error = PostWhenReady(
                _pool->GetIoService(), _listener->GetWaitHandle(), _listener->GetReadiness(),
                [self, generation] { self->Continue(generation); }, _wait);
            if (error == Platform::kSuccess) return;
            _listener->Cancel();
        }
        Done done = std::move(_done);
        _done = nullptr;
        if (error != Platform::kSuccess) {
            Fail(std::move(done), SystemError(error, "Failed to accept a client of " + _name));
            return;
        }
        Ref<PipeStreamImpl> stream = NewStream(_pool.Get(), _name, accepted);
        boost::asio::post(_pool->GetIoService(),
                          [done = std::move(done), stream] { done(stream.Get(), nullptr); });
    }

    void Continue(std::uint64_t generation) {
        std::lock_guard<std::mutex> hold(_lock);
        if (!_done || generation != _generation) return; // closed meanwhile
        _wait.reset();
        bool pending = false;
        Platform::NativePipe accepted = 0;
        const Platform::NativeError error = _listener->Finish(pending, accepted);
        Stepped(error, pending, accepted);
    }

    Ref<ThreadPoolAsio> _pool;
    const std::string _name;
    std::mutex _lock;
    std::unique_ptr<Platform::PipeListener> _listener; // null once closed
    std::unique_ptr<Platform::HandleWait> _wait;
    Done _done; // the pending accept's
    std::uint64_t _generation = 0;
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
    RequireUtf8(name, "The pipe name");
    Platform::NativePipe native = 0;
    const Platform::NativeError error = Platform::ConnectToPipe(name, waitIfBusy, native);
    if (error != Platform::kSuccess) ThrowSystemError(error, "Failed to connect to " + name);
    out = NewStream(streamPool, name, native);
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

std::string GetLocalPipeName(const std::string& base) { return Platform::LocalPipeName(base); }

} // namespace System
} // namespace Tessera
