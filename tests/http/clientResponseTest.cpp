#include <tessera/exception.h>
#include <tessera/http/clientResponse.h>
#include <tessera/logger.h>

#include "tests/memoryStream.h"

#include <gtest/gtest.h>

#include <random>
#include <sstream>
#include <string>
#include <vector>

using namespace Tessera;
using namespace Tessera::Http;
using Service::Logger;
using Tessera::Testing::MemoryStream;

namespace {

struct Result {
    std::string body;
    bool reusable = false;
    std::string error; // "<kind>: <message>" when something was thrown
};

// Reads the whole body in reads of `readSize` (0: random sizes) and finishes.
Result ReadAll(ClientResponse& response, std::size_t readSize = 4096, unsigned seed = 1) {
    Result r;
    std::mt19937 rng(seed);
    std::vector<char> buf(70000);
    try {
        for (;;) {
            const std::size_t ask = readSize != 0 ? readSize : 1 + rng() % 20000;
            const std::size_t n = response.Read(buf.data(), ask);
            if (n == 0) break;
            r.body.append(buf.data(), n);
        }
        r.reusable = response.Finish();
    } catch (const TruncatedResponseException& e) {
        r.error = std::string("truncated: ") + e.what();
    } catch (const InvalidStateException& e) {
        r.error = std::string("invalid: ") + e.what();
    }
    return r;
}

Result Chunked(const std::string& wire, std::size_t piece = 0, std::size_t readSize = 4096,
               const Ref<Logger>& log = nullptr) {
    Ref<MemoryStream> stream(new MemoryStream(wire, piece));
    Ref<ChunkedClientResponseImpl> response(new ChunkedClientResponseImpl(stream, "GET /x", log));
    return ReadAll(*response, readSize);
}

std::string Chunk(const std::string& data, const std::string& sizeLine = "") {
    std::ostringstream size;
    size << std::hex << data.size();
    return (sizeLine.empty() ? size.str() : sizeLine) + "\r\n" + data + "\r\n";
}

} // namespace

// ---- the chunked reader's framing ----

TEST(ChunkedResponse, FramingAnswersAndTexts) {
    Result r = Chunked("5\r\nhello\r\n0\r\n\r\n");
    EXPECT_EQ("hello", r.body);
    EXPECT_TRUE(r.reusable) << r.error;

    // Extensions and either case of digits; blanks before the number.
    r = Chunked(Chunk("0123456789", " a;name=value") + Chunk(std::string(0x1F, 'z'), "1f") +
                "0;last\r\n\r\n");
    EXPECT_EQ("0123456789" + std::string(31, 'z'), r.body);
    EXPECT_TRUE(r.reusable) << r.error;

    // A trailer: its line is all that is consumed, so the end is not clean.
    Ref<Logger> log(new Logger("chunkedTest", Logger::MakeCombinedLevel(0, Logger::MASK_TRIVIA)));
    r = Chunked("5\r\nhello\r\n0\r\nX-Trailer: 1\r\n\r\n", 0, 4096, log);
    EXPECT_EQ("hello", r.body);
    EXPECT_FALSE(r.reusable);
    std::vector<std::string> lines;
    Service::LogManager::GetMemoryLog(lines);
    std::string logged;
    for (const std::string& line : lines) {
        if (line.find("'chunkedTest'") != std::string::npos) logged += line;
    }
    EXPECT_NE(std::string::npos,
              logged.find("warning 'chunkedTest'] Data left in internal read buffer, "
                          "after end-of-response.\n"))
        << logged;
    EXPECT_NE(std::string::npos, logged.find("The data in the buffer are: \r\n")) << logged;
    EXPECT_NE(std::string::npos, logged.find("Looking in buffer (pos 0 len 0) for chunk size"));

    EXPECT_EQ("invalid: Cannot find chunk size; GET /x", Chunked(std::string(8192, '1')).error);
    EXPECT_EQ("invalid: Cannot find chunk size; GET /x",
              Chunked(Chunk("ab") + std::string(8191, ' ') + "\r\n").error);
    EXPECT_EQ("", Chunked(std::string(8189, ' ') + "0\r\n\r\n").error);
    EXPECT_EQ("invalid: Invalid chunk size; GET /x", Chunked("zz\r\nab\r\n0\r\n\r\n").error);
    EXPECT_EQ("invalid: Invalid chunk size; GET /x", Chunked("0x\r\n").error);
    EXPECT_EQ("invalid: Invalid chunk size; GET /x",
              Chunked("10000000000000000\r\n").error); // past 64 bits
    EXPECT_EQ("invalid: Chunk terminals absent; GET /x", Chunked("5\r\nhello\n0\r\n\r\n").error);
    EXPECT_EQ("invalid: Chunk terminals absent; GET /x", Chunked("5\r\nhello\r\r").error);
    EXPECT_EQ("invalid: Chunk terminals absent; GET /x", Chunked("2\r\nhello").error);
}

TEST(ChunkedResponse, SizeLinesReadAsStreamExtractionReadsThem) {
    std::mt19937 rng(5);
    const std::string alphabet = " \t\r\n+-0xXaF9g;";
    for (int i = 0; i < 4000; ++i) {
        std::string line(rng() % 8, ' ');
        for (char& c : line) c = alphabet[rng() % alphabet.size()];
        if (line.find("\r\n") != std::string::npos) continue;
        std::istringstream in(line + "\r\n");
        unsigned long long expected = 0;
        const bool ok = static_cast<bool>(in >> std::hex >> expected);
        // A size is 0, which ends the body, or a chunk that the stream does
        // not have, which is a truncation; a failed extraction is framing.
        const Result r = Chunked(line + "\r\n0\r\n\r\n");
        if (!ok) {
            EXPECT_EQ("invalid: Invalid chunk size; GET /x", r.error) << '"' << line << '"';
        } else if (expected == 0) {
            EXPECT_EQ("", r.error) << '"' << line << '"';
        } else {
            EXPECT_EQ(0u, r.error.find("truncated: ")) << '"' << line << '"' << expected;
        }
    }
}

TEST(ChunkedResponse, PieceSizesChangeNothing) {
    std::mt19937 rng(7);
    std::string wire, body;
    for (std::size_t size : {1u, 2u, 8190u, 8191u, 8192u, 8193u, 20000u, 3u, 100u}) {
        std::string data(size, ' ');
        for (char& c : data) c = static_cast<char>(rng());
        body += data;
        wire += Chunk(data, size == 100 ? "64 ; x=\"1\"" : "");
    }
    for (const std::string& end : {std::string("0\r\n\r\n"), std::string("0\r\nT: 1\r\n\r\n")}) {
        const Result bytewise = Chunked(wire + end, 1, 0);
        const Result bulk = Chunked(wire + end, 65536, 0);
        EXPECT_EQ("", bytewise.error);
        EXPECT_EQ(body, bytewise.body);
        EXPECT_EQ(body, bulk.body);
        EXPECT_EQ(end.size() == 5, bytewise.reusable);
        EXPECT_EQ(bytewise.reusable, bulk.reusable);
    }
}

TEST(ChunkedResponse, TruncationAtEveryOffsetNamesItsStage) {
    struct Part {
        std::string text;
        const char* stage;
    };
    const char* size = "truncated: While determining chunk size, truncated HTTP response; GET /x";
    const char* data =
        "truncated: While reading chunk, a truncated HTTP response was received; GET /x";
    const char* terminal =
        "truncated: While reading chunk terminal, truncated HTTP response; GET /x";
    const char* last =
        "truncated: While reading last chunk, received truncated HTTP response; GET /x";
    const Part parts[] = {{"4\r\n", size},     {"abcd", data}, {"\r\n", terminal},
                          {"3;e=1\r\n", size}, {"xyz", data},  {"\r\n", terminal},
                          {"0\r\n", size},     {"\r\n", last}};
    std::string wire;
    std::vector<const char*> stageAt;
    for (const Part& p : parts) {
        wire += p.text;
        stageAt.insert(stageAt.end(), p.text.size(), p.stage);
    }
    for (std::size_t cut = 0; cut < wire.size(); ++cut) {
        for (std::size_t piece : {1u, 0u}) {
            EXPECT_EQ(stageAt[cut], Chunked(wire.substr(0, cut), piece).error)
                << "cut at " << cut << ", piece " << piece;
        }
    }
    EXPECT_EQ("abcdxyz", Chunked(wire).body);
}

TEST(ChunkedResponse, PreloadedBytesComeFirstAndStateIsKept) {
    Ref<MemoryStream> stream(new MemoryStream("lo\r\n0\r\n\r\n", 1));
    Ref<ChunkedClientResponseImpl> response(new ChunkedClientResponseImpl(stream));
    response->Preload("5\r\nhel", 6);
    EXPECT_THROW(response->Preload(std::string(8192, 'x').data(), 8192), InvalidArgumentException);
    Result r = ReadAll(*response, 2);
    EXPECT_EQ("hello", r.body);
    EXPECT_TRUE(r.reusable);
    EXPECT_EQ(0u, response->GetChunkSize());

    // Not read to its end: not reusable, and nothing more is read.
    Ref<MemoryStream> partial(new MemoryStream("5\r\nhello\r\n0\r\n\r\n"));
    Ref<ChunkedClientResponseImpl> early(new ChunkedClientResponseImpl(partial));
    char c;
    EXPECT_EQ(1u, early->Read(&c, 1));
    EXPECT_FALSE(early->Finish());

    // The stream's name stands in for a missing context.
    Ref<MemoryStream> cut(new MemoryStream("5\r\nhe"));
    Ref<ChunkedClientResponseImpl> unnamed(new ChunkedClientResponseImpl(cut));
    EXPECT_EQ("truncated: While reading chunk, a truncated HTTP response was received; memory",
              ReadAll(*unnamed).error);
    EXPECT_FALSE(unnamed->Finish());
}

// ---- the other two readers ----

TEST(SizedResponse, ReadsExactlyItsLength) {
    Ref<MemoryStream> stream(new MemoryStream("ello world and more", 3));
    Ref<ClientResponseWithSizeImpl> r(new ClientResponseWithSizeImpl(stream, 11, "GET /s"));
    r->Preload("h", 1);
    Result got = ReadAll(*r, 5);
    EXPECT_EQ("hello world", got.body);
    EXPECT_TRUE(got.reusable);
    EXPECT_EQ(10u, stream->Consumed());

    Ref<MemoryStream> shortStream(new MemoryStream("abc"));
    Ref<ClientResponseWithSizeImpl> truncated(
        new ClientResponseWithSizeImpl(shortStream, 5, "GET /s"));
    EXPECT_EQ("truncated: A truncated HTTP response was received; GET /s",
              ReadAll(*truncated).error);
    EXPECT_FALSE(truncated->Finish());

    // More preloaded than the body holds: not reusable.
    Ref<ClientResponseWithSizeImpl> extra(new ClientResponseWithSizeImpl(shortStream, 2));
    extra->Preload("xyz", 3);
    got = ReadAll(*extra);
    EXPECT_EQ("xy", got.body);
    EXPECT_FALSE(got.reusable);
}

TEST(UnsizedResponse, ReadsToTheCloseAndIsNeverReused) {
    Ref<MemoryStream> stream(new MemoryStream("body bytes", 4));
    Ref<ClientResponseWithoutSizeImpl> r(new ClientResponseWithoutSizeImpl(stream, "GET /u"));
    r->Preload(">", 1);
    Result got = ReadAll(*r, 3);
    EXPECT_EQ(">body bytes", got.body);
    EXPECT_FALSE(got.reusable);
    EXPECT_EQ(11u, r->GetBytesRead());

    Ref<MemoryStream> reset(new MemoryStream("abcdefgh", 2));
    reset->ResetAt(5);
    Ref<ClientResponseWithoutSizeImpl> broken(new ClientResponseWithoutSizeImpl(reset, "GET /u"));
    EXPECT_EQ("truncated: Server closed connection after 5 response bytes read; GET /u",
              ReadAll(*broken).error);
}
