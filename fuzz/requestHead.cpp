// The request-head parser and, for a chunked request, the chunked decoder,
// given the bytes in random pieces: whatever the cuts, the answer is that of
// the same bytes in one piece, and an accepted head is well-formed (it ends
// in an empty line, its views lie inside it, its values hold no line ends).

#include "fuzz/chunkedDecode.h"
#include "fuzz/fuzzCheck.h"

#include <tessera/http/chunkedDecoder.h>
#include <tessera/http/requestParser.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

using namespace Tessera::Http;

namespace {

struct Seen {
    RequestParser::Result result = RequestParser::NeedMore;
    int status = 0;
    std::size_t headLength = 0;
    std::string fields; // method, target and every field, joined
    BodyFraming framing = BodyFraming::None;
    std::uint64_t contentLength = 0;
    bool keepAlive = false;
};

bool Inside(std::string_view view, const std::string& buffer, std::size_t end) {
    return view.data() >= buffer.data() && view.data() + view.size() <= buffer.data() + end;
}

Seen Parse(const std::string& wire, std::size_t step, std::string& buffer) {
    RequestParser parser;
    Seen seen;
    std::size_t given = 0;
    while (seen.result == RequestParser::NeedMore && given < wire.size()) {
        given = step == 0 ? wire.size() : std::min(wire.size(), given + step);
        buffer.assign(wire, 0, given); // a new buffer each time
        seen.result = parser.Parse(buffer.data(), buffer.size());
    }
    seen.status = parser.ErrorStatus();
    if (seen.result == RequestParser::Error) {
        FUZZ_CHECK(seen.status == 400 || seen.status == 414 || seen.status == 417 ||
                   seen.status == 431 || seen.status == 501 || seen.status == 505);
    }
    if (seen.result != RequestParser::Done) return seen;
    const RequestHead& head = parser.Head();
    seen.headLength = parser.HeadLength();
    FUZZ_CHECK(seen.headLength >= 4 && seen.headLength <= buffer.size());
    FUZZ_CHECK(std::memcmp(buffer.data() + seen.headLength - 4, "\r\n\r\n", 4) == 0);
    FUZZ_CHECK(Inside(head.method, buffer, seen.headLength));
    FUZZ_CHECK(Inside(head.target, buffer, seen.headLength));
    seen.fields = std::string(head.method) + ' ' + std::string(head.target) + '\n';
    for (std::size_t i = 0; i < head.fieldCount; ++i) {
        const HeaderField& field = head.fields[i];
        FUZZ_CHECK(Inside(field.name, buffer, seen.headLength));
        FUZZ_CHECK(Inside(field.value, buffer, seen.headLength));
        FUZZ_CHECK(field.value.find_first_of(std::string_view("\r\n\0", 3)) ==
                   std::string_view::npos);
        FUZZ_CHECK(!field.name.empty());
        seen.fields.append(field.name).append(": ").append(field.value).append("\n");
    }
    seen.framing = head.framing;
    seen.contentLength = head.contentLength;
    seen.keepAlive = head.keepAlive;
    return seen;
}

} // namespace

// Input: one byte with the piece size (0: all at once), then the wire.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1) return 0;
    const std::size_t step = data[0];
    const std::string wire(reinterpret_cast<const char*>(data) + 1, size - 1);
    std::string whole, cut;
    const Seen a = Parse(wire, 0, whole);
    const Seen b = Parse(wire, step, cut);
    FUZZ_CHECK(a.result == b.result);
    FUZZ_CHECK(a.status == b.status);
    FUZZ_CHECK(a.headLength == b.headLength);
    FUZZ_CHECK(a.fields == b.fields);
    FUZZ_CHECK(a.framing == b.framing && a.contentLength == b.contentLength);
    FUZZ_CHECK(a.keepAlive == b.keepAlive);
    if (a.result == RequestParser::Done && a.framing == BodyFraming::Chunked) {
        const std::string body = wire.substr(a.headLength);
        FUZZ_CHECK(FuzzSupport::DecodeBody(body, 0) ==
                   FuzzSupport::DecodeBody(body, step == 0 ? 1 : step));
    }
    return 0;
}
