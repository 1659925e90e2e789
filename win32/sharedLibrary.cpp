// Shared libraries through the Windows loader.

#include "system/platform/sharedLibrary.h"
#include "win32/support.h"

namespace Tessera {
namespace System {
namespace Platform {

NativeError LoadSharedLibrary(const std::string& path, void*& library, std::string&) noexcept {
    std::wstring wide;
    try {
        if (const NativeError error = Utf8ToWide(path, wide)) return error;
    } catch (...) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    HMODULE module = ::LoadLibraryW(wide.c_str());
    if (module == nullptr) return LastError();
    library = reinterpret_cast<void*>(module);
    return kSuccess;
}

NativeError FindSymbol(void* library, const std::string& name, void*& symbol,
                       std::string&) noexcept {
    FARPROC address = ::GetProcAddress(static_cast<HMODULE>(library), name.c_str());
    if (address == nullptr) return LastError();
    symbol = reinterpret_cast<void*>(address);
    return kSuccess;
}

void UnloadSharedLibrary(void* library) noexcept { ::FreeLibrary(static_cast<HMODULE>(library)); }

} // namespace Platform
} // namespace System
} // namespace Tessera
