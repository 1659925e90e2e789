// UTF-8 checks for the texts the library hands to the system (paths,
// commands, arguments, environment entries): the same answer on every
// platform, before any back end sees the text.
#pragma once

#include <cstddef>
#include <string>

namespace Tessera {
namespace System {

// Whether `text` is well-formed UTF-8: no stray or missing continuation
// bytes, no overlong forms, no surrogates, nothing above U+10FFFF.
bool IsValidUtf8(const std::string& text) noexcept;

// Throws InvalidArgumentException "<what> is not valid UTF-8: '<text>'"
// (bytes above 0x7F shown as \xNN) unless `text` is valid UTF-8.
void RequireUtf8(const std::string& text, const char* what);

} // namespace System
} // namespace Tessera
