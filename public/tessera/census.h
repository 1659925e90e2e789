// Process-wide diagnostics of live objects.
//
// The scoreboard counts live objects per dynamic type. It is created by the
// first reference taken in the process and updated only when an object's count
// goes from 0 to 1 or from 1 to 0: lock-free, allocation-free, keyed by the
// address of the type's name string. Its text form is what
// ObjectImpl::GetScores appends:
//
//     (17,0) => N7Tessera6System13BacktraceImplE - 3
//     Total count: 3
//     Bucket counts:
//       0 - 3
//       ...
//     Other objects: 0
//
// The ref tracker, created once on request, remembers for the objects of chosen
// types the stack that took their first reference, and dumps the live ones
// grouped by identical stack. Type names are matched exactly as
// std::type_info::name() spells them on the platform (mangled with g++ and
// clang, "class Ns::Name" with MSVC).
#pragma once

#include <tessera/api.h>

#include <boost/unordered_set.hpp>

#include <cstdint>
#include <string>

namespace Tessera {

class ObjectImpl;

// Where a structured dump goes: groups of named string and integer fields.
class TESSERA_EXPORT StatsSerializer {
public:
    virtual void BeginGroup(const std::string& name) = 0;
    virtual void WriteString(const std::string& name, const std::string& value) = 0;
    virtual void WriteInt(const std::string& name, std::int64_t value) = 0;
    virtual void End() = 0;

protected:
    ~StatsSerializer() = default;
};

class TESSERA_EXPORT Scoreboard {
public:
    // Group "ObjectTypes"; per used slot the fields "Class" (the name with
    // every "class " removed) and "Count" and an End; then "TotalCount",
    // "OtherCount" and a last End.
    virtual void Dump(StatsSerializer& out) const = 0;
    virtual void Increment(const char* typeName) = 0;
    virtual void Decrement(const char* typeName) = 0;
    virtual void Dump(std::string& out) const = 0;
    virtual ~Scoreboard() = default;
};

class TESSERA_EXPORT RefTracker {
public:
    virtual void Register(const ObjectImpl* obj, const char* typeName) = 0;
    virtual void Unregister(const ObjectImpl* obj) = 0;
    virtual void Dump(std::string& out) const = 0;
    virtual ~RefTracker() = default;
};

// Creates the process-wide tracker for the given type names. A process has at
// most one: a second call stops the process ("sRefTracker==0").
TESSERA_EXPORT RefTracker* CreateRefTracker(const boost::unordered_set<std::string>& classNames);
// The tracker, or null when none was created.
TESSERA_EXPORT RefTracker* GetRefTracker();
// The scoreboard, or null before the first reference of the process.
TESSERA_EXPORT Scoreboard* GetScoreboard();

}  // namespace Tessera
