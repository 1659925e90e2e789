// Percent-encoding, HTML escaping, URI and authority splitting, queries and
// the HTTP date.

#include <tessera/http/http.h>

#include <cstdint>
#include <cstring>
#include <utility>

namespace Tessera {
namespace Http {

const char* const URI_EXPRESSION = "^(([^:/?#]+):)?(//([^/?#]*))?([^?#]*)(\\?([^#]*))?(#(.*))?";
const char* const AUTHORITY_EXPRESSION =
    "^((([\\w.~-]?(%[0-9a-fA-F][0-9a-fA-F])?[!$&'()*+,;=]?[:]?)+)@)?"
    "((([\\w.~-]?(%[0-9a-fA-F][0-9a-fA-F])?[!$&'()*+,;=]?)+)(:([0-9]+))?)$";

namespace {

// Byte classes, one bit each, for a table lookup per byte.
enum : std::uint8_t {
    ALNUM = 1,       // A-Z a-z 0-9
    PATH_KEEP = 2,   // ALNUM, "/" and "-._~": copied by the path encoder
    WORD = 4,        // [\w.~-]: ALNUM, "_", ".", "~", "-"
    SUB_DELIM = 8,   // [!$&'()*+,;=]
    HEX = 16,        // [0-9a-fA-F]
    URI_STOP = 32,   // ":/?#", which end a scheme
    HOST_STOP = 64,  // "/?#", which end an authority
    HTML_SPECIAL = 128,
};

struct ByteClasses {
    std::uint8_t bits[256];

    constexpr ByteClasses() : bits() {
        for (int c = 0; c < 256; ++c) {
            const bool alnum =
                (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
            std::uint8_t b = 0;
            if (alnum) b |= ALNUM | PATH_KEEP | WORD;
            if (c == '/' || c == '-' || c == '.' || c == '_' || c == '~') b |= PATH_KEEP;
            if (c == '_' || c == '.' || c == '~' || c == '-') b |= WORD;
            for (const char* s = "!$&'()*+,;="; *s != 0; ++s) {
                if (c == *s) b |= SUB_DELIM;
            }
            if ((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F')) {
                b |= HEX;
            }
            if (c == ':' || c == '/' || c == '?' || c == '#') b |= URI_STOP;
            if (c == '/' || c == '?' || c == '#') b |= HOST_STOP;
            if (c == '"' || c == '&' || c == '<' || c == '>' || c == '\r' || c == '\n') {
                b |= HTML_SPECIAL;
            }
            bits[c] = b;
        }
    }
    bool Is(char c, std::uint8_t mask) const noexcept {
        return (bits[static_cast<unsigned char>(c)] & mask) != 0;
    }
};

constexpr ByteClasses kClasses;

// What one byte becomes under an encoder: the byte itself, or "%" and two
// digits; four bytes are always stored, `length` of them count.
struct EncodingTable {
    char text[256][4];
    std::uint8_t length[256];

    constexpr explicit EncodingTable(std::uint8_t keep) : text(), length() {
        const ByteClasses classes;
        for (int c = 0; c < 256; ++c) {
            if ((classes.bits[c] & keep) != 0) {
                text[c][0] = static_cast<char>(c);
                length[c] = 1;
            } else {
                text[c][0] = '%';
                text[c][1] = "0123456789abcdef"[c >> 4];
                text[c][2] = "0123456789abcdef"[c & 15];
                length[c] = 3;
            }
        }
    }
};

constexpr EncodingTable kQueryEncoding(ALNUM);
constexpr EncodingTable kPathEncoding(PATH_KEEP);

// Without a branch per byte: random text would mispredict a quarter of them.
std::string PercentEncode(const std::string& text, const EncodingTable& table) {
    std::string out;
    out.resize(text.size() * 3 + 1);  // one spare byte for the last 4-byte store
    char* o = &out[0];
    for (const char c : text) {
        const auto u = static_cast<unsigned char>(c);
        std::memcpy(o, table.text[u], 4);
        o += table.length[u];
    }
    out.resize(static_cast<std::size_t>(o - out.data()));
    return out;
}

std::string Escape(const std::string& text, bool lineBreaks) {
    std::string out;
    out.reserve(text.size() + text.size() / 8);
    std::size_t run = 0;  // start of the bytes not yet copied
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (!kClasses.Is(c, HTML_SPECIAL)) continue;
        const char* with = nullptr;
        switch (c) {
            case '"':
                with = "&quot;";
                break;
            case '&':
                with = "&amp;";
                break;
            case '<':
                with = "&lt;";
                break;
            case '>':
                with = "&gt;";
                break;
            case '\n':
                with = lineBreaks ? "<br />" : nullptr;
                break;
            default:
                with = lineBreaks ? "" : nullptr;
                break;  // CR
        }
        if (with == nullptr) continue;
        out.append(text, run, i - run);
        out.append(with);
        run = i + 1;
    }
    out.append(text, run, std::string::npos);
    return out;
}

// The end of the longest run from `p` of [\w.~-], percent-escapes, the
// sub-delimiters and, when `colons`, ":" (the repeated group of the
// expression's user and host parts).
const char* ScanAuthorityRun(const char* p, const char* end, bool colons) noexcept {
    while (p != end) {
        const char c = *p;
        if (kClasses.Is(c, WORD | SUB_DELIM) || (colons && c == ':')) {
            ++p;
        } else if (c == '%' && end - p >= 3 && kClasses.Is(p[1], HEX) && kClasses.Is(p[2], HEX)) {
            p += 3;
        } else {
            break;
        }
    }
    return p;
}

int HexValue(char c) noexcept {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return c - 'A' + 10;
}

std::string DecodeQueryText(const char* p, const char* end) {
    std::string out;
    out.reserve(static_cast<std::size_t>(end - p));
    while (p != end) {
        const char c = *p;
        if (c == '+') {
            out += ' ';
            ++p;
        } else if (c == '%' && end - p >= 3 && kClasses.Is(p[1], HEX) && kClasses.Is(p[2], HEX)) {
            out += static_cast<char>(HexValue(p[1]) * 16 + HexValue(p[2]));
            p += 3;
        } else {
            out += c;
            ++p;
        }
    }
    return out;
}

void TwoDigits(char* out, int value) noexcept {
    out[0] = static_cast<char>('0' + value / 10 % 10);
    out[1] = static_cast<char>('0' + value % 10);
}

}  // namespace

std::string URLEncode(const std::string& text) {
    return PercentEncode(text, kQueryEncoding);
}

std::string URLPathEncode(const std::string& text) {
    return PercentEncode(text, kPathEncoding);
}

std::string HTMLEscape(const std::string& text) {
    return Escape(text, false);
}

std::string HTMLEscapePreserveWhitespace(const std::string& text) {
    return Escape(text, true);
}

bool ParseURI(const std::string& uri, std::string& scheme, std::string& authority,
              std::string& path, std::string& query, std::string& fragment) {
    const char* const begin = uri.data();
    const char* const end = begin + uri.size();
    const char* p = begin;

    // (([^:/?#]+):)? takes the longest run of other bytes when a colon ends it.
    const char* q = p;
    while (q != end && !kClasses.Is(*q, URI_STOP)) ++q;
    if (q != p && q != end && *q == ':') {
        scheme.assign(p, q);
        p = q + 1;
    } else {
        scheme.clear();
    }
    // (//([^/?#]*))?
    if (end - p >= 2 && p[0] == '/' && p[1] == '/') {
        p += 2;
        q = p;
        while (q != end && !kClasses.Is(*q, HOST_STOP)) ++q;
        authority.assign(p, q);
        p = q;
    } else {
        authority.clear();
    }
    // ([^?#]*)
    q = p;
    while (q != end && *q != '?' && *q != '#') ++q;
    path.assign(p, q);
    p = q;
    // (\?([^#]*))?
    if (p != end && *p == '?') {
        ++p;
        q = static_cast<const char*>(std::memchr(p, '#', static_cast<std::size_t>(end - p)));
        if (q == nullptr) q = end;
        query.assign(p, q);
        p = q;
    } else {
        query.clear();
    }
    // (#(.*))? takes the rest.
    if (p != end) {
        fragment.assign(p + 1, end);
    } else {
        fragment.clear();
    }
    return true;
}

bool ParseURIAuthority(const std::string& authority, std::string& userInfo, std::string& host,
                       std::string& port, std::string& hostPort) {
    const char* const begin = authority.data();
    const char* const end = begin + authority.size();

    // No class admits "@", so a user part can only end at the first one, and
    // a second one matches nothing.
    const char* userEnd = nullptr;
    const char* hostBegin = begin;
    const char* at = static_cast<const char*>(std::memchr(begin, '@', authority.size()));
    if (at != nullptr) {
        if (ScanAuthorityRun(begin, at, true) != at) return false;
        userEnd = at;
        hostBegin = at + 1;
    }
    // The host is the longest run without colons; what follows must be the
    // end, or a colon and digits up to the end.
    const char* hostEnd = ScanAuthorityRun(hostBegin, end, false);
    const char* portBegin = nullptr;
    if (hostEnd != end) {
        if (*hostEnd != ':' || end - hostEnd < 2) return false;
        for (const char* d = hostEnd + 1; d != end; ++d) {
            if (*d < '0' || *d > '9') return false;
        }
        portBegin = hostEnd + 1;
    }
    if (userEnd != nullptr) {
        userInfo.assign(begin, userEnd);
    } else {
        userInfo.clear();
    }
    host.assign(hostBegin, hostEnd);
    if (portBegin != nullptr) {
        port.assign(portBegin, end);
    } else {
        port.clear();
    }
    hostPort.assign(hostBegin, end);
    return true;
}

bool ParseURIAuthority(const std::string& authority, std::string& userInfo, std::string& host,
                       std::string& port) {
    std::string hostPort;
    return ParseURIAuthority(authority, userInfo, host, port, hostPort);
}

void ParseURIQuery(const std::string& query, std::map<std::string, std::string>& fields) {
    fields.clear();
    const char* p = query.data();
    const char* const end = p + query.size();
    for (;;) {
        const char* fieldEnd =
            static_cast<const char*>(std::memchr(p, '&', static_cast<std::size_t>(end - p)));
        if (fieldEnd == nullptr) fieldEnd = end;
        if (fieldEnd != p) {
            const char* eq = static_cast<const char*>(
                std::memchr(p, '=', static_cast<std::size_t>(fieldEnd - p)));
            const char* nameEnd = eq != nullptr ? eq : fieldEnd;
            std::string value = eq != nullptr ? DecodeQueryText(eq + 1, fieldEnd) : std::string();
            fields.emplace(DecodeQueryText(p, nameEnd), std::move(value));
        }
        if (fieldEnd == end) break;
        p = fieldEnd + 1;
    }
}

void FormatHttpDate(const System::DateTime& time, char (&out)[29]) noexcept {
    static const char kDays[] = "SunMonTueWedThuFriSat";
    static const char kMonths[] = "JanFebMarAprMayJunJulAugSepOctNovDec";
    const System::DateTime utc =
        time.GetBias() == 0 ? time : System::DateTimeFromUtc(time.GetUtcTime(), false);
    // "Sun, 06 Nov 1994 08:49:37 GMT"
    std::memcpy(out, kDays + 3 * utc.GetDayOfWeek(), 3);
    out[3] = ',';
    out[4] = ' ';
    TwoDigits(out + 5, utc.GetDay());
    out[7] = ' ';
    std::memcpy(out + 8, kMonths + 3 * (utc.GetMonth() - 1), 3);
    out[11] = ' ';
    const int year = utc.GetYear();
    out[12] = static_cast<char>('0' + year / 1000 % 10);
    out[13] = static_cast<char>('0' + year / 100 % 10);
    TwoDigits(out + 14, year % 100);
    out[16] = ' ';
    TwoDigits(out + 17, utc.GetHour());
    out[19] = ':';
    TwoDigits(out + 20, utc.GetMinute());
    out[22] = ':';
    TwoDigits(out + 23, utc.GetSecond());
    std::memcpy(out + 25, " GMT", 4);
}

std::string FormatHttpDate(const System::DateTime& time) {
    char text[29];
    FormatHttpDate(time, text);
    // The year as "%d" writes it: without the leading zeros of years before 1000.
    std::size_t skip = 0;
    while (skip < 3 && text[12 + skip] == '0') ++skip;
    if (skip == 0) return std::string(text, sizeof text);
    std::string out(text, 12);
    out.append(text + 12 + skip, 4 - skip);
    out.append(text + 16, sizeof text - 16);
    return out;
}

std::string FormatHttpDate(long long utcTime) {
    return FormatHttpDate(System::DateTimeFromUtc(utcTime, false));
}

}  // namespace Http
}  // namespace Tessera
