// What the files of the thread pool (asio/ThreadPoolAsio.cpp and asio/pool*.cpp)
// share beyond the class itself.
#pragma once

#include "asio/ThreadPoolAsio.h"

namespace Tessera {
namespace System {

// The calling thread's record: set by a pool thread for its life and by
// Enlist; null on any other thread. A plain pointer, without a destructor.
extern thread_local TlsInfo* tTlsInfo;

} // namespace System
} // namespace Tessera
