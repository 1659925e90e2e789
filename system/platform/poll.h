// Waiting for a waitable handle on an I/O service, implemented in
// posix/poll.cpp (a readable file descriptor) and win32/poll.cpp (a signalled
// HANDLE).
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/function.hpp>

#include <cstdint>
#include <memory>

namespace Tessera {
namespace System {
namespace Platform {

class PollWait {
public:
    virtual ~PollWait() = default;
    // Calls `done` once, on a thread running the service: true when the
    // handle became ready, false when the wait was cancelled or failed.
    virtual void AsyncWait(const boost::function<void(bool ready)>& done) = 0;
    virtual void Cancel() = 0;
};

// A wait on a duplicate of `handle`, which the caller may close at any time
// after this returns. Returns a native error code, 0 on success.
int CreatePollWait(boost::asio::io_context& context, std::intptr_t handle,
                   std::unique_ptr<PollWait>& out);

}  // namespace Platform
}  // namespace System
}  // namespace Tessera
