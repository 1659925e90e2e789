// The client's response body readers: chunked, with a length, and ended by
// the connection's close.

#include <tessera/assert.h>
#include <tessera/exception.h>
#include <tessera/formatter.h>
#include <tessera/http/clientResponse.h>

#include <algorithm>
#include <cstring>
#include <limits>

namespace Tessera {
namespace Http {

using Service::Logger;

namespace {

Ref<Logger> LoggerOr(const Ref<Logger>& logger) {
    if (logger) return logger;
    Ref<Logger> log;
    Service::GetDefaultLogger(log);
    return log;
}

std::string ContextOr(const std::string& context, const Ref<System::Stream>& stream) {
    return context.empty() ? stream->GetPeerName() : context;
}

std::string Join(const std::string& text, const std::string& context) {
    return MessageFormatter::ASPrint("%1; %2", text, context);
}

bool IsBlank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Reads [p, end) as `std::istringstream(text) >> std::hex >> value` does in
// the classic locale: blanks skipped, an optional sign, an optional "0x",
// digits up to the first other character; false where the extraction fails
// (no digit, or a value past 64 bits). A minus sign negates modulo 2^64.
// A stream per chunk would cost more than copying the chunk.
bool ExtractHex(const char* p, const char* end, std::uint64_t& value) {
    while (p != end && IsBlank(*p)) ++p;
    bool negative = false;
    if (p != end && (*p == '-' || *p == '+')) {
        negative = *p == '-';
        ++p;
    }
    // Leading zeros and one "x" after a zero, as the library's extractor
    // takes them: "0x" alone has no digit, "00x1" stops at the "x".
    bool foundZero = false;
    bool digits = false;
    while (p != end) {
        if (*p == '0' && !foundZero) {
            foundZero = true;
        } else if (foundZero && (*p == 'x' || *p == 'X')) {
            foundZero = false;
        } else {
            break;
        }
        ++p;
    }
    digits = foundZero;
    std::uint64_t result = 0;
    bool overflow = false;
    for (; p != end; ++p) {
        const int d = HexDigit(*p);
        if (d < 0) break;
        digits = true;
        if (result > std::numeric_limits<std::uint64_t>::max() / 16) {
            overflow = true;
        } else {
            result = result * 16 + static_cast<unsigned>(d);
        }
    }
    if (!digits || overflow) return false;
    value = negative ? 0 - result : result;
    return true;
}

} // namespace

// ---- chunked ----

ChunkedClientResponseImpl::ChunkedClientResponseImpl(const Ref<System::Stream>& stream,
                                                     const std::string& context,
                                                     const Ref<Service::Logger>& logger)
    : _stream(stream), _context(ContextOr(context, stream)), _log(LoggerOr(logger)) {}

ChunkedClientResponseImpl::~ChunkedClientResponseImpl() = default;

void ChunkedClientResponseImpl::Fail(bool truncated, const char* text) const {
    if (truncated) throw TruncatedResponseException(Join(text, _context));
    throw InvalidStateException(Join(text, _context));
}

void ChunkedClientResponseImpl::Preload(const char* data, std::size_t length) {
    if (length > BUFFER_SIZE - _dataBufLen) {
        throw InvalidArgumentException("Preloaded data exceed the chunked reader's buffer");
    }
    std::memcpy(_dataBuf + _dataBufLen, data, length);
    _dataBufLen += length;
}

void ChunkedClientResponseImpl::FindChunkSize() {
    TESSERA_LOG(_log, Logger::LOG_VERBOSE, "Looking in buffer (pos %1 len %2) for chunk size",
                static_cast<unsigned long long>(_dataBufPos),
                static_cast<unsigned long long>(_dataBufLen));
    std::size_t scan = _dataBufPos; // where the search for CR LF goes on
    const char* lf = nullptr;
    for (;;) {
        if (_dataBufLen > scan) {
            const char* cr = _dataBuf + scan;
            const char* end = _dataBuf + _dataBufLen;
            while ((cr = static_cast<const char*>(
                        std::memchr(cr, '\r', static_cast<std::size_t>(end - cr)))) != nullptr &&
                   cr + 1 < end && cr[1] != '\n') {
                ++cr;
            }
            if (cr != nullptr && cr + 1 < end) {
                lf = cr + 1;
                break;
            }
            // A CR as the last byte may yet pair with an LF.
            scan = _dataBufLen - (cr != nullptr ? 1 : 0);
        }
        scan -= _dataBufPos;
        std::memmove(_dataBuf, _dataBuf + _dataBufPos, _dataBufLen - _dataBufPos);
        _dataBufLen -= _dataBufPos;
        _dataBufPos = 0;
        if (_dataBufLen >= BUFFER_SIZE) {
            Fail(false, "Cannot find chunk size");
        }
        const std::size_t n = _stream->Read(_dataBuf + _dataBufLen, BUFFER_SIZE - _dataBufLen);
        if (n == 0) {
            Fail(true, "While determining chunk size, truncated HTTP response");
        }
        TESSERA_LOG(_log, Logger::LOG_VERBOSE, "Read %1 bytes from stream",
                    static_cast<unsigned long long>(n));
        _dataBufLen += n;
    }
    const std::size_t newPos = static_cast<std::size_t>(lf - _dataBuf) + 1;
    TESSERA_ASSERT(newPos > _dataBufPos);
    TESSERA_LOG(_log, Logger::LOG_VERBOSE, "Found chunk size starting at %1 and ending at %2",
                static_cast<unsigned long long>(_dataBufPos),
                static_cast<unsigned long long>(newPos));
    if (!ExtractHex(_dataBuf + _dataBufPos, _dataBuf + newPos, _chunkSize)) {
        Fail(false, "Invalid chunk size");
    }
    _dataBufPos = newPos;
    _chunkBytesRead = 0;
    TESSERA_LOG(_log, Logger::LOG_VERBOSE, "Read chunk size: %1",
                static_cast<unsigned long long>(_chunkSize));
}

std::size_t ChunkedClientResponseImpl::ReadChunk(char* buffer, std::size_t length) {
    TESSERA_LOG(_log, Logger::LOG_VERBOSE, "Asked to read %1 chars",
                static_cast<unsigned long long>(length));
    TESSERA_ASSERT(GetChunkSize() > 0);
    const std::uint64_t remaining = _chunkSize - _chunkBytesRead;
    TESSERA_ASSERT(remaining <= _chunkSize);
    const std::size_t want = static_cast<std::size_t>(std::min<std::uint64_t>(length, remaining));

    std::size_t got = std::min(want, _dataBufLen - _dataBufPos);
    std::memcpy(buffer, _dataBuf + _dataBufPos, got);
    _dataBufPos += got;
    TESSERA_LOG(_log, Logger::LOG_VERBOSE, "Found %1 chars in buffer",
                static_cast<unsigned long long>(got));
    if (got < want) {
        const std::size_t n = _stream->Read(buffer + got, want - got);
        if (n == 0) {
            Fail(true, "While reading chunk, a truncated HTTP response was received");
        }
        TESSERA_LOG(_log, Logger::LOG_VERBOSE, "Read %1 chars from stream",
                    static_cast<unsigned long long>(n));
        got += n;
    }
    _chunkBytesRead += got;
    if (_chunkBytesRead == _chunkSize) {
        ReadTerminals();
        _needChunkSize = true;
    }
    TESSERA_LOG(_log, Logger::LOG_VERBOSE, "Returning %1 chars read",
                static_cast<unsigned long long>(got));
    return got;
}

void ChunkedClientResponseImpl::ReadTerminals() {
    char terminals[2];
    const std::int64_t readCount =
        std::min<std::int64_t>(2, static_cast<std::int64_t>(_dataBufLen - _dataBufPos));
    TESSERA_ASSERT(readCount >= 0 && readCount <= 2);
    std::memcpy(terminals, _dataBuf + _dataBufPos, static_cast<std::size_t>(readCount));
    _dataBufPos += static_cast<std::size_t>(readCount);
    TESSERA_LOG(_log, Logger::LOG_VERBOSE, "Found %1 terminals in cache",
                static_cast<long long>(readCount));
    std::size_t have = static_cast<std::size_t>(readCount);
    while (have < 2) {
        const std::size_t n = _stream->Read(terminals + have, 2 - have);
        if (n == 0) {
            Fail(true, "While reading chunk terminal, truncated HTTP response");
        }
        TESSERA_LOG(_log, Logger::LOG_VERBOSE, "Read %1 terminals from stream",
                    static_cast<unsigned long long>(n));
        have += n;
        TESSERA_LOG(_log, Logger::LOG_VERBOSE, "Read %1 terminals so far",
                    static_cast<unsigned long long>(have));
    }
    if (terminals[0] != '\r' || terminals[1] != '\n') {
        Fail(false, "Chunk terminals absent");
    }
}

std::size_t ChunkedClientResponseImpl::Read(char* buffer, std::size_t length) {
    if (_ended || length == 0) return 0;
    try {
        if (_needChunkSize) {
            FindChunkSize();
            _needChunkSize = false;
            if (_chunkSize == 0) {
                _ended = true;
                return 0;
            }
        }
        return ReadChunk(buffer, length);
    } catch (...) {
        _failed = true;
        throw;
    }
}

bool ChunkedClientResponseImpl::ReadLastChunk() {
    TESSERA_ASSERT(GetChunkSize() == 0);
    // Consume up to and including the first CR LF, keeping at most a CR that
    // may pair with the next read's LF.
    bool lineHasText = false;
    for (;;) {
        const char* begin = _dataBuf + _dataBufPos;
        const char* end = _dataBuf + _dataBufLen;
        const char* cr = begin;
        while ((cr = static_cast<const char*>(
                    std::memchr(cr, '\r', static_cast<std::size_t>(end - cr)))) != nullptr &&
               cr + 1 < end && cr[1] != '\n') {
            ++cr;
        }
        if (cr != nullptr && cr + 1 < end) {
            lineHasText = lineHasText || cr != begin;
            _dataBufPos = static_cast<std::size_t>(cr - _dataBuf) + 2;
            break;
        }
        const bool keepCR = cr != nullptr;
        lineHasText = lineHasText || (keepCR ? cr != begin : begin != end);
        _dataBuf[0] = '\r';
        _dataBufPos = 0;
        _dataBufLen = keepCR ? 1 : 0;
        const std::size_t n = _stream->Read(_dataBuf + _dataBufLen, BUFFER_SIZE - _dataBufLen);
        if (n == 0) {
            Fail(true, "While reading last chunk, received truncated HTTP response");
        }
        TESSERA_LOG(_log, Logger::LOG_VERBOSE, "Read %1 bytes from stream",
                    static_cast<unsigned long long>(n));
        _dataBufLen += n;
    }
    // A line with text was a trailer: the rest of the trailers and the empty
    // line are still to come, whether or not they are in the buffer yet.
    if (_dataBufPos == _dataBufLen && !lineHasText) {
        return true;
    }
    TESSERA_LOG(_log, Logger::LOG_WARNING,
                "Data left in internal read buffer, after end-of-response.");
    _dataBuf[_dataBufLen] = '\0';
    TESSERA_LOG(_log, Logger::LOG_TRIVIA, "The data in the buffer are: %1",
                static_cast<const char*>(_dataBuf + _dataBufPos));
    return false;
}

bool ChunkedClientResponseImpl::Finish() {
    if (_answer < 0) {
        bool reusable = false;
        if (_ended && !_failed) {
            try {
                reusable = ReadLastChunk();
            } catch (...) {
                _failed = true;
                _answer = 0;
                throw;
            }
        }
        _answer = reusable ? 1 : 0;
    }
    return _answer == 1;
}

// ---- with a length ----

ClientResponseWithSizeImpl::ClientResponseWithSizeImpl(const Ref<System::Stream>& stream,
                                                       std::uint64_t contentLength,
                                                       const std::string& context,
                                                       const Ref<Service::Logger>& logger)
    : _stream(stream),
      _context(ContextOr(context, stream)),
      _log(LoggerOr(logger)),
      _remaining(contentLength) {}

ClientResponseWithSizeImpl::~ClientResponseWithSizeImpl() = default;

void ClientResponseWithSizeImpl::Preload(const char* data, std::size_t length) {
    _preload.append(data, length);
}

std::size_t ClientResponseWithSizeImpl::Read(char* buffer, std::size_t length) {
    const std::size_t want = static_cast<std::size_t>(std::min<std::uint64_t>(length, _remaining));
    if (want == 0) return 0;
    std::size_t got = std::min(want, _preload.size() - _preloadPos);
    if (got != 0) {
        std::memcpy(buffer, _preload.data() + _preloadPos, got);
        _preloadPos += got;
    } else {
        try {
            got = _stream->Read(buffer, want);
        } catch (...) {
            _failed = true;
            throw;
        }
        if (got == 0) {
            _failed = true;
            throw TruncatedResponseException(
                Join("A truncated HTTP response was received", _context));
        }
    }
    _remaining -= got;
    TESSERA_LOG(_log, Logger::LOG_VERBOSE, "Read %1 response bytes, %2 to go",
                static_cast<unsigned long long>(got), static_cast<unsigned long long>(_remaining));
    return got;
}

bool ClientResponseWithSizeImpl::Finish() {
    return !_failed && _remaining == 0 && _preloadPos == _preload.size();
}

// ---- ended by the connection's close ----

ClientResponseWithoutSizeImpl::ClientResponseWithoutSizeImpl(const Ref<System::Stream>& stream,
                                                             const std::string& context,
                                                             const Ref<Service::Logger>& logger)
    : _stream(stream), _context(ContextOr(context, stream)), _log(LoggerOr(logger)) {}

ClientResponseWithoutSizeImpl::~ClientResponseWithoutSizeImpl() = default;

void ClientResponseWithoutSizeImpl::Preload(const char* data, std::size_t length) {
    _preload.append(data, length);
}

std::size_t ClientResponseWithoutSizeImpl::Read(char* buffer, std::size_t length) {
    if (_ended || length == 0) return 0;
    std::size_t got = std::min(length, _preload.size() - _preloadPos);
    if (got != 0) {
        std::memcpy(buffer, _preload.data() + _preloadPos, got);
        _preloadPos += got;
    } else {
        try {
            got = _stream->Read(buffer, length);
        } catch (const SystemException&) {
            _ended = true;
            throw TruncatedResponseException(MessageFormatter::ASPrint(
                "Server closed connection after %1 response bytes read; %2",
                static_cast<unsigned long long>(_bytesRead), _context));
        }
        if (got == 0) {
            _ended = true;
            TESSERA_LOG(_log, Logger::LOG_VERBOSE,
                        "Remote server closed connection after %1 response bytes read",
                        static_cast<unsigned long long>(_bytesRead));
            return 0;
        }
    }
    _bytesRead += got;
    return got;
}

bool ClientResponseWithoutSizeImpl::Finish() { return false; }

} // namespace Http
} // namespace Tessera
