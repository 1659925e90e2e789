// Waiting for a readable file descriptor on an I/O service. Generic POSIX
// code only.

#include "system/platform/poll.h"

#include <boost/asio/posix/stream_descriptor.hpp>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace Tessera {
namespace System {
namespace Platform {
namespace {

class DescriptorWait final : public PollWait {
public:
    DescriptorWait(boost::asio::io_context& context, int fd) : _descriptor(context, fd) {}

    void AsyncWait(const boost::function<void(bool)>& done) override {
        _descriptor.async_wait(boost::asio::posix::stream_descriptor::wait_read,
                               [done](const boost::system::error_code& ec) { done(!ec); });
    }
    void Cancel() override {
        boost::system::error_code ignored;
        _descriptor.cancel(ignored);
    }

private:
    boost::asio::posix::stream_descriptor _descriptor;  // owns the duplicate
};

}  // namespace

int CreatePollWait(boost::asio::io_context& context, std::intptr_t handle,
                   std::unique_ptr<PollWait>& out) {
    const int fd = fcntl(static_cast<int>(handle), F_DUPFD_CLOEXEC, 0);
    if (fd < 0) return errno;
    try {
        out.reset(new DescriptorWait(context, fd));
    } catch (const boost::system::system_error& e) {
        ::close(fd);
        return e.code().value();
    }
    return 0;
}

}  // namespace Platform
}  // namespace System
}  // namespace Tessera
