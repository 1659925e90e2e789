#include <tessera/http/http.h>
#include <tessera/system/dateTime.h>

#include <gtest/gtest.h>
#include <boost/regex.hpp>

#include <cctype>
#include <cstdio>
#include <map>
#include <random>
#include <string>

using namespace Tessera;
using namespace Tessera::Http;

namespace {

std::string Byte(int b) { return std::string(1, static_cast<char>(b)); }

// ---- the expressions themselves, as the reference the splitters must equal ----

struct UriParts {
    bool ok = false;
    std::string scheme, authority, path, query, fragment;
    bool operator==(const UriParts& o) const {
        return ok == o.ok && scheme == o.scheme && authority == o.authority && path == o.path &&
               query == o.query && fragment == o.fragment;
    }
};

struct AuthorityParts {
    bool ok = false;
    std::string userInfo, host, port, hostPort;
    bool operator==(const AuthorityParts& o) const {
        return ok == o.ok && userInfo == o.userInfo && host == o.host && port == o.port &&
               hostPort == o.hostPort;
    }
};

std::ostream& operator<<(std::ostream& os, const UriParts& p) {
    return os << p.ok << " [" << p.scheme << "][" << p.authority << "][" << p.path << "]["
              << p.query << "][" << p.fragment << "]";
}
std::ostream& operator<<(std::ostream& os, const AuthorityParts& p) {
    return os << p.ok << " [" << p.userInfo << "][" << p.host << "][" << p.port << "]["
              << p.hostPort << "]";
}

const boost::regex& UriRegex() {
    static const boost::regex re(URI_EXPRESSION);
    return re;
}
const boost::regex& AuthorityRegex() {
    static const boost::regex re(AUTHORITY_EXPRESSION);
    return re;
}

UriParts ByRegex(const std::string& uri) {
    UriParts p;
    boost::smatch m;
    p.ok = boost::regex_match(uri, m, UriRegex());
    if (p.ok) {
        p.scheme = m[2].str(), p.authority = m[4].str(), p.path = m[5].str();
        p.query = m[7].str(), p.fragment = m[9].str();
    }
    return p;
}

UriParts Ours(const std::string& uri) {
    UriParts p{false, "stale", "stale", "stale", "stale", "stale"};
    p.ok = ParseURI(uri, p.scheme, p.authority, p.path, p.query, p.fragment);
    return p;
}

// Throws when the backtracking match gives up.
AuthorityParts AuthorityByRegex(const std::string& authority) {
    AuthorityParts p;
    boost::smatch m;
    p.ok = boost::regex_match(authority, m, AuthorityRegex());
    if (p.ok) {
        p.userInfo = m[2].str(), p.host = m[6].str(), p.port = m[10].str();
        p.hostPort = m[5].str();
    }
    return p;
}

AuthorityParts OursAuthority(const std::string& authority) {
    AuthorityParts p;
    p.ok = ParseURIAuthority(authority, p.userInfo, p.host, p.port, p.hostPort);
    std::string u = "u", h = "h", port = "p";
    EXPECT_EQ(p.ok, ParseURIAuthority(authority, u, h, port));
    if (p.ok) {
        EXPECT_EQ(p.userInfo + "|" + p.host + "|" + p.port, u + "|" + h + "|" + port);
    } else {
        p.userInfo = p.host = p.port = p.hostPort = "";
        EXPECT_EQ("u|h|p", u + "|" + h + "|" + port) << "outputs changed on failure";
    }
    return p;
}

std::string RandomText(std::mt19937& rng, const std::string& alphabet, std::size_t maxLength) {
    std::string s(rng() % (maxLength + 1), ' ');
    for (char& c : s) c = alphabet[rng() % alphabet.size()];
    return s;
}

} // namespace

// ---- encoders and escapers: every byte value against the C library's view ----

TEST(HttpText, EncodersTreatEveryByteAsClassified) {
    EXPECT_EQ("", URLEncode(""));
    std::string all;
    for (int b = 0; b < 256; ++b) all += Byte(b);
    std::string query, path;
    for (int b = 0; b < 256; ++b) {
        char hex[8];
        std::snprintf(hex, sizeof hex, "%%%02hhx", static_cast<unsigned char>(b));
        const bool alnum = b < 128 && std::isalnum(b);
        query += alnum ? Byte(b) : hex;
        path += alnum || (b != 0 &&
                          std::string("/-._~").find(static_cast<char>(b)) != std::string::npos)
                    ? Byte(b)
                    : hex;
    }
    EXPECT_EQ(query, URLEncode(all));
    EXPECT_EQ(path, URLPathEncode(all));
}

TEST(HttpText, HtmlEscapes) {
    EXPECT_EQ("&lt;a href=&quot;x&quot;&gt;Tom &amp; Jerry's&lt;/a&gt;",
              HTMLEscape("<a href=\"x\">Tom & Jerry's</a>"));
    EXPECT_EQ("x\r\ny", HTMLEscape("x\r\ny"));
    EXPECT_EQ("x<br />y", HTMLEscapePreserveWhitespace("x\r\ny"));
    EXPECT_EQ("a<br /><br />b&lt;", HTMLEscapePreserveWhitespace("a\n\r\nb<\r"));
    EXPECT_EQ(std::string("\0x", 2), HTMLEscape(std::string("\0x", 2)));
}

// ---- URIs: the RFC 3986 expression decides ----

TEST(HttpText, ParseUriSplitsAsTheExpression) {
    UriParts full = Ours("http://user@example.com:8080/a/b/c?x=1&y=2#frag");
    EXPECT_EQ((UriParts{true, "http", "user@example.com:8080", "/a/b/c", "x=1&y=2", "frag"}), full);
    EXPECT_EQ((UriParts{true, "", "", "a/b", "q", ""}), Ours("a/b?q"));
    EXPECT_EQ((UriParts{true, "", "", "../x", "", "f?g#h"}), Ours("../x#f?g#h"));
    EXPECT_EQ((UriParts{true, "", "", ":x", "", ""}), Ours(":x"));
    EXPECT_EQ((UriParts{true, "", "", "", "", ""}), Ours(""));
    EXPECT_EQ((UriParts{true, "mailto", "", "a@b", "", ""}), Ours("mailto:a@b"));
    EXPECT_EQ((UriParts{true, "", "h", "/p:q", "", ""}), Ours("//h/p:q"));

    const char* samples[] = {"http://h", "http:", "a:b:c",  "/:x",       "?:x",
                             "#:x",      "//",    "///",    "s://a?b#c", "s:?",
                             "s:#",      "x//y",  "s:////", "\n:\r",     "a?b?c"};
    for (const char* s : samples) EXPECT_EQ(ByRegex(s), Ours(s)) << s;
    std::mt19937 rng(11);
    const std::string alphabet = std::string(":/?#ab@%\n\r.", 11) + std::string(1, '\0') + "\xff";
    for (int i = 0; i < 20000; ++i) {
        const std::string s = RandomText(rng, alphabet, 12);
        ASSERT_EQ(ByRegex(s), Ours(s)) << '"' << s << '"';
    }
}

// ---- authorities: same answers as the expression, in linear time ----

TEST(HttpText, ParseUriAuthorityMatchesTheExpression) {
    EXPECT_EQ((AuthorityParts{true, "joe", "example.com", "80", "example.com:80"}),
              OursAuthority("joe@example.com:80"));
    EXPECT_EQ((AuthorityParts{true, "a:b%2F", "h_1~", "", "h_1~"}), OursAuthority("a:b%2F@h_1~"));
    EXPECT_EQ((AuthorityParts{true, "", "", "", ""}), OursAuthority(""));
    EXPECT_EQ((AuthorityParts{true, "", "", "8", ":8"}), OursAuthority("@:8"));
    for (const char* bad : {"host:", "host:8a", "[::1]:80", "a@b@c", "h%2", "h%zz", "h/x",
                            "u@h:", "h:80:81", "h\n", "h\xe9"}) {
        EXPECT_FALSE(OursAuthority(bad).ok) << bad;
    }

    const char* samples[] = {
        "joe@example.com:80",        "a:b%2F@h_1~", "", "@:8", "host:", "%41:@x", "@", "::@",
        "!$&'()*+,;=@!$&'()*+,;=:0", "a@b@c"};
    for (const char* s : samples) EXPECT_EQ(AuthorityByRegex(s), OursAuthority(s)) << s;
    std::mt19937 rng(12);
    const std::string alphabet = "a_9.~-%fG:@!=[]/ \xe9";
    int compared = 0;
    for (int i = 0; i < 20000; ++i) {
        const std::string s = RandomText(rng, alphabet, 14);
        AuthorityParts expected;
        try {
            expected = AuthorityByRegex(s);
        } catch (const std::runtime_error&) {
            continue; // the backtracking match gave up on this one
        }
        ++compared;
        ASSERT_EQ(expected, OursAuthority(s)) << '"' << s << '"';
    }
    EXPECT_GT(compared, 19000);
}

TEST(HttpText, HostileAuthoritiesGetTheirAnswer) {
    std::string nearlyUser;
    while (nearlyUser.size() < 65536) nearlyUser += "a:%4";
    std::string user = "u", host = "h", port = "p";
    EXPECT_FALSE(ParseURIAuthority(nearlyUser + "@h", user, host, port));
    // The expression itself cannot decide such an input.
    EXPECT_THROW(AuthorityByRegex(nearlyUser.substr(0, 96) + "@h"), std::runtime_error);

    std::string longHost;
    while (longHost.size() < 65536) longHost += "x%41!";
    EXPECT_TRUE(ParseURIAuthority("me:pw@" + longHost + ":443", user, host, port));
    EXPECT_EQ("me:pw", user);
    EXPECT_EQ(longHost, host);
    EXPECT_EQ("443", port);
    EXPECT_FALSE(ParseURIAuthority(longHost + ":443x", user, host, port));
}

TEST(HttpText, ParseUriQueryDecodesFields) {
    std::map<std::string, std::string> fields{{"stale", "x"}};
    ParseURIQuery("a=1&b=x+y%20z&&c&d=%zz%4&a=2&=e&f=g=h&%41%2b=%2B", fields);
    const std::map<std::string, std::string> expected{{"a", "1"},     {"b", "x y z"}, {"c", ""},
                                                      {"d", "%zz%4"}, {"", "e"},      {"f", "g=h"},
                                                      {"A+", "+"}};
    EXPECT_EQ(expected, fields);
    ParseURIQuery("", fields);
    EXPECT_TRUE(fields.empty());
}

TEST(HttpText, HttpDateIsTakenInUtc) {
    EXPECT_EQ("Sun, 06 Nov 1994 08:49:37 GMT",
              FormatHttpDate(System::DateTime(1994, 11, 6, 8, 49, 37.9, 0)));
    // 01:30 at +02:00 is 23:30 of the day before in UTC.
    EXPECT_EQ("Wed, 31 Dec 2025 23:30:00 GMT",
              FormatHttpDate(System::DateTime(2026, 1, 1, 1, 30, 0, -120)));
    EXPECT_EQ("Thu, 01 Jan 1970 00:00:00 GMT", FormatHttpDate(0LL));
    EXPECT_EQ("Sat, 29 Feb 2020 12:00:00 GMT", FormatHttpDate(1582977600LL * 1000000));
    EXPECT_EQ(" 999 ", FormatHttpDate(System::DateTime(999, 1, 1, 0, 0, 0, 0)).substr(11, 5));
    char fixed[29];
    FormatHttpDate(System::DateTime(2024, 7, 9, 5, 6, 7, 0), fixed);
    EXPECT_EQ("Tue, 09 Jul 2024 05:06:07 GMT", std::string(fixed, 29));
}
