// The registry's pattern query: checking a counter pattern and picking the
// names it matches, within a bound on the matcher's time.

#include "perfCounter/query.h"

#include <tessera/exception.h>
#include <tessera/formatter.h>

#include <boost/regex.hpp>

#include <chrono>
#include <cstdint>
#include <stdexcept>

namespace Tessera {
namespace PerfCounter {
namespace {

// True when `pattern` refers back to itself: a back-reference (\1, \g{1},
// \k<name>, (?P=name)) or a recursion or subroutine call ((?R), (?1), (?-1),
// (?&name), (?P>name)). Neither is of use for picking counter names, and with
// them a pattern of a few dozen bytes can keep the matcher busy for seconds
// before its complexity bound gives up, so queries refuse them up front.
bool RefersBack(const std::string& pattern) {
    const std::size_t n = pattern.size();
    auto at = [&](std::size_t i) { return i < n ? pattern[i] : '\0'; };
    auto digit = [](char c) { return c >= '0' && c <= '9'; };
    bool inClass = false;
    for (std::size_t i = 0; i < n; ++i) {
        const char c = pattern[i];
        if (c == '\\') {
            const char e = at(i + 1);
            if (e == 'Q') { // quoted up to \E
                const std::size_t end = pattern.find("\\E", i + 2);
                if (end == std::string::npos) return false;
                i = end + 1;
                continue;
            }
            if (!inClass && ((e >= '1' && e <= '9') || e == 'g' || e == 'k')) return true;
            ++i;
        } else if (inClass) {
            if (c == ']') inClass = false;
        } else if (c == '[') {
            inClass = true;
            if (at(i + 1) == '^') ++i;
            if (at(i + 1) == ']') ++i; // a leading ']' is a member
        } else if (c == '(' && at(i + 1) == '?') {
            const char k = at(i + 2);
            if (k == 'R' || k == '&' || digit(k)) return true;
            if ((k == '+' || k == '-') && digit(at(i + 3))) return true;
            if (k == 'P' && (at(i + 3) == '>' || at(i + 3) == '=')) return true;
        }
    }
    return false;
}

constexpr std::size_t kMaxPatternLength = 128;

// Each name may cost the matcher a few milliseconds before its own bound gives
// up (patterns of many overlapping repeats): over thousands of names that is
// a minute, with the registry locked. A query stops when its matching has
// taken this long, looking at the clock after every few names.
constexpr std::chrono::milliseconds kMatchBudget(200);
constexpr std::size_t kNamesPerClockLook = 8;

} // namespace

void PickByPattern(const std::string& pattern, std::mutex& lock, const CounterMap& counters,
                   Picked& out) {
    // The matcher's effort before it gives up on a name grows with the
    // square of the pattern's size: the cap keeps a hostile query short.
    if (pattern.size() > kMaxPatternLength) {
        throw InvalidArgumentException(MessageFormatter::ASPrint(
            "Counter pattern '%1' too long (over %2 bytes)", pattern, kMaxPatternLength));
    }
    if (RefersBack(pattern)) {
        throw InvalidArgumentException("Counter pattern '" + pattern +
                                       "' refers back to itself (back-references and "
                                       "recursion are not supported)");
    }
    boost::regex expression;
    try {
        expression.assign(pattern, boost::regex::perl);
    } catch (const boost::regex_error& e) {
        throw InvalidArgumentException("Bad counter pattern '" + pattern + "': " + e.what());
    }
    bool overBudget = false;
    try {
        std::lock_guard<std::mutex> hold(lock);
        const auto deadline = std::chrono::steady_clock::now() + kMatchBudget;
        std::size_t matched = 0;
        for (const auto& c : counters) {
            if (boost::regex_match(c.first, expression)) out.emplace_back(c);
            if (++matched % kNamesPerClockLook == 0 &&
                std::chrono::steady_clock::now() > deadline) {
                overBudget = true;
                break;
            }
        }
    } catch (const std::runtime_error& e) {
        // Matching gives up on expressions whose backtracking explodes.
        throw InvalidArgumentException("Counter pattern '" + pattern +
                                       "' too complex: " + e.what());
    }
    if (overBudget) {
        throw InvalidArgumentException(
            MessageFormatter::ASPrint("Counter pattern '%1' too complex: matching took over %2 ms",
                                      pattern, static_cast<std::int64_t>(kMatchBudget.count())));
    }
}

} // namespace PerfCounter
} // namespace Tessera
