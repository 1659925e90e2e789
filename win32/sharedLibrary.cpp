// Shared libraries through the Windows loader.

#include <tessera/exception.h>

#include "system/sharedLibraryPlatform.h"

#include <windows.h>

#include <vector>

namespace Tessera {
namespace System {
namespace Platform {

void* LoadSharedLibrary(const std::string& path, std::string& error) {
    // Paths are UTF-8.
    const int length = ::MultiByteToWideChar(CP_UTF8, 0, path.c_str(), -1, nullptr, 0);
    std::vector<wchar_t> wide(static_cast<std::size_t>(length > 0 ? length : 1));
    ::MultiByteToWideChar(CP_UTF8, 0, path.c_str(), -1, wide.data(), length);
    HMODULE library = ::LoadLibraryW(wide.data());
    if (library == nullptr) {
        error = SystemException::GetSystemMessage(static_cast<int>(::GetLastError()));
    }
    return reinterpret_cast<void*>(library);
}

void* FindSymbol(void* library, const std::string& name, std::string& error) {
    FARPROC symbol = ::GetProcAddress(static_cast<HMODULE>(library), name.c_str());
    if (symbol == nullptr) {
        error = SystemException::GetSystemMessage(static_cast<int>(::GetLastError()));
        return nullptr;
    }
    return reinterpret_cast<void*>(symbol);
}

void UnloadSharedLibrary(void* library) noexcept { ::FreeLibrary(static_cast<HMODULE>(library)); }

} // namespace Platform
} // namespace System
} // namespace Tessera
