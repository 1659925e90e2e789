// The chunked transfer coding of a request body (RFC 9112, 7.1), decoded in
// place from the bytes a connection has received, strictly: a chunk size is
// 1 to 16 hexadecimal digits and nothing else (no blanks, sign or "0x"),
// every line ends in CR LF, a chunk's data is followed by CR LF, and chunk
// extensions and trailer fields are checked and bounded (a trailer may not
// be Content-Length or Transfer-Encoding). (The client's reader
// of responses, clientResponse.h, reads sizes leniently; requests get no such
// leeway: two readers must agree on where a request ends.)
//
//     ChunkedDecoder decoder;
//     std::size_t used = 0;
//     std::string_view piece;
//     switch (decoder.Decode(data, size, used, piece)) {
//     case ChunkedDecoder::Data: consume(piece); break;    // then drop `used` bytes
//     case ChunkedDecoder::NeedMore: break;                 // keep data[used, size)
//     case ChunkedDecoder::Done: break;                     // the next request at `used`
//     case ChunkedDecoder::Error: reply(400, decoder.ErrorText()); break;
//     }
//
// Thread safety: one decoder per body, used by one thread at a time.
#pragma once

#include <tessera/api.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Tessera {
namespace Http {

struct ChunkedLimits {
    std::size_t maxSizeLine = 4 * 1024; // a size line with its extensions
    std::size_t maxTrailers = 8 * 1024; // all trailer lines together
};

class TESSERA_EXPORT ChunkedDecoder {
public:
    enum Result { NeedMore, Data, Done, Error };

    explicit ChunkedDecoder(const ChunkedLimits& limits = ChunkedLimits()) : _limits(limits) {}

    // Decodes from data[0, size). `used` is how many of those bytes were
    // consumed; the caller drops them and calls again with the rest and what
    // arrives next. Data: `piece` is a run of body bytes inside those
    // consumed. NeedMore: a line is not complete yet (its bytes are not
    // consumed). Done: the last chunk and the trailers are consumed; what
    // follows belongs to the next message. Error: the body is malformed
    // (ErrorText); further calls return Error.
    Result Decode(const char* data, std::size_t size, std::size_t& used, std::string_view& piece);

    // The body bytes decoded so far.
    std::uint64_t BodyBytes() const noexcept { return _bodyBytes; }
    const char* ErrorText() const noexcept { return _errorText; }
    void Reset() noexcept;

private:
    enum State { SizeLine, ChunkData, ChunkEnd, Trailers, Finished, Failed };

    Result Fail(const char* text) noexcept;
    bool ParseSizeLine(const char* line, std::size_t length);
    bool CheckTrailer(const char* line, std::size_t length) const;

    ChunkedLimits _limits;
    State _state = SizeLine;
    std::uint64_t _left = 0; // bytes of the current chunk still to come
    std::uint64_t _bodyBytes = 0;
    std::size_t _trailerBytes = 0;
    const char* _errorText = "";
};

} // namespace Http
} // namespace Tessera
