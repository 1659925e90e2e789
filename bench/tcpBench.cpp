// TCP over loopback against a plain Asio program of the same shape:
//
//   TcpRoundTrip_*  100-byte request and response on one connection: our
//                   client (synchronous Write and Read) against our echo
//                   server on the pool, and a plain Asio client (blocking
//                   socket) against a plain Asio echo server on one io_context
//                   run by two threads, as our pool starts two I/O threads
//                   (and by one thread, for reference)
//   Mix_*            ours against the plain peer on the other side, to tell
//                   which side a difference comes from (analysis only)
//   TcpRoundTrip64_* the same on 64 connections at once, every side
//                   asynchronous: each connection sends its next request when
//                   its response is in; ours on the pool (two I/O threads to
//                   start with), the peer on one io_context run by two threads;
//                   an iteration is 64 x 16 round trips. Both start their
//                   connections from one handler posted to their threads (/0)
//                   or on the benchmark's own thread (/1: the first writes
//                   then happen there)
//   TcpStream64K_*   64 KiB writes, synchronous, to a server that reads and
//                   drops them; bytes per second
//   TcpPeerEnd_*     10,000 connections accepted by our server and ended by
//                   the peer, cleanly (/0) or with a reset (/1): what a
//                   routine failure costs next to a clean end

#include <tessera/system/system.h>
#include <tessera/system/tcp.h>
#include <tessera/system/threadPool.h>

#include <benchmark/benchmark.h>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

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
    std::vector<std::thread> runners;
    for (int i = 0; i < state.range(0); ++i) runners.emplace_back([&] { context.run(); });
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
    for (auto& r : runners) r.join();
}
// Two threads run the server as two I/O threads run ours; one for reference.
BENCHMARK(TcpRoundTrip_PlainAsio)->Arg(2)->Arg(1)->UseRealTime();

// Our synchronous client against the plain server, and the plain client
// against our server on the pool.
void Mix_OurClientPlainServer(benchmark::State& state) {
    boost::asio::io_context context;
    tcp::acceptor acceptor(context, tcp::endpoint(boost::asio::ip::address_v4::loopback(), 0));
    acceptor.async_accept([](const boost::system::error_code& ec, tcp::socket s) {
        if (ec) return;
        s.set_option(tcp::no_delay(true));
        std::make_shared<AsioEcho>(std::move(s))->Start();
    });
    std::thread runner([&] { context.run(); });
    Ref<TCPClientSocket> client;
    GetSystemFactory()->CreateTCPClientSocket(client);
    client->Connect("127.0.0.1", acceptor.local_endpoint().port(), 5 * 1000 * 1000);
    client->SetNoDelay(true);
    char out[kMessage] = {1}, in[kMessage];
    for (auto _ : state) {
        client->Write(out, sizeof out);
        ReadAll(*client, in, sizeof in);
    }
    client->Close();
    context.stop();
    runner.join();
}
BENCHMARK(Mix_OurClientPlainServer)->UseRealTime();

void Mix_PlainClientOurServer(benchmark::State& state) {
    Ref<TCPServerSocket> server;
    GetSystemFactory()->CreateTCPServerSocket(server);
    server->Listen("127.0.0.1", 0, 64, true);
    AcceptEchoes(server.Get());
    boost::asio::io_context clientContext;
    tcp::socket client(clientContext);
    client.connect(tcp::endpoint(boost::asio::ip::address_v4::loopback(), server->GetPort()));
    client.set_option(tcp::no_delay(true));
    char out[kMessage] = {1}, in[kMessage];
    for (auto _ : state) {
        boost::asio::write(client, boost::asio::buffer(out));
        boost::asio::read(client, boost::asio::buffer(in));
    }
    client.close();
    server->Close();
}
BENCHMARK(Mix_PlainClientOurServer)->UseRealTime();

constexpr int kConnections = 64;
constexpr int kRoundsPerIteration = 16;
constexpr std::size_t kChunk = 64 * 1024;

// Counts connections down to the end of a batch.
class Batch {
public:
    void Start(int n) {
        std::lock_guard<std::mutex> hold(_lock);
        _left = n;
    }
    void Done(bool failed) {
        std::lock_guard<std::mutex> hold(_lock);
        _failed = _failed || failed;
        if (--_left == 0) _changed.notify_all();
    }
    bool Wait() {
        std::unique_lock<std::mutex> hold(_lock);
        _changed.wait(hold, [this] { return _left == 0; });
        return !_failed;
    }

private:
    std::mutex _lock;
    std::condition_variable _changed;
    int _left = 0;
    bool _failed = false;
};

class Pinger : public ObjectImpl {
public:
    Pinger(TCPClientSocket* s, Batch* batch) : _s(s), _batch(batch) {}
    void Run(int rounds) {
        _left = rounds;
        Round();
    }

private:
    void Round() {
        _s->AsyncWrite(_out, kMessage, [self = Ref<Pinger>(this)](Stream*, Exception* e) {
            if (e) return self->_batch->Done(true);
            self->ReadFrom(0);
        });
    }
    void ReadFrom(std::size_t have) {
        _s->AsyncRead(_in + have, kMessage - have,
                      [self = Ref<Pinger>(this), have](Stream*, std::size_t n, Exception* e) {
                          if (e || n == 0) return self->_batch->Done(true);
                          if (have + n < kMessage) return self->ReadFrom(have + n);
                          if (--self->_left > 0) return self->Round();
                          self->_batch->Done(false);
                      });
    }

    Ref<TCPClientSocket> _s;
    Batch* _batch;
    int _left = 0;
    char _out[kMessage] = {1};
    char _in[kMessage];
};

void TcpRoundTrip64_Tessera(benchmark::State& state) {
    Ref<TCPServerSocket> server;
    GetSystemFactory()->CreateTCPServerSocket(server);
    server->Listen("127.0.0.1", 0, 128, true);
    AcceptEchoes(server.Get());
    Batch batch;
    std::vector<Ref<Pinger>> pingers;
    std::vector<Ref<TCPClientSocket>> clients;
    for (int i = 0; i < kConnections; ++i) {
        Ref<TCPClientSocket> client;
        GetSystemFactory()->CreateTCPClientSocket(client);
        client->Connect("127.0.0.1", server->GetPort(), 5 * 1000 * 1000);
        client->SetNoDelay(true);
        clients.push_back(client);
        pingers.push_back(new Pinger(client.Get(), &batch));
    }
    Ref<ThreadPool> pool = GetThreadPool();
    for (auto _ : state) {
        batch.Start(kConnections);
        if (state.range(0) == 0) {
            pool->PostCompletion([&pingers] {
                for (auto& p : pingers) p->Run(kRoundsPerIteration);
            });
        } else {
            for (auto& p : pingers) p->Run(kRoundsPerIteration);
        }
        if (!batch.Wait()) {
            state.SkipWithError("a round trip failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations() * kConnections * kRoundsPerIteration);
    for (auto& c : clients) c->Close();
    server->Close();
}
BENCHMARK(TcpRoundTrip64_Tessera)->Arg(0)->Arg(1)->UseRealTime();

struct AsioPinger : std::enable_shared_from_this<AsioPinger> {
    AsioPinger(boost::asio::io_context& context, Batch* b) : socket(context), batch(b) {}
    void Run(int rounds) {
        left = rounds;
        Round();
    }
    void Round() {
        auto self = shared_from_this();
        boost::asio::async_write(socket, boost::asio::buffer(out),
                                 [self](const boost::system::error_code& ec, std::size_t) {
                                     if (ec) return self->batch->Done(true);
                                     boost::asio::async_read(
                                         self->socket, boost::asio::buffer(self->in),
                                         [self](const boost::system::error_code& e, std::size_t) {
                                             if (e) return self->batch->Done(true);
                                             if (--self->left > 0) return self->Round();
                                             self->batch->Done(false);
                                         });
                                 });
    }
    tcp::socket socket;
    Batch* batch;
    int left = 0;
    char out[kMessage] = {1};
    char in[kMessage];
};

void AcceptAsioEchoes(tcp::acceptor& acceptor) {
    acceptor.async_accept([&acceptor](const boost::system::error_code& ec, tcp::socket s) {
        if (ec) return;
        s.set_option(tcp::no_delay(true));
        std::make_shared<AsioEcho>(std::move(s))->Start();
        AcceptAsioEchoes(acceptor);
    });
}

void TcpRoundTrip64_PlainAsio(benchmark::State& state) {
    boost::asio::io_context context;
    auto work = boost::asio::make_work_guard(context);
    tcp::acceptor acceptor(context, tcp::endpoint(boost::asio::ip::address_v4::loopback(), 0));
    AcceptAsioEchoes(acceptor);
    std::thread runners[] = {std::thread([&] { context.run(); }),
                             std::thread([&] { context.run(); })};
    Batch batch;
    std::vector<std::shared_ptr<AsioPinger>> pingers;
    for (int i = 0; i < kConnections; ++i) {
        auto p = std::make_shared<AsioPinger>(context, &batch);
        p->socket.connect(acceptor.local_endpoint());
        p->socket.set_option(tcp::no_delay(true));
        pingers.push_back(p);
    }
    for (auto _ : state) {
        batch.Start(kConnections);
        if (state.range(0) == 0) {
            boost::asio::post(context, [&pingers] {
                for (auto& p : pingers) p->Run(kRoundsPerIteration);
            });
        } else {
            for (auto& p : pingers) p->Run(kRoundsPerIteration);
        }
        if (!batch.Wait()) {
            state.SkipWithError("a round trip failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations() * kConnections * kRoundsPerIteration);
    for (auto& p : pingers) boost::asio::post(context, [p] { p->socket.close(); });
    work.reset();
    context.stop();
    for (auto& r : runners) r.join();
}
BENCHMARK(TcpRoundTrip64_PlainAsio)->Arg(0)->Arg(1)->UseRealTime();

// Reads and drops everything, counting the bytes.
class Sink : public ObjectImpl {
public:
    Sink(TCPSocket* s, std::atomic<std::uint64_t>* received) : _s(s), _received(received) {}
    void Start() {
        _s->AsyncRead(_buffer.data(), _buffer.size(),
                      [self = Ref<Sink>(this)](Stream*, std::size_t n, Exception* e) {
                          if (e || n == 0) return;
                          self->_received->fetch_add(n, std::memory_order_relaxed);
                          self->Start();
                      });
    }

private:
    Ref<TCPSocket> _s;
    std::atomic<std::uint64_t>* _received;
    std::vector<char> _buffer = std::vector<char>(kChunk);
};

void WaitFor(const std::atomic<std::uint64_t>& received, std::uint64_t total) {
    while (received.load(std::memory_order_relaxed) < total) std::this_thread::yield();
}

void TcpStream64K_Tessera(benchmark::State& state) {
    std::atomic<std::uint64_t> received{0};
    Ref<TCPServerSocket> server;
    GetSystemFactory()->CreateTCPServerSocket(server);
    server->Listen("127.0.0.1", 0, 8, true);
    server->AsyncAccept([&received](TCPServerSocket*, TCPSocket* socket, Exception* e) {
        if (!e) Ref<Sink>(new Sink(socket, &received))->Start();
    });
    Ref<TCPClientSocket> client;
    GetSystemFactory()->CreateTCPClientSocket(client);
    client->Connect("127.0.0.1", server->GetPort(), 5 * 1000 * 1000);
    std::vector<char> chunk(kChunk, 'x');
    for (auto _ : state) client->Write(chunk.data(), chunk.size());
    WaitFor(received, state.iterations() * kChunk);
    state.SetBytesProcessed(state.iterations() * kChunk);
    client->Close();
    server->Close();
}
BENCHMARK(TcpStream64K_Tessera)->UseRealTime();

struct AsioSink : std::enable_shared_from_this<AsioSink> {
    AsioSink(tcp::socket s, std::atomic<std::uint64_t>* r) : socket(std::move(s)), received(r) {}
    void Start() {
        auto self = shared_from_this();
        socket.async_read_some(boost::asio::buffer(buffer),
                               [self](const boost::system::error_code& ec, std::size_t n) {
                                   if (ec) return;
                                   self->received->fetch_add(n, std::memory_order_relaxed);
                                   self->Start();
                               });
    }
    tcp::socket socket;
    std::atomic<std::uint64_t>* received;
    std::vector<char> buffer = std::vector<char>(kChunk);
};

void TcpStream64K_PlainAsio(benchmark::State& state) {
    std::atomic<std::uint64_t> received{0};
    boost::asio::io_context context;
    tcp::acceptor acceptor(context, tcp::endpoint(boost::asio::ip::address_v4::loopback(), 0));
    acceptor.async_accept([&received](const boost::system::error_code& ec, tcp::socket s) {
        if (!ec) std::make_shared<AsioSink>(std::move(s), &received)->Start();
    });
    std::thread runner([&] { context.run(); });
    boost::asio::io_context clientContext;
    tcp::socket client(clientContext);
    client.connect(acceptor.local_endpoint());
    std::vector<char> chunk(kChunk, 'x');
    for (auto _ : state) boost::asio::write(client, boost::asio::buffer(chunk));
    WaitFor(received, state.iterations() * kChunk);
    state.SetBytesProcessed(state.iterations() * kChunk);
    client.close();
    context.stop();
    runner.join();
}
BENCHMARK(TcpStream64K_PlainAsio)->UseRealTime();

// Connections that the peer ends: 10,000 accepted by our server, each read
// until the peer closes it cleanly (/0: the read sees the end of the stream)
// or resets it (/1: the read fails with the connection reset). The client is
// a plain blocking socket; at most 256 connections are in flight.
constexpr int kPeerEnds = 10000;
constexpr int kPeerEndsInFlight = 256;

class PeerEnds {
public:
    void Ended(bool failed) {
        std::lock_guard<std::mutex> hold(_lock);
        ++_ended;
        _failures += failed ? 1 : 0;
        _changed.notify_all();
    }
    void WaitUntilEnded(int count) {
        std::unique_lock<std::mutex> hold(_lock);
        _changed.wait(hold, [&] { return _ended >= count; });
    }
    int Failures() {
        std::lock_guard<std::mutex> hold(_lock);
        return _failures;
    }

private:
    std::mutex _lock;
    std::condition_variable _changed;
    int _ended = 0;
    int _failures = 0;
};

class EndReader : public ObjectImpl {
public:
    EndReader(TCPSocket* s, PeerEnds* ends) : _s(s), _ends(ends) {}
    void Start() {
        _s->AsyncRead(_buffer, sizeof _buffer,
                      [self = Ref<EndReader>(this)](Stream*, std::size_t n, Exception* e) {
                          if (!e && n > 0) return self->Start();
                          self->_ends->Ended(e != nullptr);
                      });
    }

private:
    Ref<TCPSocket> _s;
    PeerEnds* _ends;
    char _buffer[64];
};

void AcceptEnds(TCPServerSocket* server, PeerEnds* ends) {
    server->AsyncAccept([ends](TCPServerSocket* s, TCPSocket* socket, Exception* e) {
        if (e) return;
        Ref<EndReader>(new EndReader(socket, ends))->Start();
        AcceptEnds(s, ends);
    });
}

void TcpPeerEnd_Tessera(benchmark::State& state) {
    const bool reset = state.range(0) == 1;
    Ref<TCPServerSocket> server;
    GetSystemFactory()->CreateTCPServerSocket(server);
    server->Listen("127.0.0.1", 0, 1024, true);
    PeerEnds ends;
    AcceptEnds(server.Get(), &ends);
    const tcp::endpoint to(boost::asio::ip::address_v4::loopback(), server->GetPort());
    boost::asio::io_context context;
    int started = 0;
    for (auto _ : state) {
        for (int i = 0; i < kPeerEnds; ++i) {
            if (started >= kPeerEndsInFlight) ends.WaitUntilEnded(started - kPeerEndsInFlight + 1);
            tcp::socket client(context);
            boost::system::error_code ec;
            client.connect(to, ec);
            if (ec) {
                state.SkipWithError(ec.message().c_str());
                break;
            }
            if (reset) client.set_option(boost::asio::socket_base::linger(true, 0));
            client.close();
            ++started;
        }
        ends.WaitUntilEnded(started);
    }
    server->Close();
    // Every reset must reach the reader as a failure, every clean end as none.
    if (ends.Failures() != (reset ? started : 0)) state.SkipWithError("wrong outcome of a read");
    state.SetItemsProcessed(started);
}
BENCHMARK(TcpPeerEnd_Tessera)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace
} // namespace TesseraBench
