// Memory running out while a document is parsed ends the parse with the
// library's exception, whichever allocation fails.
//
// Allocation failures are injected through this program's own operator new,
// which the library's allocations reach as well on this platform. It is a
// program of its own (tessera_oom_tests), so that the other tests keep the
// sanitizers' checks of new and delete.

#include <tessera/exception.h>
#include <tessera/xmlParser.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <new>
#include <string>

#include <unistd.h>

namespace {

// The number of allocations of this thread to let through before one fails;
// negative when none is to fail.
thread_local long allocationsBeforeFailure = -1;

void* Allocate(std::size_t size) {
    if (allocationsBeforeFailure >= 0 && allocationsBeforeFailure-- == 0) {
        throw std::bad_alloc();
    }
    if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
    throw std::bad_alloc();
}

} // namespace

void* operator new(std::size_t size) { return Allocate(size); }
void* operator new[](std::size_t size) { return Allocate(size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
// The non-throwing forms too, so that every form frees what it allocated
// (sanitizer runtimes supply their own otherwise).
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return Allocate(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept {
    return operator new(size, tag);
}
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }

namespace {

// Runs `parse` with the n-th allocation failing, for n = 0, 1, ... until it
// runs through without reaching the failure; returns how many failed.
template <class F>
int FailEachAllocation(F parse) {
    for (long n = 0;; ++n) {
        allocationsBeforeFailure = n;
        try {
            parse();
            const bool reached = allocationsBeforeFailure < 0;
            allocationsBeforeFailure = -1;
            if (!reached) return static_cast<int>(n);
            ADD_FAILURE() << "allocation " << n << " failed and the parse succeeded";
        } catch (const Tessera::Xml::ParsingAbortedException& e) {
            allocationsBeforeFailure = -1;
            EXPECT_NE(std::string(e.what()).find("not enough memory"), std::string::npos)
                << e.what();
        } catch (const std::bad_alloc&) {
            allocationsBeforeFailure = -1;
            ADD_FAILURE() << "std::bad_alloc escaped when allocation " << n << " failed";
        }
    }
}

} // namespace

TEST(XmlParserOutOfMemory, EveryFailedAllocationEndsInTheLibrarysException) {
    const std::string text =
        "<?xml version='1.0'?>\n"
        "<config version='2' mode='on'>\n"
        "  <log level='info'><dir>/var/log/a-directory-name</dir></log>\n"
        "  <name>caf\xC3\xA9 &amp; more text than fits in place</name>\n"
        "  <empty/>\n"
        "</config>\n";
    EXPECT_GT(FailEachAllocation([&] { Tessera::Xml::Parse(text); }), 10);

    Tessera::Ref<Tessera::Service::Config> config;
    EXPECT_GT(FailEachAllocation([&] { Tessera::Service::LoadConfigText(text, config); }), 10);

    const std::filesystem::path path = std::filesystem::temp_directory_path() /
                                       ("tessera-oom-" + std::to_string(::getpid()) + ".xml");
    std::ofstream(path, std::ios::binary) << text;
    const std::string name = path.string();
    EXPECT_GT(FailEachAllocation([&] { Tessera::Xml::ParseFile(name); }), 10);
    std::filesystem::remove(path);
}
