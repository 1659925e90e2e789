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
    // file, name look-up) with Asio's text.
    if (ec.category() == boost::system::system_category()) {
        try {
            ThrowSystemError(ec.value(), "Failed to " + operation + " " + peer);
        } catch (const Exception& e) {
            return std::unique_ptr<Exception>(e.Clone());
        }
    }
    const std::string message = "Failed to " + operation + " " + peer + ": " + ec.message();
    return std::unique_ptr<Exception>(new SystemException(ec.value(), message));
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
