// The chunked body reader over a stream that cuts the input into random
// pieces: whatever the cuts, the body, the answer and the failure are those
// of the same bytes read in one piece, and a failure is one of the reader's
// own texts.

#include "fuzz/fuzzCheck.h"
#include "tests/memoryStream.h"

#include <tessera/exception.h>
#include <tessera/http/clientResponse.h>
#include <tessera/system/stream.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <set>
#include <string>
#include <vector>

using namespace Tessera;

namespace {

struct Outcome {
    std::string body;
    bool reusable = false;
    std::string error;
    bool allRead = false; // nothing of the wire left in the stream
};

Outcome ReadBody(const std::string& wire, const std::vector<std::size_t>& pieces, std::size_t rest,
                 std::size_t readSize) {
    Ref<Testing::MemoryStream> stream(new Testing::MemoryStream(wire, rest, pieces));
    Ref<Http::ChunkedClientResponseImpl> response(
        new Http::ChunkedClientResponseImpl(stream, "GET /"));
    Outcome out;
    std::vector<char> buf(readSize);
    try {
        while (std::size_t n = response->Read(buf.data(), buf.size())) {
            FUZZ_CHECK(n <= buf.size());
            out.body.append(buf.data(), n);
        }
        out.reusable = response->Finish();
    } catch (const Http::TruncatedResponseException& e) {
        out.error = e.what();
    } catch (const InvalidStateException& e) {
        out.error = e.what();
    }
    out.allRead = stream->AllRead();
    return out;
}

} // namespace

// Input: one byte with the read size's logarithm, one with the count of piece
// sizes, that many piece sizes (1 to 256 bytes each), then the wire.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    const std::size_t readSize = std::size_t{1} << (data[0] % 17);
    const std::size_t count = std::min<std::size_t>(data[1], size - 2);
    std::vector<std::size_t> pieces;
    for (std::size_t i = 0; i < count; ++i) pieces.push_back(std::size_t{data[2 + i]} + 1);
    const std::string wire(reinterpret_cast<const char*>(data) + 2 + count, size - 2 - count);

    const Outcome cut = ReadBody(wire, pieces, 1, readSize);
    const Outcome whole = ReadBody(wire, {}, 65536, 65536);
    static const std::set<std::string> texts = {
        "While determining chunk size, truncated HTTP response; GET /",
        "While reading chunk, a truncated HTTP response was received; GET /",
        "While reading chunk terminal, truncated HTTP response; GET /",
        "While reading last chunk, received truncated HTTP response; GET /",
        "Cannot find chunk size; GET /",
        "Invalid chunk size; GET /",
        "Chunk terminals absent; GET /"};
    FUZZ_CHECK(cut.error.empty() || texts.count(cut.error) == 1);
    FUZZ_CHECK(cut.error == whole.error);
    FUZZ_CHECK(cut.body.size() <= wire.size());
    if (cut.error.empty()) {
        FUZZ_CHECK(cut.body == whole.body);
        // Bytes past the end of the response are seen only when they came
        // with it; a reader that left some in the stream cannot tell.
        if (cut.allRead) {
            FUZZ_CHECK(cut.reusable == whole.reusable);
        } else {
            FUZZ_CHECK(!whole.reusable);
        }
    } else {
        // The bytes of the Read that failed are lost, so the read sizes
        // decide how much came before; never different bytes.
        const std::string& shorter = cut.body.size() < whole.body.size() ? cut.body : whole.body;
        const std::string& longer = cut.body.size() < whole.body.size() ? whole.body : cut.body;
        FUZZ_CHECK(longer.compare(0, shorter.size(), shorter) == 0);
    }
    return 0;
}
