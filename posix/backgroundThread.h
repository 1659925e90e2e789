// A detached thread of a back end's own, which takes no signals (they are the
// process's to handle). Generic POSIX code only.
#pragma once

#include "system/platform/nativeError.h"

namespace Tessera {
namespace System {
namespace Platform {

NativeError StartBackgroundThread(void* (*main)(void*), void* argument) noexcept;

} // namespace Platform
} // namespace System
} // namespace Tessera
