#include "system/utf8.h"

#include <tessera/exception.h>

namespace Tessera {
namespace System {

bool IsValidUtf8(const std::string& text) noexcept {
    const unsigned char* p = reinterpret_cast<const unsigned char*>(text.data());
    const unsigned char* const end = p + text.size();
    while (p < end) {
        const unsigned char lead = *p;
        if (lead < 0x80) {
            ++p;
            continue;
        }
        std::size_t length;
        unsigned char low = 0x80, high = 0xBF; // the second byte's range
        if (lead >= 0xC2 && lead <= 0xDF) {
            length = 2;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            length = 3;
            if (lead == 0xE0) low = 0xA0; // overlong
            if (lead == 0xED) high = 0x9F; // surrogates
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            length = 4;
            if (lead == 0xF0) low = 0x90; // overlong
            if (lead == 0xF4) high = 0x8F; // above U+10FFFF
        } else {
            return false; // a continuation byte, an overlong lead, or 0xF5-0xFF
        }
        if (static_cast<std::size_t>(end - p) < length) return false;
        if (p[1] < low || p[1] > high) return false;
        for (std::size_t i = 2; i < length; ++i) {
            if (p[i] < 0x80 || p[i] > 0xBF) return false;
        }
        p += length;
    }
    return true;
}

void RequireUtf8(const std::string& text, const char* what) {
    if (IsValidUtf8(text)) return;
    static const char kHex[] = "0123456789ABCDEF";
    std::string shown;
    for (const char c : text) {
        const unsigned char u = static_cast<unsigned char>(c);
        if (u < 0x80) {
            shown += c;
        } else {
            shown += "\\x";
            shown += kHex[u >> 4];
            shown += kHex[u & 0xF];
        }
    }
    throw InvalidArgumentException(std::string(what) + " is not valid UTF-8: '" + shown + "'");
}

} // namespace System
} // namespace Tessera
