// Seams for the thread pool's tests. Exported only from builds that keep test
// hooks (every build type but Release); not for use outside the tests.
#pragma once

#include <tessera/api.h>

#include <cstdint>

#ifdef TESSERA_TEST_HOOKS
#define TESSERA_TEST_HOOK TESSERA_EXPORT
#else
#define TESSERA_TEST_HOOK
#endif

namespace Tessera {
namespace System {
namespace Testing {

// The period of the pool's idle tick, 10 s unless set; 0 restores it.
TESSERA_TEST_HOOK void SetPoolIdleTickUsec(std::int64_t usec);

} // namespace Testing
} // namespace System
} // namespace Tessera
