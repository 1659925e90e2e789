// The registry's pattern query (perfCounter/QueryImpl.cpp): which published
// counters a pattern picks.
#pragma once

#include <tessera/perfCounter/registry.h>

#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace Tessera {
namespace PerfCounter {

using CounterMap = std::map<std::string, Ref<Accumulator>>;
using Picked = std::vector<std::pair<std::string, Ref<Accumulator>>>;

// Appends to `out`, in name order, the counters of `counters` whose whole name
// matches `pattern`, a Perl regular expression; `lock` guards `counters` and
// is held only while the names are matched. Throws InvalidArgumentException
// for a pattern over 128 bytes, one that refers back to itself, one that does
// not compile, and one whose matching gives up or runs over its time budget
// (`out` may then hold some of the counters).
void PickByPattern(const std::string& pattern, std::mutex& lock, const CounterMap& counters,
                   Picked& out);

} // namespace PerfCounter
} // namespace Tessera
