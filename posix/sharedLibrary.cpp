// Shared libraries through the dynamic loader.

#include "system/sharedLibraryPlatform.h"

#include <dlfcn.h>

namespace Tessera {
namespace System {
namespace Platform {

void* LoadSharedLibrary(const std::string& path, std::string& error) {
    void* library = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        const char* reason = ::dlerror();
        error = reason != nullptr ? reason : "unknown error";
    }
    return library;
}

void* FindSymbol(void* library, const std::string& name, std::string& error) {
    ::dlerror();  // a symbol may legitimately be null: tell by the error text
    void* symbol = ::dlsym(library, name.c_str());
    if (const char* reason = ::dlerror()) {
        error = reason;
        return nullptr;
    }
    if (symbol == nullptr) error = "the symbol is null";
    return symbol;
}

void UnloadSharedLibrary(void* library) noexcept {
    ::dlclose(library);
}

}  // namespace Platform
}  // namespace System
}  // namespace Tessera
