// A local pipe's handle as an I/O object of the pool's service, for the
// streams of asio/streamBase.h: the same operations as Asio's sockets and
// handles, over the pipe back end (system/platform/pipe.h). An operation that
// cannot finish at once waits for its wait handle outside the service
// (system/platform/handleWait.h) and continues on the service once that is
// ready. Completions are always posted, never run inside the call that
// started the operation.
#pragma once

#include "system/platform/handleWait.h"
#include "system/platform/pipe.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/socket_base.hpp>
#include <boost/system/error_code.hpp>

#include <cstddef>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

namespace Tessera {
namespace System {

// Arms a wait on a native handle that, once the handle is ready, posts
// `continuation` to `service`: the back end's waiting thread only hands on.
Platform::NativeError PostWhenReady(boost::asio::io_context& service,
                                    Platform::WaitableHandle handle, Platform::Readiness readiness,
                                    std::function<void()> continuation,
                                    std::unique_ptr<Platform::HandleWait>& wait);

class PipeHandle {
public:
    typedef Platform::NativePipe native_handle_type;
    typedef std::function<void(const boost::system::error_code&, std::size_t)> Handler;

    explicit PipeHandle(boost::asio::io_context& service);
    ~PipeHandle();
    PipeHandle(const PipeHandle&) = delete;
    PipeHandle& operator=(const PipeHandle&) = delete;

    // Takes `pipe` over.
    void assign(native_handle_type pipe, boost::system::error_code& ec);
    bool is_open() const;
    native_handle_type native_handle() const;
    // Pending operations complete with operation_aborted.
    void cancel(boost::system::error_code& ec);
    void close(boost::system::error_code& ec);

    // Whether read_some and write_some may be tried without waiting (the
    // pipe is non-blocking where the system can try pipes so).
    bool non_blocking() const;
    void non_blocking(bool mode, boost::system::error_code& ec);
    std::size_t read_some(const boost::asio::mutable_buffer& buffer, boost::system::error_code& ec);
    std::size_t write_some(const boost::asio::const_buffer& buffer, boost::system::error_code& ec);
    void shutdown(boost::asio::socket_base::shutdown_type what, boost::system::error_code& ec);

    void async_read_some(const boost::asio::mutable_buffer& buffer, Handler handler);
    template <class ConstBufferSequence, class H>
    void async_write_some(const ConstBufferSequence& buffers, H&& handler) {
        std::vector<Platform::PipeBuffer> pieces;
        for (auto it = boost::asio::buffer_sequence_begin(buffers);
             it != boost::asio::buffer_sequence_end(buffers); ++it) {
            const boost::asio::const_buffer piece(*it);
            pieces.push_back({static_cast<const char*>(piece.data()), piece.size()});
        }
        StartWrite(std::move(pieces), Handler(std::forward<H>(handler)));
    }

private:
    struct State;
    void StartWrite(std::vector<Platform::PipeBuffer> buffers, Handler handler);

    std::shared_ptr<State> _state; // shared with the waits and continuations in flight
};

} // namespace System
} // namespace Tessera
