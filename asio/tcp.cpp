// TCP connections and listening sockets on the pool's I/O service.

#include <tessera/system/tcp.h>

#include "asio/listener.h"
#include "asio/streamBase.h"
#include "system/systemFactoryImpl.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ip/v6_only.hpp>

#include <chrono>
#include <vector>

namespace Tessera {
namespace System {
namespace {

using boost::asio::ip::tcp;

std::string EndpointName(const tcp::endpoint& endpoint) {
    const boost::asio::ip::address address = endpoint.address();
    const std::string host =
        address.is_v6() ? "[" + address.to_string() + "]" : address.to_string();
    return host + ":" + std::to_string(endpoint.port());
}

class TCPSocketImpl final : public AsioStream<tcp::socket, TCPClientSocket> {
public:
    TCPSocketImpl(ThreadPoolAsio* pool, std::string peer)
        : AsioStream(pool, std::move(peer)), _resolver(pool->GetIoService()) {}

    // TCPClientSocket:
    void Connect(const std::string& host, std::uint16_t port, std::int64_t timeoutUsec) override {
        SyncWait wait;
        StartConnect(host, port, timeoutUsec, [&wait](Exception* e) { wait.Done(0, e); });
        wait.Result();
    }
    void AsyncConnect(const std::string& host, std::uint16_t port, std::int64_t timeoutUsec,
                      const ConnectCallback& done) override {
        Ref<TCPSocketImpl> self(this);
        StartConnect(host, port, timeoutUsec, [self, done](Exception* e) {
            self->_pool->Run(ThreadPool::WORK_IO, [&] { done(self.Get(), e); });
        });
    }
    // TCPSocket:
    void SetNoDelay(bool noDelay) override {
        std::lock_guard<std::mutex> hold(_lock);
        boost::system::error_code ec;
        _socket.set_option(tcp::no_delay(noDelay), ec);
        if (ec) StreamError(ec, "set no-delay on", _peer)->Throw();
    }
    std::uint16_t GetLocalPort() const override {
        std::lock_guard<std::mutex> hold(_lock);
        boost::system::error_code ec;
        const tcp::endpoint local = _socket.local_endpoint(ec);
        if (ec) StreamError(ec, "get the local port of", _peer)->Throw();
        return local.port();
    }

    // Takes over an accepted connection.
    void Adopt(Platform::NativeSocket native, const tcp& protocol, boost::system::error_code& ec) {
        _socket.assign(protocol, static_cast<tcp::socket::native_handle_type>(native), ec);
    }

private:
    typedef boost::function<void(Exception*)> ConnectDone;

    void StartConnect(const std::string& host, std::uint16_t port, std::int64_t timeoutUsec,
                      const ConnectDone& done) {
        std::unique_lock<std::mutex> hold(_lock);
        if (_connecting || _socket.is_open() || !_open) {
            std::shared_ptr<Exception> error(new InvalidStateException(
                _open ? "The socket is already connected or connecting to " + _peer
                      : "The socket is closed"));
            hold.unlock();
            boost::asio::post(_pool->GetIoService(), [done, error] { done(error.get()); });
            return;
        }
        _connecting = true;
        _peer = (host.find(':') != std::string::npos ? "[" + host + "]" : host) + ":" +
                std::to_string(port);
        _done = done;
        const std::uint64_t generation = ++_writeGeneration;
        _writePending = true; // the connection's time-out runs as a write's
        _writeTimerArmed = timeoutUsec > 0;
        if (_writeTimerArmed) {
            _connectTimeout = timeoutUsec;
            ArmTimer(_writeTimer, timeoutUsec, generation, false);
        }
        Ref<TCPSocketImpl> self(this);
        _resolver.async_resolve(
            host, std::to_string(port),
            [self](const boost::system::error_code& ec,
                   const tcp::resolver::results_type& results) { self->Resolved(ec, results); });
    }

    void Resolved(const boost::system::error_code& ec, const tcp::resolver::results_type& results) {
        {
            std::lock_guard<std::mutex> hold(_lock);
            for (const auto& entry : results) _endpoints.push_back(entry.endpoint());
        }
        if (ec) {
            Finish(ec, "resolve");
            return;
        }
        TryNext(boost::asio::error::host_not_found);
    }

    void TryNext(const boost::system::error_code& last) {
        std::unique_lock<std::mutex> hold(_lock);
        if (!_open || _next >= _endpoints.size()) {
            hold.unlock();
            Finish(last, "connect to");
            return;
        }
        const tcp::endpoint endpoint = _endpoints[_next++];
        Platform::NativeSocket native = 0;
        const int failed = Platform::OpenStreamSocket(endpoint.protocol().family(), native);
        boost::system::error_code ec(failed, boost::system::system_category());
        if (!failed) {
            _socket.assign(endpoint.protocol(),
                           static_cast<tcp::socket::native_handle_type>(native), ec);
            if (ec) Platform::CloseNativeSocket(native);
        }
        if (ec) {
            hold.unlock();
            TryNext(ec);
            return;
        }
        Ref<TCPSocketImpl> self(this);
        _socket.async_connect(endpoint, [self](const boost::system::error_code& e) {
            if (!e) {
                self->Finish(e, "connect to");
                return;
            }
            {
                std::lock_guard<std::mutex> hold(self->_lock);
                boost::system::error_code ignored;
                if (self->_open) self->_socket.close(ignored);
            }
            self->TryNext(e);
        });
    }

    void Finish(const boost::system::error_code& ec, const char* operation) {
        std::unique_lock<std::mutex> hold(_lock);
        _connecting = false;
        _writePending = false;
        if (_writeTimerArmed) _writeTimer.cancel();
        _writeTimerArmed = false;
        std::unique_ptr<Exception> error;
        if (_writeTimedOut) {
            error.reset(new TimeoutException(MessageFormatter::ASPrint(
                "Timed out after %1 microseconds: connect to %2", _connectTimeout, _peer)));
        } else if (!_open) {
            error = ClosedError();
        } else if (ec) {
            error = StreamError(ec, operation, _peer);
        }
        _endpoints.clear();
        _next = 0;
        ConnectDone done;
        done.swap(_done);
        hold.unlock();
        done(error.get());
    }

    tcp::resolver _resolver;
    bool _connecting = false;
    std::int64_t _connectTimeout = 0;
    std::vector<tcp::endpoint> _endpoints;
    std::size_t _next = 0;
    ConnectDone _done;
};

class TCPServerSocketImpl final : public ObjectImpl, public TCPServerSocket {
public:
    explicit TCPServerSocketImpl(ThreadPoolAsio* pool) : _pool(pool), _listener(pool, "") {}

    void Listen(const std::string& address, std::uint16_t port, int backlog,
                bool reuseAddress) override {
        boost::asio::ip::address ip;
        if (address.empty()) {
            ip = boost::asio::ip::address_v4::any();
        } else if (address == "localhost") {
            ip = boost::asio::ip::address_v4::loopback();
        } else {
            boost::system::error_code ec;
            ip = boost::asio::ip::make_address(address, ec);
            if (ec) throw InvalidArgumentException("Not a local address: '" + address + "'");
        }
        const tcp::endpoint endpoint(ip, port);
        std::lock_guard<std::mutex> hold(_listener.GetLock());
        _listener.SetName(EndpointName(endpoint));
        tcp::acceptor& acceptor = _listener.GetAcceptor();
        if (acceptor.is_open())
            throw InvalidStateException("Already listening on " + _listener.GetName());
        Platform::NativeSocket native = 0;
        const int failed = Platform::OpenStreamSocket(endpoint.protocol().family(), native);
        boost::system::error_code ec(failed, boost::system::system_category());
        if (!failed) {
            acceptor.assign(endpoint.protocol(),
                            static_cast<tcp::acceptor::native_handle_type>(native), ec);
            if (ec) Platform::CloseNativeSocket(native);
        }
        if (!ec && reuseAddress) acceptor.set_option(tcp::acceptor::reuse_address(true), ec);
        if (!ec && ip.is_v6()) acceptor.set_option(boost::asio::ip::v6_only(false), ec);
        if (!ec) acceptor.bind(endpoint, ec);
        if (!ec)
            acceptor.listen(
                backlog > 0 ? backlog : boost::asio::socket_base::max_listen_connections, ec);
        if (!ec) acceptor.non_blocking(true, ec);
        if (ec) {
            boost::system::error_code ignored;
            acceptor.close(ignored);
            StreamError(ec, "listen on", _listener.GetName())->Throw();
        }
        _listener.SetName(EndpointName(acceptor.local_endpoint(ec)));
    }

    std::uint16_t GetPort() const override {
        auto& listener = const_cast<AsioListener<tcp::acceptor, TCPSocketImpl>&>(_listener);
        std::lock_guard<std::mutex> hold(listener.GetLock());
        boost::system::error_code ec;
        const tcp::endpoint local = listener.GetAcceptor().local_endpoint(ec);
        if (ec) throw InvalidStateException("The server socket is not listening");
        return local.port();
    }

    void Accept(Ref<TCPSocket>& out) override {
        SyncWait wait;
        Ref<TCPSocket> accepted;
        StartAccept([&](TCPSocket* socket, Exception* e) {
            accepted = socket;
            wait.Done(0, e);
        });
        wait.Result();
        out = accepted;
    }

    void AsyncAccept(const AcceptCallback& done) override {
        Ref<TCPServerSocketImpl> self(this);
        StartAccept([self, done](TCPSocket* socket, Exception* e) {
            self->_pool->Run(ThreadPool::WORK_IO, [&] { done(self.Get(), socket, e); });
        });
    }

    void Close() override { _listener.Close(); }

private:
    template <class H>
    void StartAccept(H&& handler) {
        Ref<TCPServerSocketImpl> self(this);
        ThreadPoolAsio* pool = _pool.Get();
        _listener.StartAccept(
            [pool] { return Ref<TCPSocketImpl>(new TCPSocketImpl(pool, "")); },
            [](TCPSocketImpl& socket) {
                boost::system::error_code ec;
                const tcp::endpoint peer = socket.GetSocket().remote_endpoint(ec);
                socket.SetPeer(ec ? std::string("an unknown peer") : EndpointName(peer));
            },
            [self, h = std::forward<H>(handler)](TCPSocketImpl* socket, Exception* e) mutable {
                h(socket, e);
            });
    }

    Ref<ThreadPoolAsio> _pool;
    AsioListener<tcp::acceptor, TCPSocketImpl> _listener;
};

} // namespace

void SystemFactoryImpl::CreateTCPClientSocket(Ref<TCPClientSocket>& out) {
    CreateTCPClientSocket(GetThreadPool(), out);
}

void SystemFactoryImpl::CreateTCPServerSocket(Ref<TCPServerSocket>& out) {
    CreateTCPServerSocket(GetThreadPool(), out);
}

void SystemFactoryImpl::CreateTCPClientSocket(ThreadPool* pool, Ref<TCPClientSocket>& out) {
    out = new TCPSocketImpl(StreamPool(pool), "");
}

void SystemFactoryImpl::CreateTCPServerSocket(ThreadPool* pool, Ref<TCPServerSocket>& out) {
    out = new TCPServerSocketImpl(StreamPool(pool));
}

} // namespace System
} // namespace Tessera
