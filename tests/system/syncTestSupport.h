// Helpers shared by the tests of locks and conditions.
#pragma once

#include <tessera/system/syncRaii.h>
#include <tessera/system/system.h>

#include <gtest/gtest.h>

#include <string>
#include <thread>

namespace SyncTest {

using namespace Tessera;
using namespace Tessera::System;

inline Ref<Mutex> NewMutex() {
    Ref<Mutex> mutex;
    GetSystemFactory()->CreateSimpleMutex(mutex);
    return mutex;
}
inline Ref<RWLock> NewRWLock(RWLockableObject::LockMode mode = RWLockableObject::WriterPreferring) {
    Ref<RWLock> lock;
    GetSystemFactory()->CreateRWLock(mode, lock);
    return lock;
}
inline Ref<Condition> NewCondition() {
    Ref<Condition> condition;
    GetSystemFactory()->CreateCondition(condition);
    return condition;
}

// Takes the lock over and over until `done` holds under it.
template <class Predicate>
void UntilLocked(LockableObject* lockable, Predicate done) {
    for (;;) {
        {
            Synchronized hold(lockable);
            if (done()) return;
        }
        std::this_thread::yield();
    }
}

// The report of a failed assertion of `condition` (matched literally) in
// `source`, as a death test expects it.
inline std::string AssertionReport(const std::string& condition, const std::string& source) {
    std::string escaped;
    for (char c : condition) {
        if (std::string("\\^$.|?*+()[]{}").find(c) != std::string::npos) escaped += '\\';
        escaped += c;
    }
    // gtest's own expressions (where the system has none) know \d but no
    // brackets; POSIX ones know brackets but no \d.
#if GTEST_USES_POSIX_RE
    const char* line = "[0-9]+";
#else
    const char* line = "\\d+";
#endif
    return "PANIC: Assertion \"" + escaped + "\" failed at " + source + ":" + line;
}

} // namespace SyncTest
