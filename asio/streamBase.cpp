// What the streams share: their failures and their pool.

#include "asio/streamBase.h"

#include "system/platform/nativeError.h"

#include <tessera/system/threadPool.h>

namespace Tessera {
namespace System {

std::unique_ptr<Exception> StreamError(const boost::system::error_code& ec,
                                       const std::string& operation, const std::string& peer) {
    // The one place where the streams turn native errors into exceptions:
    // the system's codes through the library's mapper, Asio's own (end of
    // file, name look-up) with Asio's text; an end of file is routine.
    const std::string what = "Failed to " + operation + " " + peer;
    if (ec.category() == boost::system::system_category()) return SystemError(ec.value(), what);
    const std::string message = what + ": " + ec.message();
    if (ec == boost::asio::error::eof) {
        return std::make_unique<SystemException>(ec.value(), message, kWithoutBacktrace);
    }
    return std::make_unique<SystemException>(ec.value(), message);
}

ThreadPoolAsio* StreamPool(ThreadPool* pool) {
    auto* own = dynamic_cast<ThreadPoolAsio*>(pool);
    if (own == nullptr) {
        throw InvalidArgumentException("Streams need a thread pool made by the system factory");
    }
    return own;
}

} // namespace System
} // namespace Tessera
