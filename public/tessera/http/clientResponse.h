// Readers of an HTTP response body, one per way a body can end: chunked
// transfer coding, a Content-Length, or the server closing the connection.
//
// The HTTP client reads the status line and the headers, picks the reader,
// hands it the bytes it has already read past the headers (Preload), and
// gives it to the caller, who reads the body until Read returns 0:
//
//     Ref<ClientResponse> body(new ChunkedClientResponseImpl(stream, "GET /sdk from h:443"));
//     body->Preload(rest, restLength);
//     while (std::size_t n = body->Read(buf, sizeof buf)) consume(buf, n);
//     pool->Release(connection, body->Finish());   // reuse only if true
//
// Each reader reads its stream synchronously, copies every body byte once
// (from its own buffer or from the stream straight into the caller's memory),
// and at the end says whether the connection is clean enough to be reused.
// After any exception, or when the body was not read to its end, Finish
// answers false.
//
// Failures. Each message joins the text of the failing step and the response's
// context as "%1; %2". The context is the text given at construction (the
// client passes the request line and the peer), or the stream's peer name
// when none was given. Truncation raises TruncatedResponseException:
//   chunked:       "While determining chunk size, truncated HTTP response"
//                  "While reading chunk, a truncated HTTP response was received"
//                  "While reading chunk terminal, truncated HTTP response"
//                  "While reading last chunk, received truncated HTTP response"
//   with size:     "A truncated HTTP response was received"
//   without size:  "Server closed connection after <n> response bytes read"
//                  (the connection broke with a SystemException; an orderly
//                  end of stream is the normal end of such a body)
// Broken chunk framing raises InvalidStateException: "Cannot find chunk size"
// (no CR LF within 8192 bytes where a size line is expected), "Invalid chunk
// size", "Chunk terminals absent". Exceptions of the stream itself (time-outs,
// a closed stream) pass through unchanged.
//
// Chunked framing as read here: a size line is a hexadecimal number as a C++
// stream extracts it (leading blanks skipped, either case, an optional sign
// and "0x", reading stopped at the first other character, so an extension
// after ";" is ignored) up to the first CR LF. After the last chunk (size 0)
// only the next line is consumed: trailers are not read, so a response with
// trailers leaves data behind and is not reused. Whether that line was empty
// decides, not how much of the rest had arrived with it, so the answer does
// not depend on how the stream cut the bytes (only bytes sent past the end of
// the response are caught solely when they arrived with it). The size line of the next
// chunk is read when the next Read asks for data, so a Read returns the end of
// a chunk without waiting for what follows it.
//
// Logging goes to the logger given at construction (the default logger when
// none is): each step at "verbose", leftover data after the end at "warning",
// and the leftover bytes themselves at "trivia".
//
// Thread safety: one reader per response, used by one thread at a time.
#pragma once

#include <tessera/api.h>
#include <tessera/logger.h>
#include <tessera/object.h>
#include <tessera/system/stream.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace Tessera {
namespace Http {

class TESSERA_EXPORT ClientResponse : public virtual Object {
public:
    // Bytes of the body already read from the stream with the headers; they
    // are delivered before anything is read from the stream. Only before the
    // first Read. The chunked reader takes at most 8192 bytes
    // (InvalidArgumentException beyond).
    virtual void Preload(const char* data, std::size_t length) = 0;
    // Reads at most `length` body bytes into `buffer`; 0 at the end of the
    // body (and when `length` is 0).
    virtual std::size_t Read(char* buffer, std::size_t length) = 0;
    // Ends the response: true when the body was read to its end and the
    // connection holds nothing more of it, so that it may be reused.
    virtual bool Finish() = 0;
};

// Chunked transfer coding, through an internal buffer of 8192 bytes.
class TESSERA_EXPORT ChunkedClientResponseImpl : public ObjectImpl, public ClientResponse {
public:
    static constexpr std::size_t BUFFER_SIZE = 8192;

    ChunkedClientResponseImpl(const Ref<System::Stream>& stream, const std::string& context = "",
                              const Ref<Service::Logger>& logger = nullptr);
    ~ChunkedClientResponseImpl() override;

    // ClientResponse:
    void Preload(const char* data, std::size_t length) override;
    std::size_t Read(char* buffer, std::size_t length) override;
    bool Finish() override;

    // The size of the current chunk, as its size line gave it.
    std::uint64_t GetChunkSize() const { return _chunkSize; }

private:
    void FindChunkSize();
    std::size_t ReadChunk(char* buffer, std::size_t length);
    void ReadTerminals();
    bool ReadLastChunk();
    [[noreturn]] void Fail(bool truncated, const char* text) const;

    Ref<System::Stream> _stream;
    std::string _context;
    Ref<Service::Logger> _log;
    std::uint64_t _chunkSize = 0;
    std::uint64_t _chunkBytesRead = 0;
    std::size_t _dataBufPos = 0;
    std::size_t _dataBufLen = 0;
    bool _needChunkSize = true;  // before the body and after each terminator
    bool _ended = false;         // a size of 0 was read
    bool _failed = false;
    int _answer = -1;  // Finish's, once given
    char _dataBuf[BUFFER_SIZE + 1];
};

// A body of known length (Content-Length).
class TESSERA_EXPORT ClientResponseWithSizeImpl : public ObjectImpl, public ClientResponse {
public:
    ClientResponseWithSizeImpl(const Ref<System::Stream>& stream, std::uint64_t contentLength,
                               const std::string& context = "",
                               const Ref<Service::Logger>& logger = nullptr);
    ~ClientResponseWithSizeImpl() override;

    // ClientResponse:
    // Preloaded bytes beyond the body's length are left over: Finish answers
    // false.
    void Preload(const char* data, std::size_t length) override;
    std::size_t Read(char* buffer, std::size_t length) override;
    bool Finish() override;

    std::uint64_t GetRemaining() const { return _remaining; }

private:
    Ref<System::Stream> _stream;
    std::string _context;
    Ref<Service::Logger> _log;
    std::uint64_t _remaining;
    std::string _preload;
    std::size_t _preloadPos = 0;
    bool _failed = false;
};

// A body that ends when the server closes the connection: never reused.
class TESSERA_EXPORT ClientResponseWithoutSizeImpl : public ObjectImpl, public ClientResponse {
public:
    ClientResponseWithoutSizeImpl(const Ref<System::Stream>& stream,
                                  const std::string& context = "",
                                  const Ref<Service::Logger>& logger = nullptr);
    ~ClientResponseWithoutSizeImpl() override;

    // ClientResponse:
    void Preload(const char* data, std::size_t length) override;
    std::size_t Read(char* buffer, std::size_t length) override;
    // Always false.
    bool Finish() override;

    std::uint64_t GetBytesRead() const { return _bytesRead; }

private:
    Ref<System::Stream> _stream;
    std::string _context;
    Ref<Service::Logger> _log;
    std::uint64_t _bytesRead = 0;
    std::string _preload;
    std::size_t _preloadPos = 0;
    bool _ended = false;
};

}  // namespace Http
}  // namespace Tessera
