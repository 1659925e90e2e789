// Streams over TCP and over local pipes: the same behaviour on both, checked
// by one set of cases run on each transport, then what is TCP's own.

#include <tessera/exception.h>
#include <tessera/system/namedPipe.h>
#include <tessera/system/system.h>
#include <tessera/system/tcp.h>
#include <tessera/system/threadPool.h>

#include "tests/asio/poolTestSupport.h"
#include "tests/http/httpTestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

using namespace Tessera;
using namespace Tessera::System;
using Tessera::PoolTest::WaitFor;

namespace {

typedef Functor<void(Stream*, Exception*)> AcceptDone;

// A listening endpoint and the way to connect to it.
class Transport {
public:
    virtual ~Transport() = default;
    virtual void Listen() = 0;
    virtual void AsyncAccept(const AcceptDone& done) = 0;
    virtual Ref<Stream> Accept() = 0;
    virtual Ref<Stream> Connect() = 0;
    virtual void CloseListener() = 0;
    virtual std::string PeerText() const = 0; // what failures of a client name
    // The pool the streams made later run on: the process's by default.
    void SetPool(ThreadPool* pool) { _pool = pool; }

protected:
    ThreadPool* _pool = GetThreadPool();
};

class TcpTransport : public Transport {
public:
    void Listen() override {
        GetSystemFactory()->CreateTCPServerSocket(_pool, _server);
        _server->Listen("localhost", 0, 128, true);
    }
    void AsyncAccept(const AcceptDone& done) override {
        _server->AsyncAccept([done](TCPServerSocket*, TCPSocket* s, Exception* e) { done(s, e); });
    }
    Ref<Stream> Accept() override {
        Ref<TCPSocket> s;
        _server->Accept(s);
        return s;
    }
    Ref<Stream> Connect() override {
        Ref<TCPClientSocket> client;
        GetSystemFactory()->CreateTCPClientSocket(_pool, client);
        client->Connect("127.0.0.1", _server->GetPort(), 5 * 1000 * 1000);
        return client;
    }
    void CloseListener() override { _server->Close(); }
    std::string PeerText() const override {
        return "127.0.0.1:" + std::to_string(_server->GetPort());
    }

private:
    Ref<TCPServerSocket> _server;
};

class PipeTransport : public Transport {
public:
    PipeTransport() {
        // Test programs run side by side, and thread ids repeat across
        // processes: a random number per process keeps their pipes apart.
        static const unsigned run = std::random_device{}();
        static std::atomic<int> serial{0};
        _name = GetLocalPipeName("tessera-test-" + std::to_string(run) + "-" +
                                 std::to_string(++serial));
    }
    void Listen() override {
        GetSystemFactory()->CreateNamedPipeServer(_pool, _name, 100, _server);
    }
    void AsyncAccept(const AcceptDone& done) override {
        _server->AsyncAccept([done](NamedPipeServer*, Stream* s, Exception* e) { done(s, e); });
    }
    Ref<Stream> Accept() override {
        Ref<Stream> s;
        _server->Accept(s);
        return s;
    }
    Ref<Stream> Connect() override {
        Ref<NamedPipeClientStream> client;
        GetSystemFactory()->CreateNamedPipeClientStream(_pool, _name, true, client);
        return client;
    }
    void CloseListener() override { _server->Close(); }
    std::string PeerText() const override { return _name; }

private:
    std::string _name;
    Ref<NamedPipeServer> _server;
};

// Echoes what it reads until the end of the stream, then closes.
class EchoSession : public ObjectImpl {
public:
    explicit EchoSession(Stream* stream) : _stream(stream) {}
    void Start() { ReadMore(); }

private:
    void ReadMore() {
        _stream->AsyncRead(_buffer, sizeof _buffer,
                           [self = Ref<EchoSession>(this)](Stream*, std::size_t n, Exception* e) {
                               self->Read(n, e);
                           });
    }
    void Read(std::size_t n, Exception* e) {
        if (e || n == 0) {
            _stream->Close();
            return;
        }
        _stream->AsyncWrite(_buffer, n, [self = Ref<EchoSession>(this)](Stream*, Exception* e) {
            if (e) {
                self->_stream->Close();
            } else {
                self->ReadMore();
            }
        });
    }

    Ref<Stream> _stream;
    char _buffer[16 * 1024];
};

// Accepts for ever, starting an echo session per connection.
void AcceptEchoes(Transport* transport) {
    transport->AsyncAccept([transport](Stream* s, Exception* e) {
        if (e) return; // the listener was closed
        Ref<EchoSession>(new EchoSession(s))->Start();
        AcceptEchoes(transport);
    });
}

// Sends `total` bytes in random pieces and checks that the same come back in
// order. Everything runs in callbacks on the pool.
class EchoClient : public ObjectImpl {
public:
    EchoClient(Ref<Stream> stream, std::size_t total, unsigned seed)
        : _stream(std::move(stream)), _out(total), _in(total), _random(seed) {
        for (std::size_t i = 0; i < total; ++i) _out[i] = static_cast<char>(_random());
    }
    void Start() {
        WriteMore();
        ReadMore();
    }
    bool Done() const { return _done.load(); }
    std::string Failure() const {
        std::lock_guard<std::mutex> hold(_lock);
        return _failure;
    }
    bool Matches() const { return _in == _out; }

private:
    void Fail(const std::string& what) {
        {
            std::lock_guard<std::mutex> hold(_lock);
            if (_failure.empty()) _failure = what;
        }
        _stream->Close();
        _done = true;
    }
    void WriteMore() {
        if (_written == _out.size()) return;
        std::size_t piece;
        {
            std::lock_guard<std::mutex> hold(_lock);
            piece = std::min<std::size_t>(_out.size() - _written, 1 + _random() % 65536);
        }
        const std::size_t at = _written;
        _written += piece;
        _stream->AsyncWrite(&_out[at], piece,
                            [self = Ref<EchoClient>(this)](Stream*, Exception* e) {
                                if (e) return self->Fail(std::string("write: ") + e->what());
                                self->WriteMore();
                            });
    }
    void ReadMore() {
        const std::size_t room = std::min<std::size_t>(_in.size() - _read, 40000);
        _stream->AsyncRead(&_in[_read], room,
                           [self = Ref<EchoClient>(this)](Stream*, std::size_t n, Exception* e) {
                               if (e) return self->Fail(std::string("read: ") + e->what());
                               if (n == 0) return self->Fail("early end of stream");
                               self->_read += n;
                               if (self->_read == self->_in.size()) {
                                   self->_stream->Close();
                                   self->_done = true;
                                   return;
                               }
                               self->ReadMore();
                           });
    }

    Ref<Stream> _stream;
    std::vector<char> _out;
    std::vector<char> _in;
    std::size_t _written = 0; // by the write chain only
    std::size_t _read = 0; // by the read chain only
    mutable std::mutex _lock;
    std::minstd_rand _random;
    std::string _failure;
    std::atomic<bool> _done{false};
};

class StreamTest : public testing::TestWithParam<const char*> {
protected:
    void SetUp() override {
        if (std::string(GetParam()) == "tcp") {
            _transport.reset(new TcpTransport);
        } else {
            _transport.reset(new PipeTransport);
        }
        _transport->Listen();
    }
    void TearDown() override { _transport->CloseListener(); }

    std::unique_ptr<Transport> _transport;
};

// One pair of connected streams, accepted synchronously.
struct Pair {
    Ref<Stream> client;
    Ref<Stream> server;
};

Pair Connect(Transport& transport) {
    Pair pair;
    std::thread acceptor([&] { pair.server = transport.Accept(); });
    try {
        pair.client = transport.Connect();
    } catch (...) {
        transport.CloseListener(); // ends the acceptor's wait
        acceptor.join();
        throw;
    }
    acceptor.join();
    return pair;
}

} // namespace

TEST_P(StreamTest, EchoOfManyConcurrentClientsKeepsEveryByteInOrder) {
    AcceptEchoes(_transport.get());
    constexpr int kClients = 64;
#if defined(__SANITIZE_THREAD__)
    constexpr std::size_t kBytes = 256 * 1024;
#else
    constexpr std::size_t kBytes = 1024 * 1024;
#endif
    std::vector<Ref<EchoClient>> clients;
    for (int i = 0; i < kClients; ++i) {
        clients.emplace_back(new EchoClient(_transport->Connect(), kBytes, 1000 + i));
    }
    for (auto& c : clients) c->Start();
    ASSERT_TRUE(WaitFor(
        [&] {
            for (auto& c : clients) {
                if (!c->Done()) return false;
            }
            return true;
        },
        60));
    for (int i = 0; i < kClients; ++i) {
        EXPECT_EQ(clients[i]->Failure(), "") << "client " << i;
        EXPECT_TRUE(clients[i]->Matches()) << "client " << i;
    }
}

TEST_P(StreamTest, SynchronousReadWriteAndEndOfStream) {
    Pair pair = Connect(*_transport);
    pair.client->Write("hello", 5);
    char buffer[16];
    std::size_t got = 0;
    while (got < 5) got += pair.server->Read(buffer + got, sizeof buffer - got);
    EXPECT_EQ(std::string(buffer, 5), "hello");
    pair.server->Write("back", 4);
    got = 0;
    while (got < 4) got += pair.client->Read(buffer + got, sizeof buffer - got);
    EXPECT_EQ(std::string(buffer, 4), "back");
    // The peer closing is a read of 0, every time.
    pair.client->Close();
    EXPECT_EQ(pair.server->Read(buffer, sizeof buffer), 0u);
    EXPECT_EQ(pair.server->Read(buffer, sizeof buffer), 0u);
    EXPECT_FALSE(pair.client->IsOpen());
}

// Pieces of every size, some larger than the system's buffers (so written in
// several steps that end inside a piece), arrive whole and in order.
TEST_P(StreamTest, GatheredWriteSendsEveryBufferInOrder) {
    Pair pair = Connect(*_transport);
    std::vector<std::string> pieces{
        "HTTP/1.1 200 OK\r\n\r\n", "", std::string(3 << 20, 'a'), "b", "", std::string(70000, 'c')};
    std::vector<ConstBuffer> first, second; // the second write reuses what the first left
    std::string expected;
    for (std::vector<ConstBuffer>* buffers : {&first, &second}) {
        for (const std::string& p : pieces) buffers->push_back({p.data(), p.size()});
        for (const std::string& p : pieces) expected += p;
    }
    std::atomic<int> calls{0};
    std::string failure;
    pair.client->AsyncWriteBuffers(first.data(), first.size(), [&](Stream*, Exception* e) {
        if (e) failure = e->what();
        pair.client->AsyncWriteBuffers(second.data(), second.size(),
                                       [&](Stream*, Exception* again) {
                                           if (again) failure = again->what();
                                           ++calls;
                                       });
    });
    first.assign(first.size(), ConstBuffer{nullptr, 0}); // copied by the call
    std::string got(expected.size(), '\0');
    std::size_t n = 0;
    while (n < got.size()) {
        const std::size_t step = pair.server->Read(&got[n], got.size() - n);
        ASSERT_GT(step, 0u);
        n += step;
    }
    ASSERT_TRUE(WaitFor([&] { return calls.load() == 1; }, 60));
    EXPECT_EQ(failure, "");
    EXPECT_TRUE(got == expected);
    // Nothing at all is a write too.
    pair.client->AsyncWriteBuffers(nullptr, 0, [&](Stream*, Exception* e) {
        if (e) failure = e->what();
        ++calls;
    });
    ASSERT_TRUE(WaitFor([&] { return calls.load() == 2; }, 60));
    EXPECT_EQ(failure, "");
}

// Streams made on a pool of the caller's run their callbacks there; a pool the
// library did not make is refused.
TEST_P(StreamTest, StreamsRunOnThePoolTheyWereMadeOn) {
    _transport->CloseListener();
    Ref<ThreadPool> own;
    GetSystemFactory()->CreateThreadPool(nullptr, own);
    _transport->SetPool(own.Get());
    _transport->Listen();
    std::atomic<int> onOwn{0}, onProcess{0};
    Pair pair = Connect(*_transport);
    pair.client->AsyncWrite("x", 1, [&](Stream*, Exception*) {
        onOwn += own->IsEnlisted() ? 1 : 0;
        onProcess += GetThreadPool()->IsEnlisted() ? 1 : 0;
    });
    char c = 0;
    pair.server->AsyncRead(&c, 1, [&](Stream*, std::size_t, Exception*) {
        onOwn += own->IsEnlisted() ? 1 : 0;
        onProcess += GetThreadPool()->IsEnlisted() ? 1 : 0;
    });
    ASSERT_TRUE(WaitFor([&] { return onOwn.load() + onProcess.load() == 2; }, 60));
    EXPECT_EQ(onOwn.load(), 2);
    EXPECT_EQ(c, 'x');
    pair.client->Close();
    pair.server->Close();
    _transport->CloseListener();

    Ref<HttpTest::OneThreadPool> foreign(new HttpTest::OneThreadPool);
    _transport->SetPool(foreign.Get());
    EXPECT_THROW(_transport->Listen(), InvalidArgumentException);
    _transport->SetPool(GetThreadPool());
    _transport->Listen(); // for TearDown
    own->Shutdown();
}

// Handlers on I/O threads that block in synchronous reads, fewer than the
// pool's "IoMax" of them at once, all get their bytes: where such a read
// waits for a completion that another I/O thread must run (Windows), the
// pool adds threads for it.
TEST_P(StreamTest, SynchronousReadsInIoHandlersBelowIoMaxComplete) {
    _transport->CloseListener();
    Ref<Service::Config> config = PoolTest::PoolConfig({{"IoMin", "1"}, {"IoMax", "4"}});
    const Service::Config::View view = config->GetView().GetChild("ThreadPool");
    Ref<ThreadPool> pool;
    GetSystemFactory()->CreateThreadPool(&view, pool);
    _transport->SetPool(pool.Get());
    _transport->Listen();
    constexpr int kReaders = 3;
    std::vector<Pair> pairs;
    for (int i = 0; i < kReaders; ++i) pairs.push_back(Connect(*_transport));
    std::atomic<int> entered{0}, got{0};
    for (int i = 0; i < kReaders; ++i) {
        pool->QueueWorkItem(
            [&, i] {
                ++entered;
                char c = 0;
                try {
                    if (pairs[i].server->Read(&c, 1) == 1 && c == 'a' + i) ++got;
                } catch (const Exception&) { // closed at the end of a failed run
                }
            },
            ThreadPool::WORK_IO);
    }
    ASSERT_TRUE(WaitFor([&] { return entered.load() == kReaders; }, 60));
    for (int i = 0; i < kReaders; ++i) {
        const char c = static_cast<char>('a' + i);
        pairs[i].client->Write(&c, 1);
    }
    EXPECT_TRUE(WaitFor([&] { return got.load() == kReaders; }, 60)) << got.load();
    for (Pair& p : pairs) p.server->Close(); // ends a read still waiting
    _transport->CloseListener();
    _transport->SetPool(GetThreadPool());
    _transport->Listen(); // for TearDown
    pool->Shutdown();
}

TEST_P(StreamTest, HalfCloseIsAReadOfZeroAndTheOtherWayStaysOpen) {
    Pair pair = Connect(*_transport);
    pair.client->Write("request", 7);
    try {
        pair.client->ShutdownWrite();
    } catch (const NotSupportedException&) {
        GTEST_SKIP() << "this transport has no half close here (Windows pipes)";
    }
    std::string request;
    char buffer[64];
    for (std::size_t n; (n = pair.server->Read(buffer, sizeof buffer)) != 0;) {
        request.append(buffer, n);
    }
    EXPECT_EQ(request, "request");
    pair.server->Write("response", 8);
    pair.server->Close();
    std::string response;
    for (std::size_t n; (n = pair.client->Read(buffer, sizeof buffer)) != 0;) {
        response.append(buffer, n);
    }
    EXPECT_EQ(response, "response");
}

TEST_P(StreamTest, ReadTimeOutFailsAndClosesTheStream) {
    Pair pair = Connect(*_transport);
    pair.client->SetTimeouts(50 * 1000, TIMEOUT_INFINITE);
    char buffer[8];
    EXPECT_THROW(pair.client->Read(buffer, sizeof buffer), TimeoutException);
    EXPECT_FALSE(pair.client->IsOpen());
    EXPECT_THROW(pair.client->Read(buffer, sizeof buffer), InvalidStateException);
    // The peer sees the end of the stream.
    EXPECT_EQ(pair.server->Read(buffer, sizeof buffer), 0u);

    // Asynchronously: the callback gets the time-out, once.
    Pair other = Connect(*_transport);
    other.server->SetTimeouts(30 * 1000, TIMEOUT_INFINITE);
    std::atomic<int> calls{0};
    std::atomic<bool> timedOut{false};
    other.server->AsyncRead(buffer, sizeof buffer, [&](Stream*, std::size_t n, Exception* e) {
        timedOut = n == 0 && dynamic_cast<TimeoutException*>(e) != nullptr;
        ++calls;
    });
    ASSERT_TRUE(WaitFor([&] { return calls.load() == 1; }));
    EXPECT_TRUE(timedOut.load());
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(calls.load(), 1);
}

TEST_P(StreamTest, WriteTimeOutWhenThePeerDoesNotRead) {
    Pair pair = Connect(*_transport);
    pair.client->SetTimeouts(TIMEOUT_INFINITE, 100 * 1000);
    std::vector<char> big(64 * 1024 * 1024, 'x');
    EXPECT_THROW(pair.client->Write(big.data(), big.size()), TimeoutException);
    EXPECT_FALSE(pair.client->IsOpen());
}

TEST_P(StreamTest, CloseFailsPendingAndLaterOperations) {
    Pair pair = Connect(*_transport);
    char buffer[8];
    std::atomic<int> calls{0};
    std::string message;
    pair.client->AsyncRead(buffer, sizeof buffer, [&](Stream* s, std::size_t, Exception* e) {
        EXPECT_EQ(s, pair.client.Get());
        if (e) message = e->what();
        EXPECT_NE(dynamic_cast<InvalidStateException*>(e), nullptr);
        ++calls;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    pair.client->Close();
    ASSERT_TRUE(WaitFor([&] { return calls.load() == 1; }));
    EXPECT_NE(message.find("is closed"), std::string::npos) << message;
    EXPECT_THROW(pair.client->Write("x", 1), InvalidStateException);
    // An operation on a closed stream still completes through its callback,
    // never inside the call.
    std::atomic<int> late{0};
    const std::thread::id caller = std::this_thread::get_id();
    pair.client->AsyncWrite("x", 1, [&](Stream*, Exception* e) {
        EXPECT_NE(std::this_thread::get_id(), caller);
        EXPECT_NE(e, nullptr);
        ++late;
    });
    EXPECT_TRUE(WaitFor([&] { return late.load() == 1; }));
    pair.client->Close(); // idempotent
}

TEST_P(StreamTest, CloseFromAnotherThreadEndsBlockedSynchronousCalls) {
    // A reader waiting for data and a writer waiting for room, both ended by
    // one Close from a third thread; the close lands before, between and
    // during their waits as the rounds go.
    for (int round = 0; round < 20; ++round) {
        Pair pair = Connect(*_transport);
        std::atomic<int> ended{0};
        std::string other;
        std::thread reader([&] {
            char buffer[8];
            try {
                pair.client->Read(buffer, sizeof buffer);
                other = "the read returned";
            } catch (const InvalidStateException&) {
                ++ended;
            }
        });
        std::thread writer([&] {
            std::vector<char> big(16 * 1024 * 1024, 'z');
            try {
                pair.client->Write(big.data(), big.size());
                other = "the write returned";
            } catch (const InvalidStateException&) {
                ++ended;
            }
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(round % 5 * 5));
        pair.client->Close();
        reader.join();
        writer.join();
        EXPECT_EQ(ended.load(), 2) << "round " << round << ": " << other;
    }
}

TEST_P(StreamTest, PeerVanishingMidWriteReachesTheWriteCallback) {
    Pair pair = Connect(*_transport);
    std::vector<char> big(32 * 1024 * 1024, 'y');
    std::atomic<int> calls{0};
    std::atomic<bool> failed{false};
    std::string message;
    pair.client->AsyncWrite(big.data(), big.size(), [&](Stream*, Exception* e) {
        failed = dynamic_cast<SystemException*>(e) != nullptr;
        if (e) message = e->what();
        ++calls;
    });
    char buffer[1024];
    pair.server->Read(buffer, sizeof buffer); // some arrived, the rest will not be read
    pair.server->Close();
    pair.server = nullptr;
    ASSERT_TRUE(WaitFor([&] { return calls.load() == 1; }, 30));
    EXPECT_TRUE(failed.load()) << message;
    EXPECT_NE(message.find(_transport->PeerText()), std::string::npos) << message;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(calls.load(), 1);
}

TEST_P(StreamTest, ClosedListenerFailsAPendingAccept) {
    std::atomic<int> calls{0};
    std::atomic<bool> closed{false};
    _transport->AsyncAccept([&](Stream* s, Exception* e) {
        closed = s == nullptr && dynamic_cast<InvalidStateException*>(e) != nullptr;
        ++calls;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    _transport->CloseListener();
    ASSERT_TRUE(WaitFor([&] { return calls.load() == 1; }));
    EXPECT_TRUE(closed.load());
}

INSTANTIATE_TEST_SUITE_P(Stream, StreamTest, testing::Values("tcp", "pipe"));

// ---- Local pipes' own ----

// A server's name is free again once it is closed (on POSIX, no socket file
// is left in the way). Names that are not UTF-8 are refused as such by server
// and client. (That a live server's name is refused to a second server is
// tested on POSIX only: Wine lets a second first instance be made.)
TEST(PipeStream, ANameIsFreeAgainOnceItsServerIsClosed) {
    const std::string name =
        GetLocalPipeName("tessera-owned-" + std::to_string(std::random_device{}()));
    Ref<NamedPipeServer> first;
    GetSystemFactory()->CreateNamedPipeServer(name, 4, first);
    Ref<NamedPipeServer> second;
    Ref<NamedPipeClientStream> client;
    GetSystemFactory()->CreateNamedPipeClientStream(name, true, client);
    Ref<Stream> accepted;
    first->Accept(accepted);
    client->Write("x", 1);
    char c = 0;
    ASSERT_EQ(accepted->Read(&c, 1), 1u);
    EXPECT_EQ(c, 'x');
    first->Close();
    GetSystemFactory()->CreateNamedPipeServer(name, 4, second);
    second->Close();

    const std::string bad = GetLocalPipeName("tessera-\xff\xfe");
    EXPECT_THROW(GetSystemFactory()->CreateNamedPipeServer(bad, 1, second),
                 InvalidArgumentException);
    EXPECT_THROW(GetSystemFactory()->CreateNamedPipeClientStream(bad, false, client),
                 InvalidArgumentException);
}

// ---- TCP's own ----

TEST(TcpStream, RefusedConnectionNamesThePeer) {
    Ref<TCPServerSocket> server;
    GetSystemFactory()->CreateTCPServerSocket(server);
    server->Listen("127.0.0.1", 0, 1, true);
    const std::uint16_t port = server->GetPort();
    server->Close();
    Ref<TCPClientSocket> client;
    GetSystemFactory()->CreateTCPClientSocket(client);
    try {
        client->Connect("127.0.0.1", port, 5 * 1000 * 1000);
        FAIL() << "connected to a closed port";
    } catch (const SystemException& e) {
        EXPECT_NE(std::string(e.what()).find("127.0.0.1:" + std::to_string(port)),
                  std::string::npos)
            << e.what();
    }
    // The same asynchronously, and a second connect on the same socket.
    Ref<TCPClientSocket> other;
    GetSystemFactory()->CreateTCPClientSocket(other);
    std::atomic<int> calls{0};
    std::atomic<bool> refused{false};
    other->AsyncConnect("localhost", port, 5 * 1000 * 1000, [&](Stream*, Exception* e) {
        refused = dynamic_cast<SystemException*>(e) != nullptr;
        ++calls;
    });
    ASSERT_TRUE(WaitFor([&] { return calls.load() == 1; }));
    EXPECT_TRUE(refused.load());
}

TEST(TcpStream, HostNamesPortsAndAddressFamilies) {
    Ref<TCPServerSocket> server;
    GetSystemFactory()->CreateTCPServerSocket(server);
    server->Listen("", 0, 16, true); // every interface
    EXPECT_NE(server->GetPort(), 0);
    Ref<TCPClientSocket> client;
    GetSystemFactory()->CreateTCPClientSocket(client);
    client->Connect("localhost", server->GetPort(), 5 * 1000 * 1000);
    Ref<TCPSocket> accepted;
    server->Accept(accepted);
    client->SetNoDelay(true);
    EXPECT_EQ(client->GetPeerName(), "localhost:" + std::to_string(server->GetPort()));
    EXPECT_NE(accepted->GetPeerName().find("127.0.0.1:"), std::string::npos);
    EXPECT_EQ(accepted->GetPeerName(), "127.0.0.1:" + std::to_string(client->GetLocalPort()));
    EXPECT_THROW(client->Connect("localhost", server->GetPort(), 1000), InvalidStateException);

    Ref<TCPServerSocket> v6;
    GetSystemFactory()->CreateTCPServerSocket(v6);
    try {
        v6->Listen("::1", 0, 16, true);
    } catch (const SystemException&) {
        GTEST_SKIP() << "no IPv6 loopback here";
    }
    Ref<TCPClientSocket> client6;
    GetSystemFactory()->CreateTCPClientSocket(client6);
    client6->Connect("::1", v6->GetPort(), 5 * 1000 * 1000);
    Ref<TCPSocket> accepted6;
    v6->Accept(accepted6);
    client6->Write("6", 1);
    char c = 0;
    EXPECT_EQ(accepted6->Read(&c, 1), 1u);
    EXPECT_EQ(c, '6');
    EXPECT_EQ(client6->GetPeerName(), "[::1]:" + std::to_string(v6->GetPort()));

    EXPECT_THROW(server->Listen("not an address", 0, 1, true), Exception);
}

TEST(TcpStream, ConnectTimesOutWhenTheListenerDoesNotAnswer) {
    // A listener that never accepts answers only as many connections as its
    // queue holds; the system drops the handshakes of the next ones.
    Ref<TCPServerSocket> server;
    GetSystemFactory()->CreateTCPServerSocket(server);
    server->Listen("127.0.0.1", 0, 1, true);
    const std::uint16_t port = server->GetPort();
    std::vector<Ref<TCPClientSocket>> queued;
    for (int i = 0; i < 64; ++i) {
        Ref<TCPClientSocket> client;
        GetSystemFactory()->CreateTCPClientSocket(client);
        try {
            client->Connect("127.0.0.1", port, 200 * 1000);
        } catch (const TimeoutException& e) {
            EXPECT_NE(std::string(e.what()).find("Timed out after 200000 microseconds: connect to "
                                                 "127.0.0.1:" +
                                                 std::to_string(port)),
                      std::string::npos)
                << e.what();
            EXPECT_FALSE(client->IsOpen());
            return;
        }
        queued.push_back(client);
    }
    FAIL() << "64 connections went through to a listener that accepts none";
}

TEST(TcpStream, CallbacksThatBlockGetASpareIoThread) {
    // Every I/O thread of the pool is held in a read callback until one more
    // callback has run: only a thread started for it can run that one.
    std::vector<ThreadPool::Statistic> stats;
    GetThreadPool()->GetStatistics(stats);
    int threads = 0;
    for (const auto& s : stats) {
        if (s.name == "IOThreads") threads = static_cast<int>(s.value);
    }
    ASSERT_GT(threads, 0);
    TcpTransport transport;
    transport.Listen();
    std::vector<Pair> pairs;
    for (int i = 0; i <= threads; ++i) pairs.push_back(Connect(transport));
    std::atomic<int> held{0}, left{0};
    std::atomic<bool> lastRan{false}, letGo{false};
    char buffers[64][1];
    ASSERT_LT(threads, 64);
    for (int i = 0; i <= threads; ++i) {
        const bool last = i == threads;
        pairs[i].server->AsyncRead(buffers[i], 1, [&, last](Stream*, std::size_t, Exception*) {
            if (last) {
                lastRan = true;
                return;
            }
            ++held;
            // Held until the last callback ran or the test has its verdict.
            WaitFor([&] { return lastRan.load() || letGo.load(); }, 600);
            ++left;
        });
    }
    for (int i = 0; i < threads; ++i) pairs[i].client->Write("x", 1);
    const bool allHeld = WaitFor([&] { return held.load() == threads; });
    EXPECT_TRUE(allHeld);
    if (allHeld) {
        pairs[threads].client->Write("x", 1);
        // The held callbacks wait for it: only a spare thread can run it.
        EXPECT_TRUE(WaitFor([&] { return lastRan.load(); }));
    }
    letGo = true;
    EXPECT_TRUE(WaitFor([&] { return left.load() == held.load(); }));
    transport.CloseListener();
}

TEST(TcpStream, UnknownHostFails) {
    Ref<TCPClientSocket> client;
    GetSystemFactory()->CreateTCPClientSocket(client);
    EXPECT_THROW(client->Connect("no-such-host.invalid", 80, 5 * 1000 * 1000), SystemException);
}
