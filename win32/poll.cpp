// Waiting for a signalled HANDLE on an I/O service. Windows code only.

#include "system/platform/poll.h"

#include <boost/asio/windows/object_handle.hpp>

#include <windows.h>

namespace Tessera {
namespace System {
namespace Platform {
namespace {

class HandleWait final : public PollWait {
public:
    HandleWait(boost::asio::io_context& context, HANDLE handle) : _handle(context, handle) {}

    void AsyncWait(const boost::function<void(bool)>& done) override {
        _handle.async_wait([done](const boost::system::error_code& ec) { done(!ec); });
    }
    void Cancel() override {
        boost::system::error_code ignored;
        _handle.cancel(ignored);
    }

private:
    boost::asio::windows::object_handle _handle;  // owns the duplicate
};

}  // namespace

int CreatePollWait(boost::asio::io_context& context, std::intptr_t handle,
                   std::unique_ptr<PollWait>& out) {
    HANDLE duplicate = nullptr;
    if (!DuplicateHandle(GetCurrentProcess(), reinterpret_cast<HANDLE>(handle), GetCurrentProcess(),
                         &duplicate, 0, FALSE, DUPLICATE_SAME_ACCESS)) {
        return static_cast<int>(GetLastError());
    }
    try {
        out.reset(new HandleWait(context, duplicate));
    } catch (const boost::system::system_error& e) {
        CloseHandle(duplicate);
        return e.code().value();
    }
    return 0;
}

}  // namespace Platform
}  // namespace System
}  // namespace Tessera
