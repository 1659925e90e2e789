// Shared libraries made by the factory.

#include <tessera/exception.h>
#include <tessera/system/sharedLibrary.h>

#include "system/sharedLibraryPlatform.h"
#include "system/systemFactoryImpl.h"

namespace Tessera {
namespace System {
namespace {

class SharedLibraryImpl final : public ObjectImpl, public SharedLibrary {
public:
    SharedLibraryImpl(std::string path, void* handle) : _path(std::move(path)), _handle(handle) {}
    ~SharedLibraryImpl() override { Platform::UnloadSharedLibrary(_handle); }

    void* GetSymbol(const std::string& name) override {
        std::string error;
        void* symbol = Platform::FindSymbol(_handle, name, error);
        if (symbol == nullptr) {
            throw NotFoundException("Symbol '" + name + "' in shared library '" + _path + "': " +
                                    error);
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
    std::string error;
    void* handle = Platform::LoadSharedLibrary(path, error);
    if (handle == nullptr) {
        throw NotFoundException("Shared library '" + path + "': " + error);
    }
    out = new SharedLibraryImpl(path, handle);
}

} // namespace System
} // namespace Tessera
