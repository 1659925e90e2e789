// Character classes of HTTP/1.1 messages (RFC 9110, 9112), as table look-ups:
// what a token, a request target and a field value may hold.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Tessera {
namespace Http {
namespace Text {

enum : std::uint8_t {
    kToken = 1, // tchar
    kTarget = 2, // a visible ASCII character (request targets)
    kValue = 4, // a field value's character: visible, obs-text, SP, HTAB
    kHex = 8,
    kScheme = 16, // ALPHA DIGIT "+" "-" "."
};

struct Classes {
    std::uint8_t of[256];
    constexpr Classes() : of() {
        for (int c = 0x21; c <= 0x7e; ++c) of[c] |= kTarget | kValue;
        for (int c = 0x80; c <= 0xff; ++c) of[c] |= kValue;
        of[static_cast<int>(' ')] |= kValue;
        of[static_cast<int>('\t')] |= kValue;
        for (int c = '0'; c <= '9'; ++c) of[c] |= kToken | kHex | kScheme;
        for (int c = 'a'; c <= 'z'; ++c) of[c] |= kToken | kScheme;
        for (int c = 'A'; c <= 'Z'; ++c) of[c] |= kToken | kScheme;
        for (int c = 'a'; c <= 'f'; ++c) of[c] |= kHex;
        for (int c = 'A'; c <= 'F'; ++c) of[c] |= kHex;
        const char* const tokenMarks = "!#$%&'*+-.^_`|~";
        for (const char* p = tokenMarks; *p != '\0'; ++p) of[static_cast<int>(*p)] |= kToken;
        of[static_cast<int>('+')] |= kScheme;
        of[static_cast<int>('-')] |= kScheme;
        of[static_cast<int>('.')] |= kScheme;
    }
};

inline constexpr Classes kClasses{};

inline bool Is(char c, std::uint8_t what) noexcept {
    return (kClasses.of[static_cast<unsigned char>(c)] & what) != 0;
}
inline bool IsToken(char c) noexcept { return Is(c, kToken); }
inline bool IsTargetChar(char c) noexcept { return Is(c, kTarget); }
inline bool IsFieldValueChar(char c) noexcept { return Is(c, kValue); }
inline bool IsHex(char c) noexcept { return Is(c, kHex); }
inline bool IsSchemeChar(char c) noexcept { return Is(c, kScheme); }
inline bool IsBlank(char c) noexcept { return c == ' ' || c == '\t'; }
inline bool IsDigit(char c) noexcept { return c >= '0' && c <= '9'; }
inline bool IsAlpha(char c) noexcept { return (c | 0x20) >= 'a' && (c | 0x20) <= 'z'; }
inline char Lower(char c) noexcept {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c;
}
// Whether `a` and `b` are equal but for the case of ASCII letters (field
// names, tokens).
inline bool EqualsNoCase(std::string_view a, std::string_view b) noexcept {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (Lower(a[i]) != Lower(b[i])) return false;
    }
    return true;
}
inline unsigned HexValue(char c) noexcept {
    return c <= '9' ? static_cast<unsigned>(c - '0') : static_cast<unsigned>((c | 0x20) - 'a' + 10);
}

} // namespace Text
} // namespace Http
} // namespace Tessera
