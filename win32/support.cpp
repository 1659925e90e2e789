#include "win32/support.h"

namespace Tessera {
namespace System {
namespace Platform {

NativeError Utf8ToWide(const std::string& text, std::wstring& wide) {
    wide.clear();
    if (text.empty()) return kSuccess;
    const int length = static_cast<int>(text.size());
    const int size =
        ::MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(), length, nullptr, 0);
    if (size <= 0) return LastError();
    wide.resize(static_cast<std::size_t>(size));
    ::MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, text.data(), length, &wide[0], size);
    return kSuccess;
}

std::string WideToUtf8(const wchar_t* text, int length) {
    if (length < 0) length = static_cast<int>(std::char_traits<wchar_t>::length(text));
    if (length == 0) return std::string();
    const int size = ::WideCharToMultiByte(CP_UTF8, 0, text, length, nullptr, 0, nullptr, nullptr);
    if (size <= 0) return std::string();
    std::string out(static_cast<std::size_t>(size), '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, text, length, &out[0], size, nullptr, nullptr);
    return out;
}

} // namespace Platform
} // namespace System
} // namespace Tessera
