// The request-head parser: lines found with memchr, each byte checked against
// a table of what its part of the head may hold, the fields kept as offsets
// until the head is complete.

#include <tessera/http/requestParser.h>

#include "http/textTables.h"

#include <cstring>
#include <limits>

namespace Tessera {
namespace Http {

namespace {

constexpr std::uint64_t kMaxContentLength = std::numeric_limits<std::int64_t>::max();

// A Content-Length: 1 to 19 digits, at most 2^63 - 1.
bool ParseLength(std::string_view text, std::uint64_t& out) noexcept {
    if (text.empty() || text.size() > 19) return false;
    std::uint64_t value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        value = value * 10 + static_cast<std::uint64_t>(c - '0');
    }
    if (value > kMaxContentLength) return false; // 19 digits fit in 64 bits
    out = value;
    return true;
}

// Calls `each` with every comma-separated element of a field value, without
// the white space around it.
template <class F>
void ForEachElement(std::string_view value, F&& each) {
    std::size_t start = 0;
    while (start <= value.size()) {
        std::size_t end = value.find(',', start);
        if (end == std::string_view::npos) end = value.size();
        std::string_view element = value.substr(start, end - start);
        while (!element.empty() && Text::IsBlank(element.front())) element.remove_prefix(1);
        while (!element.empty() && Text::IsBlank(element.back())) element.remove_suffix(1);
        if (!element.empty()) each(element);
        start = end + 1;
    }
}

} // namespace

const std::string_view* RequestHead::Find(std::string_view name) const noexcept {
    for (std::size_t i = 0; i < fieldCount; ++i) {
        if (Text::EqualsNoCase(fields[i].name, name)) return &fields[i].value;
    }
    return nullptr;
}

RequestParser::RequestParser(const RequestLimits& limits) : _limits(limits) {
    // Room for a usual head; a larger one grows it once, and the parser
    // keeps what it grew to.
    const std::size_t reserve = _limits.maxFields < 32 ? _limits.maxFields : 32;
    _spans.reserve(reserve);
    _fields.reserve(reserve);
}

void RequestParser::Reset() noexcept {
    _result = NeedMore;
    _scanned = 0;
    _lineStart = 0;
    _blockStart = 0;
    _spans.clear();
    _fields.clear();
    _head = RequestHead();
    _headLength = 0;
    _errorStatus = 0;
    _errorText = "";
}

RequestParser::Result RequestParser::Fail(int status, const char* text) noexcept {
    _errorStatus = status;
    _errorText = text;
    _result = Error;
    return Error;
}

RequestParser::Result RequestParser::Parse(const char* data, std::size_t size) {
    if (_result != NeedMore) return _result;
    std::size_t pos = _scanned;
    for (;;) {
        const void* found = size > pos ? std::memchr(data + pos, '\n', size - pos) : nullptr;
        if (found == nullptr) {
            // An unfinished line may already be too long.
            if (_blockStart == 0) {
                if (size - _lineStart > _limits.maxRequestLine + 1) {
                    return Fail(414, "Request line too long");
                }
            } else if (size - _blockStart > _limits.maxHeaderBlock + 1) {
                return Fail(431, "Header block too large");
            }
            _scanned = pos;
            return NeedMore;
        }
        const std::size_t lf = static_cast<std::size_t>(static_cast<const char*>(found) - data);
        if (lf == pos || data[lf - 1] != '\r') return Fail(400, "Line not ended by CR LF");
        const std::size_t length = lf - 1 - pos;
        const std::size_t next = lf + 1;
        if (_blockStart == 0) {
            if (length == 0) { // an empty line before the request line
                if (next > _limits.maxRequestLine) return Fail(414, "Request line too long");
                pos = _lineStart = next;
                continue;
            }
            if (length > _limits.maxRequestLine) return Fail(414, "Request line too long");
            if (!ParseRequestLine(data + pos, length)) return _result;
            pos = _blockStart = next;
            continue;
        }
        if (next - _blockStart > _limits.maxHeaderBlock) return Fail(431, "Header block too large");
        if (length == 0) {
            _headLength = next;
            return Finish(data);
        }
        if (_spans.size() >= _limits.maxFields) return Fail(431, "Too many header fields");
        if (!ParseField(data, pos, length)) return _result;
        pos = next;
    }
}

bool RequestParser::ParseRequestLine(const char* line, std::size_t length) {
    const std::size_t base = _lineStart; // `line` is data + _lineStart
    std::size_t i = 0;
    while (i < length && Text::IsToken(line[i])) ++i;
    if (i == 0 || i == length || line[i] != ' ') {
        Fail(400, "Malformed method");
        return false;
    }
    _method = static_cast<std::uint32_t>(base);
    _methodLength = static_cast<std::uint32_t>(i);
    const std::size_t targetStart = ++i;
    while (i < length && Text::IsTargetChar(line[i])) ++i;
    if (i == targetStart || i == length || line[i] != ' ') {
        Fail(400, "Malformed request target");
        return false;
    }
    _target = static_cast<std::uint32_t>(base + targetStart);
    _targetLength = static_cast<std::uint32_t>(i - targetStart);
    const char* version = line + i + 1;
    const std::size_t versionLength = length - i - 1;
    if (versionLength != 8 || std::memcmp(version, "HTTP/", 5) != 0 || !Text::IsDigit(version[5]) ||
        version[6] != '.' || !Text::IsDigit(version[7])) {
        Fail(400, "Malformed HTTP version");
        return false;
    }
    if (version[5] != '1' || version[7] > '1') {
        Fail(505, "HTTP version not supported");
        return false;
    }
    _head.minorVersion = version[7] - '0';

    // The target's form: origin ("/..."), asterisk (OPTIONS only) or
    // absolute ("scheme://...").
    const std::string_view method(line, _methodLength);
    const std::string_view target(line + targetStart, _targetLength);
    bool formOk = target[0] == '/' || (target == "*" && method == "OPTIONS");
    if (!formOk && Text::IsAlpha(target[0])) {
        std::size_t s = 1;
        while (s < target.size() && Text::IsSchemeChar(target[s])) ++s;
        formOk = target.compare(s, 3, "://") == 0 && target.size() > s + 3;
    }
    if (!formOk) {
        Fail(400, "Malformed request target");
        return false;
    }
    return true;
}

bool RequestParser::ParseField(const char* data, std::size_t begin, std::size_t length) {
    const char* line = data + begin;
    if (Text::IsBlank(line[0])) {
        Fail(400, "Folded header line");
        return false;
    }
    std::size_t i = 0;
    while (i < length && Text::IsToken(line[i])) ++i;
    if (i == 0 || i == length || line[i] != ':') {
        Fail(400, "Malformed header field name");
        return false;
    }
    std::size_t start = i + 1;
    std::size_t end = length;
    while (start < end && Text::IsBlank(line[start])) ++start;
    while (end > start && Text::IsBlank(line[end - 1])) --end;
    for (std::size_t k = start; k < end; ++k) {
        if (!Text::IsFieldValueChar(line[k])) {
            Fail(400, "Invalid character in header field value");
            return false;
        }
    }
    _spans.push_back({static_cast<std::uint32_t>(begin), static_cast<std::uint32_t>(i),
                      static_cast<std::uint32_t>(begin + start),
                      static_cast<std::uint32_t>(end - start)});
    return true;
}

RequestParser::Result RequestParser::Finish(const char* data) {
    RequestHead& head = _head;
    head.method = std::string_view(data + _method, _methodLength);
    head.target = std::string_view(data + _target, _targetLength);
    _fields.clear();
    int lengths = 0, codings = 0, hosts = 0;
    bool close = false, keepAlive = false, unsupportedCoding = false, badLength = false;
    bool unknownExpectation = false, badConnection = false;
    for (const FieldSpan& span : _spans) {
        const HeaderField field{std::string_view(data + span.name, span.nameLength),
                                std::string_view(data + span.value, span.valueLength)};
        _fields.push_back(field);
        switch (field.name.size()) {
        case 4:
            if (Text::EqualsNoCase(field.name, "host")) {
                ++hosts;
                head.host = field.value;
            }
            break;
        case 6:
            if (Text::EqualsNoCase(field.name, "expect")) {
                if (Text::EqualsNoCase(field.value, "100-continue")) {
                    head.expectContinue = true;
                } else {
                    unknownExpectation = true;
                }
            }
            break;
        case 10:
            if (Text::EqualsNoCase(field.name, "connection")) {
                ForEachElement(field.value, [&](std::string_view option) {
                    if (Text::EqualsNoCase(option, "close")) close = true;
                    if (Text::EqualsNoCase(option, "keep-alive")) keepAlive = true;
                    for (char c : option) {
                        if (!Text::IsToken(c)) badConnection = true;
                    }
                });
            }
            break;
        case 14:
            if (Text::EqualsNoCase(field.name, "content-length")) {
                ++lengths;
                if (!ParseLength(field.value, head.contentLength)) badLength = true;
            }
            break;
        case 17:
            if (Text::EqualsNoCase(field.name, "transfer-encoding")) {
                ++codings;
                if (!Text::EqualsNoCase(field.value, "chunked")) unsupportedCoding = true;
            }
            break;
        default: break;
        }
    }
    head.fields = _fields.data();
    head.fieldCount = _fields.size();
    // The framing first: whatever else is wrong, a request whose end two
    // readers could see in different places is a bad request.
    if (lengths > 1) return Fail(400, "More than one Content-Length");
    if (codings > 1) return Fail(400, "More than one Transfer-Encoding");
    if (lengths > 0 && codings > 0) return Fail(400, "Both Content-Length and Transfer-Encoding");
    if (badLength) return Fail(400, "Invalid Content-Length");
    if (codings > 0 && head.minorVersion == 0) return Fail(400, "Transfer-Encoding in HTTP/1.0");
    if (unsupportedCoding) return Fail(501, "Transfer coding not supported");
    if (hosts > 1 || (hosts == 0 && head.minorVersion == 1)) {
        return Fail(400, "An HTTP/1.1 request needs exactly one Host");
    }
    if (badConnection) return Fail(400, "Malformed Connection");
    if (unknownExpectation) return Fail(417, "Expectation not supported");
    if (codings > 0) {
        head.framing = BodyFraming::Chunked;
    } else if (lengths > 0 && head.contentLength > 0) {
        head.framing = BodyFraming::Length;
    }
    head.keepAlive = head.minorVersion == 1 ? !close : keepAlive && !close;
    _result = Done;
    return Done;
}

} // namespace Http
} // namespace Tessera
