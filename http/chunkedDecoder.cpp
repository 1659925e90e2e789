// The strict chunked decoder: a small state machine over complete lines and
// runs of chunk data, consuming nothing of a line until it is whole.

#include <tessera/http/chunkedDecoder.h>

#include "http/textTables.h"

#include <cstdint>
#include <cstring>

namespace Tessera {
namespace Http {

void ChunkedDecoder::Reset() noexcept {
    _state = SizeLine;
    _left = 0;
    _bodyBytes = 0;
    _trailerBytes = 0;
    _errorText = "";
}

ChunkedDecoder::Result ChunkedDecoder::Fail(const char* text) noexcept {
    _state = Failed;
    _errorText = text;
    return Error;
}

ChunkedDecoder::Result ChunkedDecoder::Decode(const char* data, std::size_t size, std::size_t& used,
                                              std::string_view& piece) {
    used = 0;
    piece = std::string_view();
    for (;;) {
        switch (_state) {
        case Finished: return Done;
        case Failed: return Error;
        case ChunkData: {
            if (used == size) return NeedMore;
            const std::size_t available = size - used;
            const std::size_t take =
                _left < available ? static_cast<std::size_t>(_left) : available;
            piece = std::string_view(data + used, take);
            used += take;
            _left -= take;
            _bodyBytes += take;
            if (_left == 0) _state = ChunkEnd;
            return Data;
        }
        case ChunkEnd:
            if (size - used < 2) {
                if (used < size && data[used] != '\r')
                    return Fail("Chunk data not followed by CR LF");
                return NeedMore;
            }
            if (data[used] != '\r' || data[used + 1] != '\n') {
                return Fail("Chunk data not followed by CR LF");
            }
            used += 2;
            _state = SizeLine;
            break;
        case SizeLine:
        case Trailers: {
            const std::size_t trailerRoom =
                _trailerBytes < _limits.maxTrailers ? _limits.maxTrailers - _trailerBytes : 0;
            const std::size_t bound = _state == SizeLine ? _limits.maxSizeLine : trailerRoom;
            const std::size_t available = size - used;
            const std::size_t look = available < bound + 2 ? available : bound + 2;
            const void* found = std::memchr(data + used, '\n', look);
            if (found == nullptr) {
                if (available >= bound + 2) {
                    return Fail(_state == SizeLine ? "Chunk size line too long"
                                                   : "Chunk trailers too large");
                }
                return NeedMore;
            }
            const std::size_t lf = static_cast<std::size_t>(static_cast<const char*>(found) - data);
            if (lf == used || data[lf - 1] != '\r') return Fail("Line not ended by CR LF");
            const char* line = data + used;
            const std::size_t length = lf - 1 - used;
            if (_state == SizeLine) {
                if (!ParseSizeLine(line, length)) return Error;
            } else {
                _trailerBytes += length + 2;
                if (length == 0) {
                    used = lf + 1;
                    _state = Finished;
                    return Done;
                }
                if (!CheckTrailer(line, length)) return Fail("Malformed trailer field");
            }
            used = lf + 1;
            break;
        }
        }
    }
}

bool ChunkedDecoder::ParseSizeLine(const char* line, std::size_t length) {
    std::size_t i = 0;
    std::uint64_t size = 0;
    while (i < length && Text::IsHex(line[i])) {
        if (i == 16) {
            Fail("Chunk size too long");
            return false;
        }
        size = (size << 4) | Text::HexValue(line[i]);
        ++i;
    }
    if (i == 0) {
        Fail("Invalid chunk size");
        return false;
    }
    if (size > static_cast<std::uint64_t>(INT64_MAX)) {
        Fail("Chunk size too large");
        return false;
    }
    if (i < length) {
        // Extensions: ";" and then anything a field value may hold; no
        // blanks between the size and the ";".
        if (line[i] != ';') {
            Fail("Invalid chunk size");
            return false;
        }
        for (std::size_t k = i + 1; k < length; ++k) {
            if (!Text::IsFieldValueChar(line[k])) {
                Fail("Invalid chunk extension");
                return false;
            }
        }
    }
    _left = size;
    _state = size == 0 ? Trailers : ChunkData;
    return true;
}

bool ChunkedDecoder::CheckTrailer(const char* line, std::size_t length) const {
    if (Text::IsBlank(line[0])) return false; // folded
    std::size_t i = 0;
    while (i < length && Text::IsToken(line[i])) ++i;
    if (i == 0 || i == length || line[i] != ':') return false;
    // No framing in the trailers: a reader that merged them would frame the
    // message anew.
    const std::string_view name(line, i);
    if (Text::EqualsNoCase(name, "content-length") ||
        Text::EqualsNoCase(name, "transfer-encoding")) {
        return false;
    }
    for (++i; i < length; ++i) {
        if (!Text::IsFieldValueChar(line[i])) return false;
    }
    return true;
}

} // namespace Http
} // namespace Tessera
