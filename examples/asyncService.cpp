// A service that works through the thread pool: it posts a work item, runs a
// timer, and talks to itself over a TCP connection on the loopback interface,
// every step completing on the pool.

#include <tessera/exception.h>
#include <tessera/functor.h>
#include <tessera/service.h>
#include <tessera/system/system.h>
#include <tessera/system/tcp.h>
#include <tessera/system/threadPool.h>

#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>

using namespace Tessera;
using namespace Tessera::System;

namespace {

std::mutex sLock;
std::condition_variable sChanged;
int sSteps = 0;

void StepDone(const char* what) {
    std::lock_guard<std::mutex> hold(sLock);
    std::printf("%s\n", what);
    ++sSteps;
    sChanged.notify_all();
}

// The server side of one connection: reads a greeting, answers it.
class Greeter : public ObjectImpl {
public:
    explicit Greeter(TCPSocket* socket) : _socket(socket) {}
    void Start() {
        _socket->AsyncRead(_buffer, sizeof _buffer,
                           [self = Ref<Greeter>(this)](Stream*, std::size_t n, Exception* e) {
                               if (e || n == 0) return;
                               self->_reply = "hello, " + std::string(self->_buffer, n);
                               self->_socket->AsyncWrite(self->_reply.data(), self->_reply.size(),
                                                         [self](Stream*, Exception* error) {
                                                             if (!error)
                                                                 self->_socket->ShutdownWrite();
                                                         });
                           });
    }

private:
    Ref<TCPSocket> _socket;
    char _buffer[64];
    std::string _reply;
};

} // namespace

int main() {
    ThreadPool* pool = GetThreadPool();

    pool->QueueWorkItem([] { StepDone("work item ran on the pool"); });

    Ref<Timer> timer;
    pool->ScheduleTimer(
        50 * 1000, [] { StepDone("timer fired after 50 ms"); }, timer);

    Ref<TCPServerSocket> server;
    GetSystemFactory()->CreateTCPServerSocket(server);
    server->Listen("localhost", 0, 16, true);
    server->AsyncAccept([](TCPServerSocket*, TCPSocket* socket, Exception* e) {
        if (e) return;
        Ref<Greeter>(new Greeter(socket))->Start();
    });

    Ref<TCPClientSocket> client;
    GetSystemFactory()->CreateTCPClientSocket(client);
    static char answer[64];
    client->AsyncConnect(
        "localhost", server->GetPort(), 5 * 1000 * 1000, [](Stream* stream, Exception* e) {
            if (e) {
                std::printf("connect failed: %s\n", e->what());
                return;
            }
            stream->AsyncWrite("pool", 4, [](Stream* s, Exception* error) {
                if (error) return;
                s->AsyncRead(answer, sizeof answer, [](Stream*, std::size_t n, Exception* x) {
                    if (x) return;
                    std::printf("the server answered \"%.*s\"\n", static_cast<int>(n), answer);
                    StepDone("talked to itself over TCP");
                });
            });
        });

    std::unique_lock<std::mutex> hold(sLock);
    const bool done = sChanged.wait_for(hold, std::chrono::seconds(10), [] { return sSteps == 3; });
    hold.unlock();
    client->Close();
    server->Close();
    pool->Shutdown();
    return done ? 0 : 1;
}
