// The chunked decoder of request bodies, given the bytes in random pieces:
// the body, the end and the failure are those of the same bytes at once.

#include "fuzz/chunkedDecode.h"
#include "fuzz/fuzzCheck.h"

#include <cstddef>
#include <cstdint>
#include <string>

// Input: one byte with the piece size (0 counts as 1), then the body.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1) return 0;
    const std::size_t step = data[0] == 0 ? 1 : data[0];
    const std::string wire(reinterpret_cast<const char*>(data) + 1, size - 1);
    FUZZ_CHECK(FuzzSupport::DecodeBody(wire, 0) == FuzzSupport::DecodeBody(wire, step));
    return 0;
}
