// The head of an HTTP/1.1 request, parsed from the bytes a connection has
// received so far, without copying them, and checked strictly enough that no
// two readers of the same bytes can disagree on where the request ends.
//
// The parser works on the connection's buffer: give it everything received
// for this request (the head starts at the first byte), call again with more
// when it answers NeedMore, and it goes on from the last complete line. The
// buffer may move between calls (grown, copied); the head's views point into
// the buffer of the last call and stay valid while those bytes do.
//
//     RequestParser parser;                       // one per connection, reused
//     switch (parser.Parse(buffer.data(), buffer.size())) {
//     case RequestParser::NeedMore: ...read more, call again...
//     case RequestParser::Error:                  // answer, then close
//         Reply(parser.ErrorStatus(), parser.ErrorText()); break;
//     case RequestParser::Done: {
//         const RequestHead& head = parser.Head();  // body after HeadLength()
//         ...
//         parser.Reset();                          // for the next request
//     }
//     }
//
// What is refused, with the status to answer (and then close the connection):
//   400  a line that does not end in CR LF (a bare CR or LF); NUL or another
//        control character anywhere but a tab inside a field value; white
//        space before a field's colon or at the start of a line (a folded
//        line); a malformed request line, method, target or field name;
//        Content-Length together with Transfer-Encoding, more than one of
//        either, a Content-Length that is not 1 to 19 digits or exceeds
//        2^63 - 1; Transfer-Encoding in an HTTP/1.0 request; an HTTP/1.1
//        request without exactly one Host (HTTP/1.0: more than one); a
//        Connection that is not a list of tokens
//   414  a request line longer than the limit (8 KiB)
//   417  an Expect other than "100-continue"
//   431  a header block longer than its limit (32 KiB), or more fields than
//        allowed (100)
//   501  a Transfer-Encoding other than "chunked" (in any case)
//   505  an HTTP version other than 1.0 and 1.1
// Empty lines before the request line are skipped, as RFC 9112 asks.
//
// Thread safety: one parser per connection, used by one thread at a time.
#pragma once

#include <tessera/api.h>

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace Tessera {
namespace Http {

struct HeaderField {
    std::string_view name; // as received
    std::string_view value; // without the white space around it
};

// How the request's body is framed.
enum class BodyFraming {
    None, // no body
    Length, // Content-Length bytes
    Chunked, // chunked transfer coding (ChunkedDecoder)
};

struct RequestHead {
    std::string_view method; // case-sensitive, as received
    std::string_view target; // origin, absolute or asterisk form
    int minorVersion = 1; // HTTP/1.<minorVersion>: 0 or 1
    const HeaderField* fields = nullptr; // in the order received
    std::size_t fieldCount = 0;
    BodyFraming framing = BodyFraming::None;
    std::uint64_t contentLength = 0; // with BodyFraming::Length
    std::string_view host; // empty when there is none (HTTP/1.0)
    bool keepAlive = true; // the version's default and the Connection field
    bool expectContinue = false; // "Expect: 100-continue"

    // The value of the first field named `name` (compared without case), or
    // null when there is none.
    TESSERA_EXPORT const std::string_view* Find(std::string_view name) const noexcept;
};

struct RequestLimits {
    std::size_t maxRequestLine = 8 * 1024; // bytes, without CR LF
    std::size_t maxHeaderBlock = 32 * 1024; // bytes after the request line
    std::size_t maxFields = 100;
};

class TESSERA_EXPORT RequestParser {
public:
    enum Result { NeedMore, Done, Error };

    explicit RequestParser(const RequestLimits& limits = RequestLimits());

    // Parses the head at the start of data[0, size), going on from where the
    // last call stopped; `data` holds at least the bytes of the last call.
    // After Done or Error, further calls return the same until Reset.
    Result Parse(const char* data, std::size_t size);

    // After Done: the head, and its length in bytes (the body, if any,
    // begins there).
    const RequestHead& Head() const noexcept { return _head; }
    std::size_t HeadLength() const noexcept { return _headLength; }

    // After Error: the status to answer (400, 414, 417, 431, 501, 505) and
    // why, as a fixed text.
    int ErrorStatus() const noexcept { return _errorStatus; }
    const char* ErrorText() const noexcept { return _errorText; }

    // Ready for the next request; keeps its storage.
    void Reset() noexcept;

private:
    struct FieldSpan {
        std::uint32_t name;
        std::uint32_t nameLength;
        std::uint32_t value;
        std::uint32_t valueLength;
    };

    Result Fail(int status, const char* text) noexcept;
    bool ParseRequestLine(const char* line, std::size_t length);
    bool ParseField(const char* data, std::size_t begin, std::size_t length);
    Result Finish(const char* data);

    RequestLimits _limits;
    Result _result = NeedMore;
    std::size_t _scanned = 0; // bytes of complete lines handled
    std::size_t _lineStart = 0; // where the request line begins
    std::size_t _blockStart = 0; // where the fields begin; 0 before the request line
    // The request line's parts, as offsets into the data.
    std::uint32_t _method = 0, _methodLength = 0, _target = 0, _targetLength = 0;
    std::vector<FieldSpan> _spans;
    std::vector<HeaderField> _fields;
    RequestHead _head;
    std::size_t _headLength = 0;
    int _errorStatus = 0;
    const char* _errorText = "";
};

} // namespace Http
} // namespace Tessera
