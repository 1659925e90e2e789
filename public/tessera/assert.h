// The assertion path: invariants that must never break, checked in every build.
//
// TESSERA_ASSERT(cond) reports
//     PANIC: Assertion "cond" failed at main/object:157
// on standard error (the condition as written, the source by its path in the
// tree without extension, and the line), follows it with a backtrace of the
// failing thread and ends the process. It is not a debugging aid that release
// builds drop: a broken invariant in a service that runs for months must stop
// the service, not corrupt it quietly.
#pragma once

#include <tessera/api.h>

namespace Tessera {

// Reports a failed assertion and ends the process. `file` is __FILE__ as the
// compiler spells it; the report shortens it to the path in the source tree.
[[noreturn]] TESSERA_EXPORT void AssertFailed(const char* condition, const char* file,
                                              int line) noexcept;

// Reports `message` as a fatal error with a backtrace and ends the process.
[[noreturn]] TESSERA_EXPORT void PanicExit(const char* message) noexcept;

}  // namespace Tessera

#define TESSERA_ASSERT(cond) \
    ((cond) ? static_cast<void>(0) : ::Tessera::AssertFailed(#cond, __FILE__, __LINE__))

// Checks `cond` but reports `report` as the failed condition: for invariants
// whose report text is fixed (tools and people search logs for it) while the
// code that checks it is free to read naturally.
#define TESSERA_ASSERT_REPORT(cond, report)                                                        \
    ((cond) ? static_cast<void>(0) : ::Tessera::AssertFailed(report, __FILE__, __LINE__))
