// The HTTP service against real clients started by the tests on loopback:
// curl, Python's http.client and wrk (scripts/deps.sh installs them), and
// against abusive ones: a thousand clients that send their heads a byte at a
// time, and one that stops reading a large response.

#include <tessera/http/httpSvc.h>
#include <tessera/http/request.h>
#include <tessera/http/response.h>
#include <tessera/system/system.h>
#include <tessera/system/tcp.h>
#include <tessera/system/threadPool.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

using namespace Tessera;
using namespace Tessera::Http;

namespace {

int RunPeer(const std::string& command, std::string& output) {
    std::FILE* pipe = ::popen(("timeout 120 " + command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) return -1;
    char buffer[4096];
    while (std::size_t n = std::fread(buffer, 1, sizeof buffer, pipe)) output.append(buffer, n);
    const int status = ::pclose(pipe);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool Have(const std::string& program) {
    std::string ignored;
    return RunPeer("sh -c 'command -v " + program + "'", ignored) == 0;
}

std::string TempPath(const std::string& name) {
    const char* dir = std::getenv("TMPDIR");
    return std::string(dir && *dir ? dir : "/tmp") + "/tessera-" + std::to_string(::getpid()) +
           "-" + name;
}

// A service that echoes what it gets: method, path, the body's length and a
// checksum, and the body itself for /echo.
struct PeerService {
    explicit PeerService(HttpServiceSettings settings = HttpServiceSettings()) {
        settings.statisticsName = "";
        CreateHttpService(settings, service);
        service->AddHandler("/", true, [](const Ref<Request>& q, const Ref<Response>& r) {
            q->ReadBody([q, r](Request*, const std::string* body, Exception* e) {
                if (e) return;
                if (q->GetPath() == "/echo") {
                    r->SetHeader("Content-Type", "application/octet-stream");
                    r->Send(*body);
                    return;
                }
                r->Send(q->GetMethod() + " " + q->GetPath() + " " + std::to_string(body->size()) +
                        "\n");
            });
        });
        port = service->ListenTcp("127.0.0.1", 0);
        base = "http://127.0.0.1:" + std::to_string(port);
    }
    ~PeerService() { service->Shutdown(60LL * 1000 * 1000); }

    Ref<HttpService> service;
    std::uint16_t port = 0;
    std::string base;
};

} // namespace

TEST(HttpPeers, Curl) {
    if (!Have("curl")) GTEST_SKIP() << "curl is not installed (scripts/deps.sh installs it)";
    PeerService s;
    std::string out;
    // Two requests on one connection: one connect in all.
    ASSERT_EQ(RunPeer("curl -sS -w '%{num_connects}\\n' " + s.base + "/a " + s.base + "/b", out), 0)
        << out;
    EXPECT_EQ(out, "GET /a 0\n1\nGET /b 0\n0\n");
    // HEAD: the head only, with the length the body would have.
    out.clear();
    ASSERT_EQ(RunPeer("curl -sS -I " + s.base + "/head", out), 0) << out;
    EXPECT_NE(out.find("Content-Length: 13"), std::string::npos) << out;
    // A chunked upload of 3 MiB with 100-continue, echoed back unchanged.
    const std::string path = TempPath("upload");
    {
        std::mt19937 random(3);
        std::ofstream file(path, std::ios::binary);
        for (int i = 0; i < 3 << 20; ++i) file.put(static_cast<char>(random()));
    }
    out.clear();
    ASSERT_EQ(RunPeer("curl -sS -H 'Transfer-Encoding: chunked' -H 'Expect: 100-continue' "
                      "--data-binary @" +
                          path + " -o " + path + ".back " + s.base + "/echo",
                      out),
              0)
        << out;
    out.clear();
    EXPECT_EQ(RunPeer("cmp " + path + " " + path + ".back", out), 0) << out;
    std::remove(path.c_str());
    std::remove((path + ".back").c_str());
}

TEST(HttpPeers, PythonHttpClient) {
    if (!Have("/usr/bin/python3")) GTEST_SKIP() << "python3 is not installed";
    PeerService s;
    const std::string script = TempPath("client.py");
    std::ofstream(script) << R"PY(
import http.client, random, socket, sys
port = int(sys.argv[1])
rnd = random.Random(5)
c = http.client.HTTPConnection("127.0.0.1", port, timeout=60)
# Keep-alive: several requests on one connection.
for i in range(5):
    c.request("GET", "/k%d" % i)
    r = c.getresponse()
    assert r.status == 200 and r.read() == b"GET /k%d 0\n" % i, r.status
# A large body sent chunked in pieces of random sizes, echoed back.
data = bytes(rnd.getrandbits(8) for _ in range(1 << 20))
def pieces():
    at = 0
    while at < len(data):
        n = rnd.randint(1, 70000)
        yield data[at:at + n]
        at += n
c.request("PUT", "/echo", body=pieces(), encode_chunked=True)
r = c.getresponse()
assert r.read() == data
# 100-continue, then HEAD on the same connection.
c.putrequest("POST", "/continued")
c.putheader("Content-Length", "3")
c.putheader("Expect", "100-continue")
c.endheaders()
c.send(b"abc")
r = c.getresponse()
assert r.read() == b"POST /continued 3\n"
c.request("HEAD", "/h")
r = c.getresponse()
assert r.getheader("Content-Length") == "10" and r.read() == b""
# Pipelining: three requests in one write, the responses read in order from
# one buffered reader (each response object would otherwise make its own and
# lose what it read ahead; and a response closes its reader at its end).
s = socket.create_connection(("127.0.0.1", port), timeout=60)
s.sendall(b"".join(b"GET /p%d HTTP/1.1\r\nHost: x\r\n\r\n" % i for i in range(3)))
reader = s.makefile("rb")
class Kept:
    def __getattr__(self, name): return getattr(reader, name)
    def close(self): pass
class Source:
    def makefile(self, *args, **kwargs): return Kept()
for i in range(3):
    r = http.client.HTTPResponse(Source())
    r.begin()
    assert r.read() == b"GET /p%d 0\n" % i
print("ok")
)PY";
    std::string out;
    EXPECT_EQ(RunPeer("/usr/bin/python3 " + script + " " + std::to_string(s.port), out), 0) << out;
    EXPECT_EQ(out, "ok\n");
    std::remove(script.c_str());
}

TEST(HttpPeers, WrkKeepAliveAndPipelined) {
    if (!Have("wrk")) GTEST_SKIP() << "wrk is not installed (scripts/deps.sh installs it)";
    PeerService s;
    std::string out;
    ASSERT_EQ(RunPeer("wrk -t1 -c16 -d1s " + s.base + "/w", out), 0) << out;
    EXPECT_EQ(out.find("Socket errors"), std::string::npos) << out;
    EXPECT_EQ(out.find("Non-2xx"), std::string::npos) << out;
    // Sixteen requests per write.
    const std::string script = TempPath("pipeline.lua");
    std::ofstream(script) << "init = function(args)\n"
                             "  local r = {}\n"
                             "  for i = 1, 16 do r[i] = wrk.format(nil, \"/p\") end\n"
                             "  req = table.concat(r)\n"
                             "end\n"
                             "request = function() return req end\n";
    out.clear();
    ASSERT_EQ(RunPeer("wrk -t1 -c4 -d1s -s " + script + " " + s.base + "/p", out), 0) << out;
    EXPECT_EQ(out.find("Socket errors"), std::string::npos) << out;
    EXPECT_EQ(out.find("Non-2xx"), std::string::npos) << out;
    std::remove(script.c_str());
}

// A thousand clients that send a head one byte per second are cut by the head
// time-out, while another client is served all along.
TEST(HttpPeers, SlowHeadsAreCutWhileOthersAreServed) {
    rlimit limit;
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    if (limit.rlim_cur < 2500 && limit.rlim_max >= 2500) {
        limit.rlim_cur = 2500;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
    const int clients = limit.rlim_cur >= 2500 ? 1000 : static_cast<int>(limit.rlim_cur / 3);
    HttpServiceSettings settings;
    settings.headTimeoutMs = 1500;
    PeerService s(settings);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(s.port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::vector<int> slow;
    for (int i = 0; i < clients; ++i) {
        const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        slow.push_back(fd);
    }
    std::atomic<bool> done{false};
    std::thread dripper([&] {
        const std::string head = "GET /slow HTTP/1.1\r\nHost: h\r\nX: ";
        for (std::size_t at = 0; !done; ++at) {
            const char c = at < head.size() ? head[at] : 'x';
            for (int fd : slow) ::send(fd, &c, 1, MSG_NOSIGNAL);
            std::this_thread::sleep_for(std::chrono::seconds(1));
        }
    });
    // Served meanwhile.
    for (int i = 0; i < 20; ++i) {
        Ref<System::TCPClientSocket> c;
        System::GetSystemFactory()->CreateTCPClientSocket(c);
        c->Connect("127.0.0.1", s.port, 60LL * 1000 * 1000);
        c->SetTimeouts(60LL * 1000 * 1000, 60LL * 1000 * 1000);
        const std::string request = "GET /fast HTTP/1.1\r\nHost: h\r\nConnection: close\r\n\r\n";
        c->Write(request.data(), request.size());
        std::string response;
        char buffer[256];
        while (std::size_t n = c->Read(buffer, sizeof buffer)) response.append(buffer, n);
        EXPECT_EQ(response.substr(0, 12), "HTTP/1.1 200") << response;
    }
    // Every slow client ends closed by the server.
    int closed = 0;
    for (int fd : slow) {
        timeval wait{60, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
        char buffer[512];
        ssize_t n;
        while ((n = ::recv(fd, buffer, sizeof buffer, 0)) > 0) {}
        if (n == 0 || errno == ECONNRESET) ++closed;
    }
    done = true;
    dripper.join();
    for (int fd : slow) ::close(fd);
    EXPECT_EQ(closed, clients);
}

// A client that stops reading a large response holds no thread: others are
// served meanwhile, and the stalled write is cut by the body time-out.
TEST(HttpPeers, AClientThatStopsReadingHoldsNoThread) {
    Ref<System::ThreadPool> pool;
    System::GetSystemFactory()->CreateThreadPool(nullptr, pool);
    HttpServiceSettings settings;
    settings.pool = pool.Get();
    settings.bodyTimeoutMs = 1000;
    settings.statisticsName = "";
    Ref<HttpService> service;
    CreateHttpService(settings, service);
    const std::string large(64 << 20, 'z');
    service->AddHandler("/large", false,
                        [&](const Ref<Request>&, const Ref<Response>& r) { r->Send(large); });
    service->AddHandler("/small", false,
                        [](const Ref<Request>&, const Ref<Response>& r) { r->Send("small"); });
    const std::uint16_t port = service->ListenTcp("127.0.0.1", 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int stalled = ::socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(::connect(stalled, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    const std::string request = "GET /large HTTP/1.1\r\nHost: h\r\n\r\n";
    ASSERT_EQ(::send(stalled, request.data(), request.size(), 0),
              static_cast<ssize_t>(request.size()));
    for (int i = 0; i < 20; ++i) {
        Ref<System::TCPClientSocket> c;
        System::GetSystemFactory()->CreateTCPClientSocket(pool.Get(), c);
        c->Connect("127.0.0.1", port, 60LL * 1000 * 1000);
        c->SetTimeouts(60LL * 1000 * 1000, 60LL * 1000 * 1000);
        const std::string small = "GET /small HTTP/1.1\r\nHost: h\r\nConnection: close\r\n\r\n";
        c->Write(small.data(), small.size());
        std::string response;
        char buffer[256];
        while (std::size_t n = c->Read(buffer, sizeof buffer)) response.append(buffer, n);
        EXPECT_EQ(response.substr(response.size() - 5), "small");
    }
    // The stalled connection is closed by the server: reading it now ends
    // before the whole response.
    std::size_t got = 0;
    char buffer[65536];
    timeval wait{60, 0};
    ::setsockopt(stalled, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    // Once the server has let it go (the others closed after their
    // responses), whatever it had sent is all there is.
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (service->GetConnectionCount() > 0 && std::chrono::steady_clock::now() < until) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_EQ(service->GetConnectionCount(), 0u);
    ssize_t n;
    while ((n = ::recv(stalled, buffer, sizeof buffer, 0)) > 0) got += static_cast<std::size_t>(n);
    EXPECT_TRUE(n == 0 || errno == ECONNRESET) << errno;
    EXPECT_LT(got, large.size());
    ::close(stalled);
    service->Shutdown(60LL * 1000 * 1000);
    pool->Shutdown();
}
