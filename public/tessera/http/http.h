// Text helpers shared by the HTTP server, client and proxy: percent-encoding,
// HTML escaping, URI and authority splitting, query parsing and the HTTP date.
//
// All are pure functions of their arguments and may be called from any thread.
// Bytes are classified in the "C" locale whatever the process's locale is:
// letters are A-Z and a-z, digits 0-9, and no byte above 0x7F is either.
//
// URI splitting. ParseURI splits exactly as the general expression of
// RFC 3986, appendix B, matched against the whole input,
//     ^(([^:/?#]+):)?(//([^/?#]*))?([^?#]*)(\?([^#]*))?(#(.*))?
// with scheme = group 2, authority = group 4, path = group 5, query = group 7
// and fragment = group 9 (see URI_EXPRESSION). Every input matches, so it
// always returns true; an output whose group took no part in the match (no
// "scheme:", no "//", no "?", no "#") is emptied, never left as it was.
//
// Authority splitting. ParseURIAuthority accepts exactly the authorities that
// match AUTHORITY_EXPRESSION as a whole,
//     ^((([\w.~-]?(%[0-9a-fA-F][0-9a-fA-F])?[!$&'()*+,;=]?[:]?)+)@)?
//      ((([\w.~-]?(%[0-9a-fA-F][0-9a-fA-F])?[!$&'()*+,;=]?)+)(:([0-9]+))?)$
// with user information = group 2, host = group 6, port = group 10 and the
// host with its port as written = group 5. In words: an optional user part of
// unreserved characters, percent-escapes, sub-delimiters and colons ending in
// "@"; a host of the same without colons (possibly empty); an optional colon
// followed by at least one digit. A bracketed IPv6 literal, a second "@", a
// bare trailing colon or a port with a non-digit do not match. Both sides are
// scanned once, in time linear in the length: unlike the backtracking match of
// the expression, which gives up on hostile inputs of a few dozen bytes, a
// long authority always gets its answer. On false the outputs are left as they
// were; on true every output is set, an absent part to "".
//
// Queries. ParseURIQuery splits at "&" into fields and each field at its first
// "=" into a name and a value (a field without "=" is a name with an empty
// value; empty fields are skipped). Names and values are then decoded: "+"
// becomes a blank, as HTML forms send it, and "%" with two hexadecimal digits
// becomes that byte; a "%" without two digits after it is kept as it stands.
// The map is emptied first; when a name repeats, its first value is kept.
#pragma once

#include <tessera/api.h>
#include <tessera/system/dateTime.h>

#include <map>
#include <string>

namespace Tessera {
namespace Http {

// Percent-encoding for a query component: A-Z, a-z and 0-9 are copied; every
// other byte, "-", ".", "_", "~" and the blank included, becomes "%" and two
// lower-case hexadecimal digits ("a b" gives "a%20b", "-" gives "%2d").
TESSERA_EXPORT std::string URLEncode(const std::string& text);

// Percent-encoding for a path: "/", A-Z, a-z, 0-9 and "-._~" are copied; every
// other byte becomes "%" and two lower-case hexadecimal digits.
TESSERA_EXPORT std::string URLPathEncode(const std::string& text);

// Replaces '"', '&', '<' and '>' with "&quot;", "&amp;", "&lt;" and "&gt;";
// the apostrophe is left alone.
TESSERA_EXPORT std::string HTMLEscape(const std::string& text);

// HTMLEscape, and each LF becomes "<br />" while each CR is dropped, so CR LF
// and LF both give one line break.
TESSERA_EXPORT std::string HTMLEscapePreserveWhitespace(const std::string& text);

// See "URI splitting" above.
TESSERA_EXPORT bool ParseURI(const std::string& uri, std::string& scheme, std::string& authority,
                             std::string& path, std::string& query, std::string& fragment);

// See "Authority splitting" above.
TESSERA_EXPORT bool ParseURIAuthority(const std::string& authority, std::string& userInfo,
                                      std::string& host, std::string& port);
// The same, and `hostPort` receives the host with its port as written
// ("example.com:8080"): what a Host header or a connection-pool key carries.
TESSERA_EXPORT bool ParseURIAuthority(const std::string& authority, std::string& userInfo,
                                      std::string& host, std::string& port, std::string& hostPort);

// See "Queries" above.
TESSERA_EXPORT void ParseURIQuery(const std::string& query,
                                  std::map<std::string, std::string>& fields);

// The HTTP date of `time`, taken in UTC whatever zone it is written in:
// "Sun, 06 Nov 1994 08:49:37 GMT" (English weekday and month, two-digit day,
// hours, minutes and seconds, the full year).
TESSERA_EXPORT std::string FormatHttpDate(const System::DateTime& time);
// The same for an instant in microseconds since 1970-01-01T00:00:00Z.
TESSERA_EXPORT std::string FormatHttpDate(long long utcTime);
// Writes the 29 characters of the date, without a terminating zero, to `out`;
// a year before 1000 (which HTTP never carries) gets leading zeros here.
TESSERA_EXPORT void FormatHttpDate(const System::DateTime& time, char (&out)[29]) noexcept;

// The expressions the two splitters follow, in Boost.Regex (Perl) syntax.
extern TESSERA_EXPORT const char* const URI_EXPRESSION;
extern TESSERA_EXPORT const char* const AUTHORITY_EXPRESSION;

}  // namespace Http
}  // namespace Tessera
