// HTTP building blocks against their peers:
// - Chunked_*: a 16 MiB body in 8 KiB chunks. Ours reads an in-memory stream
//   that hands out up to 64 KiB per read, against a plain memcpy of the same
//   body in the same pieces (the ceiling). POCO's chunked stream needs a
//   socket, so both readers are also measured over a local socket pair fed by
//   a second thread (the *Socket rows), where the kernel's copy is included.
// - UrlEncode_*: 1 KiB of random bytes, ours against boost::urls::encode with
//   the same kept set (letters and digits).
// - ParseUri_*, ParseAuthority_*: ours into strings reused across calls (as a
//   caller's loop reuses them) against Boost.URL's views; also the RFC 3986
//   expression matched with Boost.Regex, compiled once, for reference.
// - HttpDate_*: ours from a broken-down UTC time against strftime of the same
//   text from a struct tm, into a buffer and into a std::string.

#include <tessera/http/clientResponse.h>
#include <tessera/http/http.h>
#include <tessera/system/dateTime.h>
#include <tessera/system/stream.h>

#include "tests/memoryStream.h"

#include <Poco/Net/HTTPChunkedStream.h>
#include <Poco/Net/HTTPSession.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Net/StreamSocketImpl.h>
#include <benchmark/benchmark.h>
#include <boost/regex.hpp>
#include <boost/url/encode.hpp>
#include <boost/url/grammar/alnum_chars.hpp>
#include <boost/url/parse.hpp>
#include <boost/url/src.hpp>

#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace Tessera;

constexpr std::size_t kBody = 16u << 20;
constexpr std::size_t kChunk = 8192;
constexpr std::size_t kPiece = 65536;

const std::string& ChunkedWire() {
    static const std::string wire = [] {
        std::string w;
        std::mt19937 rng(1);
        std::string chunk(kChunk, ' ');
        for (std::size_t done = 0; done < kBody; done += kChunk) {
            for (char& c : chunk) c = static_cast<char>(rng());
            w += "2000\r\n" + chunk + "\r\n";
        }
        return w + "0\r\n\r\n";
    }();
    return wire;
}

class StreamBase : public ObjectImpl, public System::Stream {
public:
    void Write(const char*, std::size_t) override {}
    void AsyncRead(char*, std::size_t, const ReadCallback&) override {}
    void AsyncWrite(const char*, std::size_t, const WriteCallback&) override {}
    void AsyncWriteBuffers(const System::ConstBuffer*, std::size_t, const WriteCallback&) override {
    }
    void SetTimeouts(std::int64_t, std::int64_t) override {}
    void ShutdownWrite() override {}
    void Close() override {}
    bool IsOpen() const override { return true; }
    std::string GetPeerName() const override { return "bench"; }
};

class FdStream : public StreamBase {
public:
    explicit FdStream(int fd) : _fd(fd) {}
    std::size_t Read(char* buffer, std::size_t maxLength) override {
        const ssize_t n = ::recv(_fd, buffer, maxLength, 0);
        return n > 0 ? static_cast<std::size_t>(n) : 0;
    }

private:
    int _fd;
};

void Chunked_Tessera(benchmark::State& state) {
    const std::string& wire = ChunkedWire();
    std::vector<char> out(kPiece);
    for (auto _ : state) {
        Ref<Testing::MemoryStream> stream(new Testing::MemoryStream(&wire, kPiece));
        Ref<Http::ChunkedClientResponseImpl> body(new Http::ChunkedClientResponseImpl(stream, "b"));
        std::size_t total = 0;
        while (std::size_t n = body->Read(out.data(), out.size())) total += n;
        if (total != kBody || !body->Finish()) state.SkipWithError("wrong body");
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kBody));
}

void Chunked_PlainCopy(benchmark::State& state) {
    const std::string& wire = ChunkedWire();
    std::vector<char> out(kPiece);
    for (auto _ : state) {
        for (std::size_t done = 0; done < kBody; done += kPiece) {
            std::memcpy(out.data(), wire.data() + done, kPiece);
            benchmark::DoNotOptimize(out.data());
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kBody));
}

// A socket pair whose one end a thread fills with the wire and then closes.
struct FedPair {
    int fds[2];
    std::thread feeder;
    FedPair() {
        if (::socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) std::abort();
        feeder = std::thread([fd = fds[1]] {
            const std::string& wire = ChunkedWire();
            std::size_t done = 0;
            while (done < wire.size()) {
                const ssize_t n = ::send(fd, wire.data() + done, wire.size() - done, 0);
                if (n <= 0) break;
                done += static_cast<std::size_t>(n);
            }
            ::close(fd);
        });
    }
    ~FedPair() { feeder.join(); }
};

void Chunked_TesseraSocket(benchmark::State& state) {
    std::vector<char> out(kPiece);
    for (auto _ : state) {
        FedPair pair;
        Ref<FdStream> stream(new FdStream(pair.fds[0]));
        Ref<Http::ChunkedClientResponseImpl> body(new Http::ChunkedClientResponseImpl(stream, "b"));
        std::size_t total = 0;
        while (std::size_t n = body->Read(out.data(), out.size())) total += n;
        if (total != kBody) state.SkipWithError("wrong body");
        ::close(pair.fds[0]);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kBody));
}

class PairSession : public Poco::Net::HTTPSession {
public:
    explicit PairSession(const Poco::Net::StreamSocket& socket) : HTTPSession(socket) {}
};

void Chunked_PocoSocket(benchmark::State& state) {
    std::vector<char> out(kPiece);
    for (auto _ : state) {
        FedPair pair;
        Poco::Net::StreamSocket socket(new Poco::Net::StreamSocketImpl(pair.fds[0]));
        PairSession session(socket);
        Poco::Net::HTTPChunkedInputStream in(session);
        std::size_t total = 0;
        while (in.read(out.data(), static_cast<std::streamsize>(out.size())) || in.gcount() > 0) {
            total += static_cast<std::size_t>(in.gcount());
        }
        if (total != kBody) state.SkipWithError("wrong body");
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kBody));
}

// ---- percent-encoding ----

const std::string& RandomKiB() {
    static const std::string text = [] {
        std::string s(1024, ' ');
        std::mt19937 rng(2);
        for (char& c : s) c = static_cast<char>(rng());
        return s;
    }();
    return text;
}

void UrlEncode_Tessera(benchmark::State& state) {
    for (auto _ : state) {
        std::string out = Http::URLEncode(RandomKiB());
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * 1024));
}

void UrlEncode_BoostUrl(benchmark::State& state) {
    for (auto _ : state) {
        std::string out = boost::urls::encode(RandomKiB(), boost::urls::grammar::alnum_chars);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * 1024));
}

// ---- URI and authority splitting ----

const std::string kUri = "http://user@example.com:8080/a/b/c?x=1&y=2#frag";
const std::string kAuthority = "user@example.com:8080";

void ParseUri_Tessera(benchmark::State& state) {
    std::string scheme, authority, path, query, fragment;
    for (auto _ : state) {
        Http::ParseURI(kUri, scheme, authority, path, query, fragment);
        benchmark::DoNotOptimize(path.data());
    }
}

void ParseUri_BoostUrl(benchmark::State& state) {
    for (auto _ : state) {
        auto uri = boost::urls::parse_uri(kUri);
        benchmark::DoNotOptimize(uri);
    }
}

void ParseUri_BoostRegexCompiledOnce(benchmark::State& state) {
    const boost::regex re(Http::URI_EXPRESSION);
    boost::smatch m;
    for (auto _ : state) {
        boost::regex_match(kUri, m, re);
        benchmark::DoNotOptimize(m);
    }
}

void ParseAuthority_Tessera(benchmark::State& state) {
    std::string user, host, port;
    for (auto _ : state) {
        Http::ParseURIAuthority(kAuthority, user, host, port);
        benchmark::DoNotOptimize(host.data());
    }
}

void ParseAuthority_BoostUrl(benchmark::State& state) {
    for (auto _ : state) {
        auto authority = boost::urls::parse_authority(kAuthority);
        benchmark::DoNotOptimize(authority);
    }
}

// ---- the HTTP date ----

const System::DateTime kDate(2026, 11, 23, 19, 4, 5, 0);

struct tm DateTm() {
    struct tm t {};
    t.tm_year = 2026 - 1900, t.tm_mon = 10, t.tm_mday = 23, t.tm_wday = 1;
    t.tm_hour = 19, t.tm_min = 4, t.tm_sec = 5;
    return t;
}

void HttpDate_Tessera(benchmark::State& state) {
    char out[29];
    for (auto _ : state) {
        Http::FormatHttpDate(kDate, out);
        benchmark::DoNotOptimize(out);
    }
}

void HttpDate_Strftime(benchmark::State& state) {
    const struct tm t = DateTm();
    char out[64];
    for (auto _ : state) {
        std::strftime(out, sizeof out, "%a, %d %b %Y %H:%M:%S GMT", &t);
        benchmark::DoNotOptimize(out);
    }
}

void HttpDate_TesseraString(benchmark::State& state) {
    for (auto _ : state) {
        std::string out = Http::FormatHttpDate(kDate);
        benchmark::DoNotOptimize(out.data());
    }
}

void HttpDate_StrftimeString(benchmark::State& state) {
    const struct tm t = DateTm();
    for (auto _ : state) {
        char buf[64];
        const std::size_t n = std::strftime(buf, sizeof buf, "%a, %d %b %Y %H:%M:%S GMT", &t);
        std::string out(buf, n);
        benchmark::DoNotOptimize(out.data());
    }
}

} // namespace

BENCHMARK(Chunked_Tessera)->Unit(benchmark::kMillisecond);
BENCHMARK(Chunked_PlainCopy)->Unit(benchmark::kMillisecond);
BENCHMARK(Chunked_TesseraSocket)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(Chunked_PocoSocket)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(UrlEncode_Tessera);
BENCHMARK(UrlEncode_BoostUrl);
BENCHMARK(ParseUri_Tessera);
BENCHMARK(ParseUri_BoostUrl);
BENCHMARK(ParseUri_BoostRegexCompiledOnce);
BENCHMARK(ParseAuthority_Tessera);
BENCHMARK(ParseAuthority_BoostUrl);
BENCHMARK(HttpDate_Tessera);
BENCHMARK(HttpDate_Strftime);
BENCHMARK(HttpDate_TesseraString);
BENCHMARK(HttpDate_StrftimeString);
