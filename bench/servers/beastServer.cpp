// A Boost.Beast asynchronous HTTP server on one thread, the peer of the
// server benchmarks: every path answered with the same 13-byte body, keep-
// alive as the request asks. Written as Beast's own asynchronous server
// example is, without its file serving. Runs until killed.

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

#include <cstdlib>
#include <iostream>
#include <memory>

namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;
using tcp = net::ip::tcp;

namespace {

class Session : public std::enable_shared_from_this<Session> {
public:
    explicit Session(tcp::socket&& socket) : _stream(std::move(socket)) {}
    void Run() { Read(); }

private:
    void Read() {
        _request = {};
        http::async_read(_stream, _buffer, _request,
                         beast::bind_front_handler(&Session::OnRead, shared_from_this()));
    }
    void OnRead(beast::error_code ec, std::size_t) {
        if (ec) return Close();
        _response = std::make_shared<http::response<http::string_body>>(http::status::ok,
                                                                        _request.version());
        _response->set(http::field::server, "beast");
        _response->set(http::field::content_type, "text/plain");
        _response->keep_alive(_request.keep_alive());
        _response->body() = "Hello, World!";
        _response->prepare_payload();
        http::async_write(_stream, *_response,
                          beast::bind_front_handler(&Session::OnWrite, shared_from_this(),
                                                    _response->need_eof()));
    }
    void OnWrite(bool close, beast::error_code ec, std::size_t) {
        if (ec || close) return Close();
        Read();
    }
    void Close() {
        beast::error_code ec;
        _stream.socket().shutdown(tcp::socket::shutdown_send, ec);
    }

    beast::tcp_stream _stream;
    beast::flat_buffer _buffer;
    http::request<http::string_body> _request;
    std::shared_ptr<http::response<http::string_body>> _response;
};

class Listener : public std::enable_shared_from_this<Listener> {
public:
    Listener(net::io_context& io, tcp::endpoint endpoint) : _io(io), _acceptor(io) {
        _acceptor.open(endpoint.protocol());
        _acceptor.set_option(net::socket_base::reuse_address(true));
        _acceptor.bind(endpoint);
        _acceptor.listen(net::socket_base::max_listen_connections);
    }
    void Accept() {
        _acceptor.async_accept(_io,
                               beast::bind_front_handler(&Listener::OnAccept, shared_from_this()));
    }

private:
    void OnAccept(beast::error_code ec, tcp::socket socket) {
        if (!ec) {
            socket.set_option(tcp::no_delay(true), ec);
            std::make_shared<Session>(std::move(socket))->Run();
        }
        Accept();
    }
    net::io_context& _io;
    tcp::acceptor _acceptor;
};

} // namespace

int main(int argc, char** argv) {
    const unsigned short port = static_cast<unsigned short>(argc > 1 ? std::atoi(argv[1]) : 8081);
    net::io_context io{1};
    std::make_shared<Listener>(io, tcp::endpoint{net::ip::make_address("127.0.0.1"), port})
        ->Accept();
    net::signal_set signals(io, SIGINT, SIGTERM);
    signals.async_wait([&](beast::error_code, int) { io.stop(); });
    std::cout << "ready" << std::endl;
    io.run();
    return 0;
}
