// The listener that accepts connections for the servers of the streams
// (asio/streamBase.h), TCP and local pipes alike.
#pragma once

#include <tessera/assert.h>
#include <tessera/exception.h>

#include "asio/ThreadPoolAsio.h"
#include "asio/streamBase.h"
#include "system/platform/socket.h"

#include <boost/asio/post.hpp>
#include <boost/function.hpp>

#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace Tessera {
namespace System {

// Accepts connections of a listening socket onto the pool, so that no
// accepted socket is ever inheritable: where the system can take a connection
// and set that in one call (POSIX), the listener takes it natively, waiting
// until the socket is readable when none is there yet; where the back end
// says it cannot (Windows), it accepts through Asio and clears the flag at
// once.
template <class Acceptor, class StreamImpl>
class AsioListener {
public:
    // Makes the stream an accepted connection goes into.
    typedef boost::function<Ref<StreamImpl>()> Maker;
    // Completes an accepted stream (its peer's name, say).
    typedef boost::function<void(StreamImpl&)> Finisher;

    AsioListener(ThreadPoolAsio* pool, std::string name)
        : _pool(pool), _acceptor(pool->GetIoService()), _name(std::move(name)) {}

    Acceptor& GetAcceptor() noexcept { return _acceptor; }
    std::mutex& GetLock() noexcept { return _lock; }
    const std::string& GetName() const noexcept { return _name; }
    void SetName(std::string name) { _name = std::move(name); }

    // handler(StreamImpl* stream, Exception* error), on an I/O thread.
    template <class H>
    void StartAccept(const Maker& make, const Finisher& finish, H&& handler) {
        std::unique_lock<std::mutex> hold(_lock);
        if (!_open || !_acceptor.is_open()) {
            std::shared_ptr<Exception> error(
                new InvalidStateException("The listener at " + _name + " is closed"));
            hold.unlock();
            boost::asio::post(_pool->GetIoService(),
                              [h = std::forward<H>(handler), error]() mutable {
                                  h(static_cast<StreamImpl*>(nullptr), error.get());
                              });
            return;
        }
        TESSERA_ASSERT(!_acceptPending);
        _acceptPending = true;
        TakeLocked(hold, make, finish, typename std::decay<H>::type(std::forward<H>(handler)),
                   true);
    }

    void Close() {
        std::lock_guard<std::mutex> hold(_lock);
        _open = false;
        boost::system::error_code ignored;
        _acceptor.close(ignored);
    }

private:
    // Under the lock: takes a waiting connection natively, or waits for one
    // when none is there yet; where the system takes connections through the
    // service instead, accepts there. `inStart`: called by StartAccept, whose
    // caller must not see the handler run inside the call.
    template <class H>
    void TakeLocked(std::unique_lock<std::mutex>& hold, const Maker& make, const Finisher& finish,
                    H&& h, bool inStart) {
        Platform::NativeSocket native = 0;
        bool wouldBlock = false;
        const Platform::NativeError failed = Platform::AcceptStreamSocket(
            static_cast<Platform::NativeSocket>(_acceptor.native_handle()), native, wouldBlock);
        if (wouldBlock) {
            WaitLocked(make, finish, std::move(h));
            return;
        }
        if (failed != Platform::kSuccess &&
            Platform::ClassifyNativeError(failed) == Platform::ErrorKind::NotSupported) {
            AcceptThroughServiceLocked(make, finish, std::move(h));
            return;
        }
        boost::system::error_code ec(failed, boost::system::system_category());
        Ref<StreamImpl> stream;
        if (!failed) {
            stream = make();
            boost::system::error_code local;
            const auto protocol = _acceptor.local_endpoint(local).protocol();
            stream->GetSocket().assign(
                protocol, static_cast<typename StreamImpl::SocketType::native_handle_type>(native),
                ec);
            if (ec) {
                Platform::CloseNativeSocket(native);
                stream = nullptr;
            }
        }
        std::shared_ptr<Exception> error;
        if (ec) error = StreamError(ec, "accept on", _name);
        _acceptPending = false;
        hold.unlock();
        if (stream) finish(*stream);
        if (!inStart) {
            h(stream.Get(), error.get());
            return;
        }
        boost::asio::post(_pool->GetIoService(), [h = std::move(h), stream, error]() mutable {
            h(stream.Get(), error.get());
        });
    }

    template <class H>
    void WaitLocked(const Maker& make, const Finisher& finish, H&& handler) {
        _acceptor.async_wait(Acceptor::wait_read, [this, make, finish, h = std::move(handler)](
                                                      const boost::system::error_code& ec) mutable {
            std::unique_lock<std::mutex> hold(_lock);
            std::unique_ptr<Exception> error;
            if (!_open) {
                error.reset(new InvalidStateException("The listener at " + _name + " is closed"));
            } else if (ec) {
                error = StreamError(ec, "accept on", _name);
            } else {
                TakeLocked(hold, make, finish, std::move(h), false);
                return;
            }
            _acceptPending = false;
            hold.unlock();
            h(static_cast<StreamImpl*>(nullptr), error.get());
        });
    }

    template <class H>
    void AcceptThroughServiceLocked(const Maker& make, const Finisher& finish, H&& handler) {
        Ref<StreamImpl> stream = make();
        _acceptor.async_accept(
            stream->GetSocket(), [this, stream, finish, h = std::move(handler)](
                                     const boost::system::error_code& ec) mutable {
                std::unique_lock<std::mutex> again(_lock);
                std::unique_ptr<Exception> error;
                if (!_open) {
                    error.reset(
                        new InvalidStateException("The listener at " + _name + " is closed"));
                } else if (ec) {
                    error = StreamError(ec, "accept on", _name);
                } else {
                    Platform::MakeNonInheritable(
                        static_cast<Platform::NativeSocket>(stream->GetSocket().native_handle()));
                }
                _acceptPending = false;
                again.unlock();
                if (!error) finish(*stream);
                h(error ? nullptr : stream.Get(), error.get());
            });
    }

    Ref<ThreadPoolAsio> _pool;
    mutable std::mutex _lock;
    Acceptor _acceptor;
    std::string _name;
    bool _open = true;
    bool _acceptPending = false;
};

} // namespace System
} // namespace Tessera
