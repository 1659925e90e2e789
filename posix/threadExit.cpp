// POSIX: thread-exit keys are pthread keys with a destructor.

#include "system/platform/threadExit.h"

#include <pthread.h>

namespace Tessera {
namespace System {
namespace Platform {

NativeError CreateThreadExitKey(ThreadExitCleanup cleanup, ThreadExitKey& key) noexcept {
    pthread_key_t native;
    const int error = ::pthread_key_create(&native, cleanup);
    if (error != 0) return error;
    key = static_cast<ThreadExitKey>(native);
    return kSuccess;
}

void* GetThreadExitValue(ThreadExitKey key) noexcept {
    return ::pthread_getspecific(static_cast<pthread_key_t>(key));
}

NativeError SetThreadExitValue(ThreadExitKey key, void* value) noexcept {
    return ::pthread_setspecific(static_cast<pthread_key_t>(key), value);
}

} // namespace Platform
} // namespace System
} // namespace Tessera
