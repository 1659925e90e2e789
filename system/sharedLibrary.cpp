// Shared libraries made by the factory.

#include <tessera/exception.h>
#include <tessera/system/sharedLibrary.h>

#include "system/platform/sharedLibrary.h"
#include "system/systemFactoryImpl.h"
#include "system/utf8.h"

namespace Tessera {
namespace System {
namespace {

std::string ReasonOf(Platform::NativeError error, const std::string& reason) {
    return reason.empty() ? SystemException::GetSystemMessage(error) : reason;
}

class SharedLibraryImpl final : public ObjectImpl, public SharedLibrary {
public:
    SharedLibraryImpl(std::string path, void* handle) : _path(std::move(path)), _handle(handle) {}
    ~SharedLibraryImpl() override { Platform::UnloadSharedLibrary(_handle); }

    void* GetSymbol(const std::string& name) override {
        void* symbol = nullptr;
        std::string reason;
        if (const Platform::NativeError error =
                Platform::FindSymbol(_handle, name, symbol, reason)) {
            throw NotFoundException("Symbol '" + name + "' in shared library '" + _path +
                                    "': " + ReasonOf(error, reason));
        }
        return symbol;
    }
    const std::string& GetPath() const override { return _path; }

private:
    const std::string _path;
    void* const _handle;
};

} // namespace

void SystemFactoryImpl::GetSharedLibrary(const std::string& path, Ref<SharedLibrary>& out) {
    RequireUtf8(path, "Path");
    void* handle = nullptr;
    std::string reason;
    if (const Platform::NativeError error = Platform::LoadSharedLibrary(path, handle, reason)) {
        throw NotFoundException("Shared library '" + path + "': " + ReasonOf(error, reason));
    }
    out = new SharedLibraryImpl(path, handle);
}

} // namespace System
} // namespace Tessera
