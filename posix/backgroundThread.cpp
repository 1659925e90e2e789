// Detached threads of the back ends. Generic POSIX code only.

#include "posix/backgroundThread.h"

#include <pthread.h>
#include <signal.h>

namespace Tessera {
namespace System {
namespace Platform {

NativeError StartBackgroundThread(void* (*main)(void*), void* argument) noexcept {
    // The new thread inherits the mask in force when it is made.
    sigset_t all;
    sigset_t old;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &old);
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_t thread;
    const int error = pthread_create(&thread, &attr, main, argument);
    pthread_attr_destroy(&attr);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    return error;
}

} // namespace Platform
} // namespace System
} // namespace Tessera
