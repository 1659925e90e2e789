// TCP connections and listening sockets (stream.h describes the streams).
//
//     Ref<TCPServerSocket> server;
//     GetSystemFactory()->CreateTCPServerSocket(server);
//     server->Listen("localhost", 0, 128, true);      // loopback, any free port
//     server->AsyncAccept(boost::bind(&Server::Accepted, this, _1, _2, _3));
//
//     Ref<TCPClientSocket> client;
//     GetSystemFactory()->CreateTCPClientSocket(client);
//     client->Connect("localhost", server->GetPort(), 5 * 1000 * 1000);
//
// Host names are resolved by the system; every address a name resolves to,
// IPv6 or IPv4, is tried in turn until one accepts. Failures raise the
// exceptions stream.h lists, naming the host and port.
#pragma once

#include <tessera/api.h>
#include <tessera/functor.h>
#include <tessera/system/stream.h>

#include <cstdint>
#include <string>

namespace Tessera {
namespace System {

// One TCP connection: one made by TCPClientSocket::Connect or one accepted by
// a TCPServerSocket.
class TESSERA_EXPORT TCPSocket : public Stream {
public:
    // Turns Nagle's algorithm off (true) or on; off by default.
    virtual void SetNoDelay(bool noDelay) = 0;
    // The local port of the connection.
    virtual std::uint16_t GetLocalPort() const = 0;
};

class TESSERA_EXPORT TCPClientSocket : public TCPSocket {
public:
    typedef Functor<void(Stream*, Exception*)> ConnectCallback;

    // Connects to `port` of `host` (a name, an IPv4 address or an IPv6
    // address without brackets), trying each of its addresses until one
    // accepts, within `timeoutUsec` in all (TIMEOUT_INFINITE: the system's own
    // limits). Raises SystemException (refused, unreachable, name unknown),
    // TimeoutException, or InvalidStateException when already connected.
    virtual void Connect(const std::string& host, std::uint16_t port, std::int64_t timeoutUsec) = 0;
    // The same, completing on an I/O thread of the pool.
    virtual void AsyncConnect(const std::string& host, std::uint16_t port, std::int64_t timeoutUsec,
                              const ConnectCallback& done) = 0;
};

class TESSERA_EXPORT TCPServerSocket : public virtual Object {
public:
    // The accepted connection, or null with the exception.
    typedef Functor<void(TCPServerSocket*, TCPSocket*, Exception*)> AcceptCallback;

    // Binds to `port` (0: any free one, see GetPort) of `address` and listens
    // with a queue of `backlog` connections. `address` is "" or "0.0.0.0" for
    // every IPv4 interface, "::" for every IPv6 (and, where the system allows,
    // IPv4) interface, "localhost" or "127.0.0.1" or "::1" for the loopback
    // interface only, or any local address. `reuseAddress` lets the port be
    // bound again while old connections on it are still closing (on Windows,
    // where that option would let another process steal the port, the port is
    // bound exclusively instead). Raises SystemException naming the address.
    virtual void Listen(const std::string& address, std::uint16_t port, int backlog,
                        bool reuseAddress) = 0;
    // The port listened on.
    virtual std::uint16_t GetPort() const = 0;

    // Waits for the next connection.
    virtual void Accept(Ref<TCPSocket>& out) = 0;
    // Accepts the next connection on the pool: `done` runs on an I/O thread
    // with it. One accept may be pending at a time; a server accepts again
    // from the callback.
    virtual void AsyncAccept(const AcceptCallback& done) = 0;

    // Stops listening; a pending accept fails with InvalidStateException.
    virtual void Close() = 0;
};

} // namespace System
} // namespace Tessera
