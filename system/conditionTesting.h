// A seam for the tests of timed waits: runs a function of the test's on the
// waiting thread after its wait timed out and before it looks at its event
// again, which is where a late Signal must still be counted. Not for use
// outside the tests.
#pragma once

#include <tessera/api.h>

namespace Tessera {
namespace System {
namespace Testing {

// Sets the calling thread's hook; null removes it.
TESSERA_EXPORT void SetTimedOutHook(void (*hook)(void* context), void* context);

} // namespace Testing
} // namespace System
} // namespace Tessera
