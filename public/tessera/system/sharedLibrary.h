// A shared library (a .so or a .dll) loaded into the process.
#pragma once

#include <tessera/api.h>
#include <tessera/object.h>

#include <string>

namespace Tessera {
namespace System {

// Made by SystemFactory::GetSharedLibrary, which loads the library or throws
// NotFoundException naming the path and the system's reason. The library stays
// loaded while a reference to this object exists: pointers taken from it must
// not outlive it.
class TESSERA_EXPORT SharedLibrary : public virtual Object {
public:
    // The address of an exported symbol; NotFoundException when it has none.
    virtual void* GetSymbol(const std::string& name) = 0;
    virtual const std::string& GetPath() const = 0;
};

} // namespace System
} // namespace Tessera
