// The pipe handle's operations: each direction has a back-end channel, and a
// pending operation keeps its handler until the channel's wait handle is
// ready and the channel finishes it.

#include "asio/pipeHandle.h"

#include "system/platform/nativeError.h"

#include <boost/asio/error.hpp>
#include <boost/asio/post.hpp>

#include <cstdint>
#include <mutex>

namespace Tessera {
namespace System {
namespace {

constexpr Platform::NativePipe kNoPipe = -1;

boost::system::error_code Code(Platform::NativeError error) {
    return boost::system::error_code(error, boost::system::system_category());
}

} // namespace

Platform::NativeError PostWhenReady(boost::asio::io_context& service,
                                    Platform::WaitableHandle handle, Platform::Readiness readiness,
                                    std::function<void()> continuation,
                                    std::unique_ptr<Platform::HandleWait>& wait) {
    return Platform::WaitForHandle(
        handle, readiness,
        [&service, continuation = std::move(continuation)] {
            boost::asio::post(service, continuation);
        },
        wait);
}

// One direction's operation in progress.
struct Direction {
    std::unique_ptr<Platform::PipeChannel> channel; // made at the first operation
    std::unique_ptr<Platform::HandleWait> wait;
    PipeHandle::Handler handler; // set while an operation is pending
    std::vector<Platform::PipeBuffer> buffers; // what a pending write has
    std::uint64_t generation = 0; // tells a stale continuation from the current one
};

struct PipeHandle::State : std::enable_shared_from_this<PipeHandle::State> {
    explicit State(boost::asio::io_context& s) : service(s) {}

    boost::asio::io_context& service;
    std::mutex lock;
    Platform::NativePipe pipe = kNoPipe;
    Direction read;
    Direction write;

    // Runs `handler` on the service, with the outcome of an operation.
    void Post(Handler handler, const boost::system::error_code& ec, std::size_t count) {
        boost::asio::post(service,
                          [handler = std::move(handler), ec, count] { handler(ec, count); });
    }

    // Under the lock: the outcome of a step of `d`'s operation, which either
    // completes it or leaves it waiting. Returns the handler to run (outside
    // the lock) and its arguments, or an empty one.
    Handler Stepped(Direction& d, bool forWrite, Platform::NativeError error, bool pending,
                    std::size_t count, boost::system::error_code& ec, std::size_t& n) {
        if (error == Platform::kSuccess && pending) {
            const std::uint64_t generation = d.generation;
            const std::weak_ptr<State> weak = shared_from_this();
            error = PostWhenReady(
                service, d.channel->GetWaitHandle(), d.channel->GetReadiness(),
                [weak, forWrite, generation] {
                    if (const std::shared_ptr<State> self = weak.lock()) {
                        self->Continue(forWrite, generation);
                    }
                },
                d.wait);
            if (error == Platform::kSuccess) return nullptr;
            d.channel->Cancel();
        }
        ec = error != Platform::kSuccess ? Code(error) : boost::system::error_code();
        // A read of nothing from a live pipe is its end.
        if (!ec && !forWrite && count == 0) ec = boost::asio::error::eof;
        n = ec ? 0 : count;
        Handler handler = std::move(d.handler);
        d.handler = nullptr;
        d.buffers.clear();
        return handler;
    }

    void Continue(bool forWrite, std::uint64_t generation) {
        std::unique_lock<std::mutex> hold(lock);
        Direction& d = forWrite ? write : read;
        if (!d.handler || d.generation != generation) return; // cancelled meanwhile
        d.wait.reset(); // ended: only waits for its callback to return
        bool pending = false;
        std::size_t count = 0;
        const Platform::NativeError error = d.channel->Finish(pending, count);
        boost::system::error_code ec;
        std::size_t n = 0;
        Handler handler = Stepped(d, forWrite, error, pending, count, ec, n);
        hold.unlock();
        if (handler) handler(ec, n);
    }

    // Under the lock: the channel of `d`, made on first use.
    Platform::NativeError Channel(Direction& d, bool forWrite) {
        if (d.channel) return Platform::kSuccess;
        return Platform::OpenPipeChannel(pipe, forWrite, d.channel);
    }

    // Under the lock.
    void Abort(Direction& d) {
        if (!d.handler) return;
        d.wait.reset();
        d.channel->Cancel();
        ++d.generation;
        d.buffers.clear();
        Handler handler = std::move(d.handler);
        d.handler = nullptr;
        Post(std::move(handler), boost::asio::error::operation_aborted, 0);
    }

    template <class StartFn>
    void Start(bool forWrite, Handler handler, StartFn&& start) {
        std::unique_lock<std::mutex> hold(lock);
        Direction& d = forWrite ? write : read;
        if (pipe == kNoPipe) {
            Post(std::move(handler), boost::asio::error::bad_descriptor, 0);
            return;
        }
        Platform::NativeError error = Channel(d, forWrite);
        if (error != Platform::kSuccess) {
            Post(std::move(handler), Code(error), 0);
            return;
        }
        d.handler = std::move(handler);
        ++d.generation;
        bool pending = false;
        std::size_t count = 0;
        error = start(*d.channel, pending, count);
        boost::system::error_code ec;
        std::size_t n = 0;
        Handler done = Stepped(d, forWrite, error, pending, count, ec, n);
        // Never inside the call that started it.
        if (done) Post(std::move(done), ec, n);
    }
};

PipeHandle::PipeHandle(boost::asio::io_context& service)
    : _state(std::make_shared<State>(service)) {}

PipeHandle::~PipeHandle() {
    boost::system::error_code ignored;
    close(ignored);
}

void PipeHandle::assign(native_handle_type pipe, boost::system::error_code& ec) {
    std::lock_guard<std::mutex> hold(_state->lock);
    if (_state->pipe != kNoPipe) {
        ec = boost::asio::error::already_open;
        return;
    }
    _state->pipe = pipe;
    ec.clear();
}

bool PipeHandle::is_open() const {
    std::lock_guard<std::mutex> hold(_state->lock);
    return _state->pipe != kNoPipe;
}

PipeHandle::native_handle_type PipeHandle::native_handle() const {
    std::lock_guard<std::mutex> hold(_state->lock);
    return _state->pipe;
}

void PipeHandle::cancel(boost::system::error_code& ec) {
    std::lock_guard<std::mutex> hold(_state->lock);
    _state->Abort(_state->read);
    _state->Abort(_state->write);
    ec.clear();
}

void PipeHandle::close(boost::system::error_code& ec) {
    std::lock_guard<std::mutex> hold(_state->lock);
    _state->Abort(_state->read);
    _state->Abort(_state->write);
    // The channels end what they have under way before the handle goes.
    _state->read.channel.reset();
    _state->write.channel.reset();
    if (_state->pipe != kNoPipe) Platform::ClosePipe(_state->pipe);
    _state->pipe = kNoPipe;
    ec.clear();
}

bool PipeHandle::non_blocking() const { return Platform::CanTryPipesNow(); }

void PipeHandle::non_blocking(bool mode, boost::system::error_code& ec) {
    if (mode == Platform::CanTryPipesNow()) {
        ec.clear();
    } else {
        ec = boost::asio::error::operation_not_supported;
    }
}

std::size_t PipeHandle::read_some(const boost::asio::mutable_buffer& buffer,
                                  boost::system::error_code& ec) {
    std::size_t count = 0;
    bool wouldBlock = false;
    const Platform::NativeError error = Platform::ReadPipeNow(
        native_handle(), static_cast<char*>(buffer.data()), buffer.size(), count, wouldBlock);
    if (error != Platform::kSuccess) {
        ec = Code(error);
    } else if (wouldBlock) {
        ec = boost::asio::error::would_block;
    } else if (count == 0 && buffer.size() > 0) {
        ec = boost::asio::error::eof;
    } else {
        ec.clear();
    }
    return ec ? 0 : count;
}

std::size_t PipeHandle::write_some(const boost::asio::const_buffer& buffer,
                                   boost::system::error_code& ec) {
    std::size_t count = 0;
    bool wouldBlock = false;
    const Platform::NativeError error = Platform::WritePipeNow(
        native_handle(), static_cast<const char*>(buffer.data()), buffer.size(), count, wouldBlock);
    if (error != Platform::kSuccess) {
        ec = Code(error);
    } else if (wouldBlock) {
        ec = boost::asio::error::would_block;
    } else {
        ec.clear();
    }
    return ec ? 0 : count;
}

void PipeHandle::shutdown(boost::asio::socket_base::shutdown_type, boost::system::error_code& ec) {
    const Platform::NativeError error = Platform::ShutdownPipeWrite(native_handle());
    if (error == Platform::kSuccess) {
        ec.clear();
    } else if (Platform::ClassifyNativeError(error) == Platform::ErrorKind::NotSupported) {
        ec = boost::asio::error::operation_not_supported;
    } else {
        ec = Code(error);
    }
}

void PipeHandle::async_read_some(const boost::asio::mutable_buffer& buffer, Handler handler) {
    char* const data = static_cast<char*>(buffer.data());
    const std::size_t size = buffer.size();
    if (size == 0) { // nothing to wait for, and not the end of the stream
        std::lock_guard<std::mutex> hold(_state->lock);
        _state->Post(std::move(handler),
                     _state->pipe == kNoPipe ? boost::asio::error::bad_descriptor
                                             : boost::system::error_code(),
                     0);
        return;
    }
    _state->Start(false, std::move(handler),
                  [data, size](Platform::PipeChannel& channel, bool& pending, std::size_t& count) {
                      return channel.StartRead(data, size, pending, count);
                  });
}

void PipeHandle::StartWrite(std::vector<Platform::PipeBuffer> buffers, Handler handler) {
    State& state = *_state;
    _state->Start(
        true, std::move(handler),
        [&state, &buffers](Platform::PipeChannel& channel, bool& pending, std::size_t& count) {
            // Kept with the operation: the channel finishes it later.
            state.write.buffers = std::move(buffers);
            return channel.StartWrite(state.write.buffers.data(), state.write.buffers.size(),
                                      pending, count);
        });
}

} // namespace System
} // namespace Tessera
