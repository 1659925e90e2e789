// TCP over loopback against a plain Asio program of the same shape:
//
//   TcpRoundTrip_*  100-byte request and response on one connection: our
//                   client (synchronous Write and Read) against our echo
//                   server on the pool, and a plain Asio client (blocking
//                   socket) against a plain Asio echo server (one io_context
//                   run by one thread)

#include <tessera/system/system.h>
#include <tessera/system/tcp.h>

#include <benchmark/benchmark.h>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>

#include <memory>
#include <thread>

namespace TesseraBench {
namespace {

using namespace Tessera;
using namespace Tessera::System;
using boost::asio::ip::tcp;

constexpr std::size_t kMessage = 100;

class Echo : public ObjectImpl {
public:
    explicit Echo(TCPSocket* s) : _s(s) {}
    void Start() {
        _s->AsyncRead(_buffer, sizeof _buffer,
                      [self = Ref<Echo>(this)](Stream*, std::size_t n, Exception* e) {
                          if (e || n == 0) return;
                          self->_s->AsyncWrite(self->_buffer, n, [self](Stream*, Exception* x) {
                              if (!x) self->Start();
                          });
                      });
    }

private:
    Ref<TCPSocket> _s;
    char _buffer[4096];
};

void AcceptEchoes(TCPServerSocket* server) {
    server->AsyncAccept([](TCPServerSocket* s, TCPSocket* socket, Exception* e) {
        if (e) return;
        socket->SetNoDelay(true);
        Ref<Echo>(new Echo(socket))->Start();
        AcceptEchoes(s);
    });
}

void ReadAll(Stream& s, char* p, std::size_t n) {
    while (n > 0) {
        const std::size_t got = s.Read(p, n);
        if (got == 0) return;
        p += got;
        n -= got;
    }
}

void TcpRoundTrip_Tessera(benchmark::State& state) {
    Ref<TCPServerSocket> server;
    GetSystemFactory()->CreateTCPServerSocket(server);
    server->Listen("127.0.0.1", 0, 64, true);
    AcceptEchoes(server.Get());
    Ref<TCPClientSocket> client;
    GetSystemFactory()->CreateTCPClientSocket(client);
    client->Connect("127.0.0.1", server->GetPort(), 5 * 1000 * 1000);
    client->SetNoDelay(true);
    char out[kMessage] = {1}, in[kMessage];
    for (auto _ : state) {
        client->Write(out, sizeof out);
        ReadAll(*client, in, sizeof in);
    }
    client->Close();
    server->Close();
}
BENCHMARK(TcpRoundTrip_Tessera)->UseRealTime();

struct AsioEcho : std::enable_shared_from_this<AsioEcho> {
    explicit AsioEcho(tcp::socket s) : socket(std::move(s)) {}
    void Start() {
        auto self = shared_from_this();
        socket.async_read_some(boost::asio::buffer(buffer),
                               [self](const boost::system::error_code& ec, std::size_t n) {
                                   if (ec) return;
                                   boost::asio::async_write(
                                       self->socket, boost::asio::buffer(self->buffer, n),
                                       [self](const boost::system::error_code& e, std::size_t) {
                                           if (!e) self->Start();
                                       });
                               });
    }
    tcp::socket socket;
    char buffer[4096];
};

void TcpRoundTrip_PlainAsio(benchmark::State& state) {
    boost::asio::io_context context;
    tcp::acceptor acceptor(context, tcp::endpoint(boost::asio::ip::address_v4::loopback(), 0));
    acceptor.async_accept([](const boost::system::error_code& ec, tcp::socket s) {
        if (ec) return;
        s.set_option(tcp::no_delay(true));
        std::make_shared<AsioEcho>(std::move(s))->Start();
    });
    std::thread runner([&] { context.run(); });
    boost::asio::io_context clientContext;
    tcp::socket client(clientContext);
    client.connect(acceptor.local_endpoint());
    client.set_option(tcp::no_delay(true));
    char out[kMessage] = {1}, in[kMessage];
    for (auto _ : state) {
        boost::asio::write(client, boost::asio::buffer(out));
        boost::asio::read(client, boost::asio::buffer(in));
    }
    client.close();
    context.stop();
    runner.join();
}
BENCHMARK(TcpRoundTrip_PlainAsio)->UseRealTime();

} // namespace
} // namespace TesseraBench
