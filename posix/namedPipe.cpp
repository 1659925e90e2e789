// Local pipes as Unix domain stream sockets at a path. Generic POSIX code
// only.

#include <tessera/system/namedPipe.h>

#include "asio/listener.h"
#include "asio/streamBase.h"
#include "system/systemFactoryImpl.h"

#include <boost/asio/local/stream_protocol.hpp>

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace Tessera {
namespace System {
namespace {

using boost::asio::local::stream_protocol;

class PipeStreamImpl final : public AsioStream<stream_protocol::socket, NamedPipeClientStream> {
public:
    PipeStreamImpl(ThreadPoolAsio* pool, const std::string& name) : AsioStream(pool, name) {}
};

class NamedPipeServerImpl final : public ObjectImpl, public NamedPipeServer {
public:
    NamedPipeServerImpl(ThreadPoolAsio* pool, const std::string& name, int backlog)
        : _pool(pool), _listener(pool, name), _name(name) {
        // A socket file left by a server that died is replaced; a live
        // server's is not (binding then fails with "address in use").
        struct stat st;
        if (::stat(name.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) {
            Platform::NativeSocket probe = 0;
            if (Platform::OpenStreamSocket(AF_UNIX, probe) == 0) {
                stream_protocol::socket s(pool->GetIoService());
                boost::system::error_code ec;
                s.assign(stream_protocol(), static_cast<int>(probe), ec);
                if (!ec) s.connect(stream_protocol::endpoint(name), ec);
                if (ec == boost::asio::error::connection_refused) ::unlink(name.c_str());
            }
        }
        std::lock_guard<std::mutex> hold(_listener.GetLock());
        auto& acceptor = _listener.GetAcceptor();
        Platform::NativeSocket native = 0;
        const int failed = Platform::OpenStreamSocket(AF_UNIX, native);
        boost::system::error_code ec(failed, boost::system::system_category());
        if (!failed) {
            acceptor.assign(stream_protocol(), static_cast<int>(native), ec);
            if (ec) Platform::CloseNativeSocket(native);
        }
        if (!ec) acceptor.bind(stream_protocol::endpoint(name), ec);
        if (!ec) acceptor.listen(backlog > 0 ? backlog : 16, ec);
        if (!ec) acceptor.non_blocking(true, ec);
        if (ec) {
            boost::system::error_code ignored;
            acceptor.close(ignored);
            StreamError(ec, "listen on", name)->Throw();
        }
        _bound = true;
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
        _listener.Close();
        std::lock_guard<std::mutex> hold(_listener.GetLock());
        if (_bound) ::unlink(_name.c_str());
        _bound = false;
    }

private:
    template <class H>
    void StartAccept(H&& handler) {
        Ref<NamedPipeServerImpl> self(this);
        ThreadPoolAsio* pool = _pool.Get();
        const std::string name = _name;
        _listener.StartAccept(
            [pool, name] { return Ref<PipeStreamImpl>(new PipeStreamImpl(pool, name)); },
            [](PipeStreamImpl&) {},
            [self, h = std::forward<H>(handler)](PipeStreamImpl* stream, Exception* e) mutable {
                h(stream, e);
            });
    }

    Ref<ThreadPoolAsio> _pool;
    AsioListener<stream_protocol::acceptor, PipeStreamImpl> _listener;
    const std::string _name;
    bool _bound = false; // under the listener's lock
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
    Ref<PipeStreamImpl> stream(new PipeStreamImpl(streamPool, name));
    Platform::NativeSocket native = 0;
    const int failed = Platform::OpenStreamSocket(AF_UNIX, native);
    boost::system::error_code ec(failed, boost::system::system_category());
    auto& socket = stream->GetSocket();
    if (!failed) {
        socket.assign(stream_protocol(), static_cast<int>(native), ec);
        if (ec) Platform::CloseNativeSocket(native);
    }
    // A full queue of the server refuses at once (EAGAIN) where the system
    // does not make the connect wait; with waitIfBusy it is tried again.
    for (int attempt = 0; !ec; ++attempt) {
        socket.connect(stream_protocol::endpoint(name), ec);
        if (ec != boost::asio::error::try_again || !waitIfBusy || attempt >= 1000) break;
        ::usleep(10 * 1000);
        ec.clear();
    }
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

std::string GetLocalPipeName(const std::string& base) {
    const char* dir = std::getenv("TMPDIR");
    std::string path = dir && *dir ? dir : "/tmp";
    if (path.back() != '/') path += '/';
    return path + base + ".sock";
}

} // namespace System
} // namespace Tessera
