// The program's allocation functions, counting each thread's allocations in a
// plain per-thread count (no destructor, no lock). Kept apart from the
// benchmarks so that no compiler sees malloc behind a new it inlines.

#include "bench/allocationCount.h"

#include <cstdlib>
#include <new>

namespace {
thread_local std::size_t tAllocations = 0;
} // namespace

namespace BenchSupport {
std::size_t ThreadAllocations() noexcept { return tAllocations; }
} // namespace BenchSupport

void* operator new(std::size_t size) {
    ++tAllocations;
    if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return ::operator new(size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
