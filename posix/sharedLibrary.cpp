// Shared libraries through the dynamic loader.

#include "system/platform/sharedLibrary.h"

#include <dlfcn.h>

namespace Tessera {
namespace System {
namespace Platform {
namespace {

NativeError LoaderFailure(std::string& reason) noexcept {
    const char* text = ::dlerror();
    try {
        reason = text != nullptr ? text : "unknown error";
    } catch (...) {
    }
    return kLoaderError;
}

} // namespace

NativeError LoadSharedLibrary(const std::string& path, void*& library,
                              std::string& reason) noexcept {
    library = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    return library != nullptr ? kSuccess : LoaderFailure(reason);
}

NativeError FindSymbol(void* library, const std::string& name, void*& symbol,
                       std::string& reason) noexcept {
    ::dlerror(); // a symbol may legitimately be null: tell by the error text
    symbol = ::dlsym(library, name.c_str());
    if (const char* text = ::dlerror()) {
        try {
            reason = text;
        } catch (...) {
        }
        return kLoaderError;
    }
    if (symbol == nullptr) {
        try {
            reason = "the symbol is null";
        } catch (...) {
        }
        return kLoaderError;
    }
    return kSuccess;
}

void UnloadSharedLibrary(void* library) noexcept { ::dlclose(library); }

} // namespace Platform
} // namespace System
} // namespace Tessera
