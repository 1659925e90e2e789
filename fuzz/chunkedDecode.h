// Decoding a chunked body in pieces, for the fuzz targets that check that the
// cuts change nothing.
#pragma once

#include "fuzz/fuzzCheck.h"

#include <tessera/http/chunkedDecoder.h>

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>

namespace FuzzSupport {

// The body decoded from `wire` given in pieces of `step` bytes (0: at once),
// followed by how it ended: "|done " and what followed the body,
// "|error <text>" or "|incomplete".
inline std::string DecodeBody(const std::string& wire, std::size_t step) {
    using Tessera::Http::ChunkedDecoder;
    ChunkedDecoder decoder;
    std::string pending, out;
    std::size_t given = 0;
    for (;;) {
        std::size_t used = 0;
        std::string_view piece;
        const ChunkedDecoder::Result result =
            decoder.Decode(pending.data(), pending.size(), used, piece);
        FUZZ_CHECK(used <= pending.size());
        FUZZ_CHECK(piece.empty() || result == ChunkedDecoder::Data);
        out.append(piece.data(), piece.size());
        pending.erase(0, used);
        if (result == ChunkedDecoder::Error) return out + "|error " + decoder.ErrorText();
        if (result == ChunkedDecoder::Done) {
            FUZZ_CHECK(decoder.BodyBytes() == out.size());
            return out + "|done " + pending + wire.substr(given);
        }
        if (result == ChunkedDecoder::NeedMore) {
            if (given == wire.size()) return out + "|incomplete";
            const std::size_t take = step == 0 ? wire.size() - given : step;
            pending.append(wire, given, take);
            given = std::min(wire.size(), given + take);
        }
    }
}

} // namespace FuzzSupport
