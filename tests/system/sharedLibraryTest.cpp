#include <tessera/exception.h>
#include <tessera/system/system.h>

#include <gtest/gtest.h>

#include <string>

using namespace Tessera;
using namespace Tessera::System;

// The library loads itself: its own file is a shared library every platform
// has at hand, with a known exported symbol.
TEST(SharedLibrary, LoadsFindsAndRefuses) {
    SystemFactory* factory = GetSystemFactory();
    Ref<SharedLibrary> self;
    factory->GetSharedLibrary(TESSERA_LIBRARY_FILE, self);
    ASSERT_FALSE(self.IsNull());
    EXPECT_EQ(self->GetPath(), TESSERA_LIBRARY_FILE);
    // The exported factory accessor is the one this program calls.
    using GetFactory = SystemFactory* (*)();
    void* symbol = self->GetSymbol(TESSERA_FACTORY_SYMBOL);
    EXPECT_EQ(reinterpret_cast<GetFactory>(symbol)(), factory);

    try {
        self->GetSymbol("NoSuchSymbolAnywhere");
        ADD_FAILURE() << "found a missing symbol";
    } catch (const NotFoundException& e) {
        EXPECT_NE(std::string(e.what()).find("NoSuchSymbolAnywhere"), std::string::npos);
    }
    const std::string missing = "no-such-library-4711.so";
    try {
        Ref<SharedLibrary> none;
        factory->GetSharedLibrary(missing, none);
        ADD_FAILURE() << "loaded a missing library";
    } catch (const NotFoundException& e) {
        EXPECT_NE(std::string(e.what()).find(missing), std::string::npos);
    }
}
