// The request-head parser and the chunked decoder: what they accept, what
// they refuse with which status (the smuggling and malformed-request corpus),
// and that the answer never depends on how the bytes were cut.

#include <tessera/http/chunkedDecoder.h>
#include <tessera/http/requestParser.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

using namespace Tessera::Http;

namespace {

struct Outcome {
    RequestParser::Result result;
    int status = 0;
    std::size_t headLength = 0;
};

// Parses `text` fed in pieces of `step` bytes (0: all at once), in a buffer
// that is copied anew for every call, as a growing connection buffer may be;
// the head's views point into the last one, `buffer`.
Outcome ParseInPieces(const std::string& text, std::size_t step, RequestParser& parser,
                      std::string& buffer) {
    parser.Reset();
    RequestParser::Result result = RequestParser::NeedMore;
    std::size_t given = 0;
    while (result == RequestParser::NeedMore && given < text.size()) {
        given = step == 0 ? text.size() : std::min(text.size(), given + step);
        buffer = text.substr(0, given); // a new copy each time
        result = parser.Parse(buffer.data(), buffer.size());
    }
    return {result, parser.ErrorStatus(), parser.HeadLength()};
}

Outcome ParseInPieces(const std::string& text, std::size_t step, RequestParser& parser) {
    std::string buffer;
    return ParseInPieces(text, step, parser, buffer);
}

std::string Head(const std::string& text) {
    RequestParser parser;
    const Outcome outcome = ParseInPieces(text, 0, parser);
    return outcome.result == RequestParser::Done ? "done" : "?";
}

} // namespace

TEST(RequestParser, AcceptsWellFormedHeadsAndReadsTheirFraming) {
    RequestParser parser;
    const std::string text =
        "\r\nPOST /api/v1/items?x=1 HTTP/1.1\r\n"
        "Host: example.com\r\n"
        "content-length:  12 \r\n"
        "X-Empty:\r\n"
        "X-Tab:\tvalue\twith tab\t\r\n"
        "Connection: Keep-Alive, Upgrade\r\n"
        "\r\n"
        "hello world!GET / HTTP/1.1\r\n";
    ASSERT_EQ(parser.Parse(text.data(), text.size()), RequestParser::Done);
    const RequestHead& head = parser.Head();
    EXPECT_EQ(head.method, "POST");
    EXPECT_EQ(head.target, "/api/v1/items?x=1");
    EXPECT_EQ(head.minorVersion, 1);
    EXPECT_EQ(head.host, "example.com");
    EXPECT_EQ(head.framing, BodyFraming::Length);
    EXPECT_EQ(head.contentLength, 12u);
    EXPECT_TRUE(head.keepAlive);
    ASSERT_EQ(head.fieldCount, 5u);
    EXPECT_EQ(head.fields[1].name, "content-length");
    EXPECT_EQ(head.fields[1].value, "12");
    EXPECT_EQ(head.fields[2].value, "");
    EXPECT_EQ(head.fields[3].value, "value\twith tab");
    ASSERT_NE(head.Find("CONTENT-LENGTH"), nullptr);
    EXPECT_EQ(head.Find("x-missing"), nullptr);
    EXPECT_EQ(text.substr(parser.HeadLength(), 12), "hello world!");

    // The version's keep-alive default, Connection: close, chunked framing,
    // Expect, absolute and asterisk targets.
    struct Case {
        const char* text;
        bool keepAlive;
        BodyFraming framing;
        bool expectContinue;
    } cases[] = {
        {"GET / HTTP/1.0\r\n\r\n", false, BodyFraming::None, false},
        {"GET / HTTP/1.0\r\nConnection: keep-alive\r\n\r\n", true, BodyFraming::None, false},
        {"GET / HTTP/1.1\r\nHost: a\r\nConnection: close\r\n\r\n", false, BodyFraming::None, false},
        {"PUT /x HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: Chunked\r\n\r\n", true,
         BodyFraming::Chunked, false},
        {"PUT /x HTTP/1.1\r\nHost: a\r\nContent-Length: 0\r\nExpect: 100-Continue\r\n\r\n", true,
         BodyFraming::None, true},
        {"GET http://a.example:8080/p?q HTTP/1.1\r\nHost: a.example:8080\r\n\r\n", true,
         BodyFraming::None, false},
        {"OPTIONS * HTTP/1.1\r\nHost: a\r\n\r\n", true, BodyFraming::None, false},
    };
    for (const Case& c : cases) {
        parser.Reset();
        ASSERT_EQ(parser.Parse(c.text, std::strlen(c.text)), RequestParser::Done) << c.text;
        EXPECT_EQ(parser.Head().keepAlive, c.keepAlive) << c.text;
        EXPECT_EQ(parser.Head().framing, c.framing) << c.text;
        EXPECT_EQ(parser.Head().expectContinue, c.expectContinue) << c.text;
    }
}

// Each malformed or ambiguous head gets its status, however it is cut.
TEST(RequestParser, RefusesTheSmugglingAndMalformedCorpus) {
    const std::string longTarget(9000, 'a');
    const std::string manyFields = [] {
        std::string s;
        for (int i = 0; i < 101; ++i) s += "X-" + std::to_string(i) + ": v\r\n";
        return s;
    }();
    struct Case {
        std::string text;
        int status;
    } cases[] = {
        // Line ends, control characters, folding.
        {"GET / HTTP/1.1\nHost: a\r\n\r\n", 400},
        {"GET / HTTP/1.1\r\nHost: a\n\r\n", 400},
        {"GET / HTTP/1.1\r\nHost: a\r\n\n", 400},
        {"GET / HTTP/1.1\r\nHost: a\rX: b\r\n\r\n", 400},
        {std::string("GET / HTTP/1.1\r\nHost: a\r\nX: b\0c\r\n\r\n", 35), 400},
        {"GET / HTTP/1.1\r\nHost: a\r\nX: \x7f\r\n\r\n", 400},
        {"GET / HTTP/1.1\r\nHost: a\r\nX: b\r\n folded\r\n\r\n", 400},
        {"GET / HTTP/1.1\r\n Host: a\r\n\r\n", 400},
        {"GET / HTTP/1.1\r\nHost : a\r\n\r\n", 400},
        {"GET / HTTP/1.1\r\nHo\"st: a\r\n\r\n", 400},
        {"GET / HTTP/1.1\r\n: a\r\nHost: a\r\n\r\n", 400},
        // The request line.
        {"GET  / HTTP/1.1\r\nHost: a\r\n\r\n", 400},
        {"GET / HTTP/1.1 \r\nHost: a\r\n\r\n", 400},
        {"GET /a b HTTP/1.1\r\nHost: a\r\n\r\n", 400},
        {"G(T / HTTP/1.1\r\nHost: a\r\n\r\n", 400},
        {"GET a/b HTTP/1.1\r\nHost: a\r\n\r\n", 400},
        {"GET * HTTP/1.1\r\nHost: a\r\n\r\n", 400},
        {"GET /\xc3\xa9 HTTP/1.1\r\nHost: a\r\n\r\n", 400},
        {"GET / http/1.1\r\nHost: a\r\n\r\n", 400},
        {"GET / HTTP/1.10\r\nHost: a\r\n\r\n", 400},
        {"GET / HTTP/2.0\r\nHost: a\r\n\r\n", 505},
        {"GET / HTTP/1.2\r\nHost: a\r\n\r\n", 505},
        {"GET / HTTP/0.9\r\n\r\n", 505},
        // Framing: CL.TE, TE.CL, TE.TE, lengths.
        {"POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 4\r\nTransfer-Encoding: chunked\r\n\r\n",
         400},
        {"POST / HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\nContent-Length: 4\r\n\r\n",
         400},
        {"POST / HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\nTransfer-Encoding: x\r\n\r\n",
         400},
        {"POST / HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: gzip, chunked\r\n\r\n", 501},
        {"POST / HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked, chunked\r\n\r\n", 501},
        {"POST / HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: xchunked\r\n\r\n", 501},
        {"POST / HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: \"chunked\"\r\n\r\n", 501},
        {"POST / HTTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n", 400},
        {"POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 4\r\nContent-Length: 4\r\n\r\n", 400},
        {"POST / HTTP/1.1\r\nHost: a\r\nContent-Length: +4\r\n\r\n", 400},
        {"POST / HTTP/1.1\r\nHost: a\r\nContent-Length: -1\r\n\r\n", 400},
        {"POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 4 4\r\n\r\n", 400},
        {"POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 4, 4\r\n\r\n", 400},
        {"POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 0x10\r\n\r\n", 400},
        {"POST / HTTP/1.1\r\nHost: a\r\nContent-Length:\r\n\r\n", 400},
        {"POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 9223372036854775808\r\n\r\n", 400},
        {"POST / HTTP/1.1\r\nHost: a\r\nContent-Length: 99999999999999999999\r\n\r\n", 400},
        // Host.
        {"GET / HTTP/1.1\r\n\r\n", 400},
        {"GET / HTTP/1.1\r\nHost: a\r\nHost: b\r\n\r\n", 400},
        {"GET / HTTP/1.0\r\nHost: a\r\nHost: b\r\n\r\n", 400},
        {"GET / HTTP/1.1\r\nHost: a\r\nConnection: close; x\r\n\r\n", 400},
        // Expectations and sizes.
        {"GET / HTTP/1.1\r\nHost: a\r\nExpect: 200-ok\r\n\r\n", 417},
        {"GET /" + longTarget + " HTTP/1.1\r\nHost: a\r\n\r\n", 414},
        {"GET / HTTP/1.1\r\nHost: a\r\nX: " + std::string(33 * 1024, 'v') + "\r\n\r\n", 431},
        {"GET / HTTP/1.1\r\nHost: a\r\n" + manyFields + "\r\n", 431},
    };
    RequestParser parser;
    for (const Case& c : cases) {
        for (std::size_t step : {std::size_t(0), std::size_t(1), std::size_t(7)}) {
            const Outcome outcome = ParseInPieces(c.text, step, parser);
            EXPECT_EQ(outcome.result, RequestParser::Error)
                << "step " << step << ": " << c.text.substr(0, 120);
            EXPECT_EQ(outcome.status, c.status) << "step " << step << ": " << c.text.substr(0, 120);
        }
    }
    // An oversize line is refused before its end arrives.
    parser.Reset();
    const std::string endless = "GET /" + longTarget;
    EXPECT_EQ(parser.Parse(endless.data(), endless.size()), RequestParser::Error);
    EXPECT_EQ(parser.ErrorStatus(), 414);
    parser.Reset();
    const std::string endlessField = "GET / HTTP/1.1\r\nX: " + std::string(40 * 1024, 'v');
    EXPECT_EQ(parser.Parse(endlessField.data(), endlessField.size()), RequestParser::Error);
    EXPECT_EQ(parser.ErrorStatus(), 431);
}

// Pipelined heads, one after another in one buffer; the same result for
// every way of cutting the bytes.
TEST(RequestParser, CutsAnywhereGiveTheSameHeads) {
    const std::string one =
        "GET /first HTTP/1.1\r\nHost: h\r\nUser-Agent: test/1.0\r\nAccept: */*\r\n\r\n";
    const std::string two = "HEAD /second HTTP/1.1\r\nHost: h\r\nConnection: close\r\n\r\n";
    const std::string both = one + two;
    RequestParser parser;
    for (std::size_t step = 1; step <= both.size(); step += 3) {
        std::string buffer;
        Outcome first = ParseInPieces(both, step, parser, buffer);
        ASSERT_EQ(first.result, RequestParser::Done) << step;
        ASSERT_EQ(first.headLength, one.size()) << step;
        ASSERT_NE(parser.Head().Find("accept"), nullptr);
        EXPECT_EQ(*parser.Head().Find("accept"), "*/*");
        Outcome second = ParseInPieces(both.substr(first.headLength), step, parser, buffer);
        ASSERT_EQ(second.result, RequestParser::Done) << step;
        EXPECT_EQ(parser.Head().method, "HEAD");
        EXPECT_FALSE(parser.Head().keepAlive);
    }
    EXPECT_EQ(Head("GET / HTTP/1.1\r\nHost: h\r\n"), "?"); // not complete yet
}

namespace {

// Decodes `body` given in pieces of `step` bytes; returns the decoded bytes,
// or "error: <text>", and in `rest` what followed the body.
std::string Decode(const std::string& body, std::size_t step = 0, std::string* rest = nullptr) {
    ChunkedDecoder decoder;
    std::string pending; // received, not yet consumed
    std::string out;
    std::size_t given = 0;
    for (;;) {
        std::size_t used = 0;
        std::string_view piece;
        const ChunkedDecoder::Result result =
            decoder.Decode(pending.data(), pending.size(), used, piece);
        out.append(piece.data(), piece.size());
        pending.erase(0, used);
        if (result == ChunkedDecoder::Error) return std::string("error: ") + decoder.ErrorText();
        if (result == ChunkedDecoder::Done) {
            if (rest) *rest = pending + body.substr(given);
            return out;
        }
        if (result == ChunkedDecoder::NeedMore) {
            if (given == body.size()) return "incomplete";
            const std::size_t take = step == 0 ? body.size() - given : step;
            pending += body.substr(given, take);
            given = std::min(body.size(), given + take);
        }
    }
}

} // namespace

TEST(ChunkedDecoder, DecodesStrictChunksHoweverTheyArrive) {
    const std::string body =
        "5\r\nhello\r\n1;name=value;x\r\n \r\n000a\r\n0123456789\r\n0\r\nX-Trailer: t\r\n\r\nNEXT";
    std::mt19937 random(7);
    for (std::size_t step : {std::size_t(0), std::size_t(1), std::size_t(2), std::size_t(5)}) {
        std::string rest;
        EXPECT_EQ(Decode(body, step, &rest), "hello 0123456789") << step;
        EXPECT_EQ(rest, "NEXT") << step;
    }
    // A large body in random pieces.
    std::string big, expected;
    for (int i = 0; i < 50; ++i) {
        const std::string data(random() % 3000 + 1, static_cast<char>('a' + i % 26));
        char size[32];
        std::snprintf(size, sizeof size, "%zx\r\n", data.size());
        big += size + data + "\r\n";
        expected += data;
    }
    big += "0\r\n\r\n";
    for (int round = 0; round < 5; ++round) {
        EXPECT_EQ(Decode(big, random() % 1000 + 1), expected);
    }

    const char* refused[] = {
        "5 \r\nhello\r\n0\r\n\r\n", // blank after the size
        " 5\r\nhello\r\n0\r\n\r\n", // blank before
        "+5\r\nhello\r\n0\r\n\r\n", // sign
        "0x5\r\nhello\r\n0\r\n\r\n", // prefix
        "\r\nhello\r\n0\r\n\r\n", // no size
        "g\r\nhello\r\n0\r\n\r\n", // not hexadecimal
        "00000000000000005\r\nhello\r\n0\r\n\r\n", // 17 digits
        "ffffffffffffffff\r\nhello\r\n", // beyond 2^63 - 1
        "5\nhello\r\n0\r\n\r\n", // bare LF
        "5\r\nhelloXX0\r\n\r\n", // data not followed by CR LF
        "5\r\nhello\n0\r\n\r\n",
        "5;a\x01\r\nhello\r\n0\r\n\r\n", // control character in an extension
        "0\r\nX : t\r\n\r\n", // malformed trailer
        "0\r\n folded\r\n\r\n",
        "0\r\nContent-Length: 5\r\n\r\n", // framing in the trailers
        "0\r\ntransfer-encoding: chunked\r\n\r\n",
    };
    for (const char* text : refused) {
        for (std::size_t step : {std::size_t(0), std::size_t(1)}) {
            EXPECT_EQ(Decode(text, step).rfind("error: ", 0), 0u) << step << ": " << text;
        }
    }
    // Bounds: an endless size line or trailer block is cut before its end.
    EXPECT_EQ(Decode("1" + std::string(5000, ';')), "error: Chunk size line too long");
    EXPECT_EQ(Decode("0\r\n" + std::string(9000, 'x')), "error: Chunk trailers too large");
    std::string manyTrailers = "0\r\n";
    while (manyTrailers.size() < 9000) manyTrailers += "X-T: value\r\n";
    EXPECT_EQ(Decode(manyTrailers + "\r\n"), "error: Chunk trailers too large");
}
