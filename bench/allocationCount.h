// The heap allocations of the calling thread so far, counted by the program's
// replaced operator new (bench/allocationCount.cpp): a benchmark reads it
// before and after the work of an iteration.
#pragma once

#include <cstddef>

namespace BenchSupport {

std::size_t ThreadAllocations() noexcept;

} // namespace BenchSupport
