// Streams over Asio I/O objects: the one implementation of System::Stream
// that TCP sockets, Unix domain sockets and Windows pipes share
// (asio/listener.h accepts their connections).
//
// Every call into an I/O object is made under the stream's lock (so Close and
// time-outs may come from any thread); completions run without it. A user's
// callback runs through the pool's Run, like any other handler.
#pragma once

#include <tessera/assert.h>
#include <tessera/exception.h>
#include <tessera/system/stream.h>

#include "asio/ThreadPoolAsio.h"
#include "asio/syncWait.h"
#include "system/platform/nativeError.h"
#include "system/platform/socket.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/socket_base.hpp>
#include <boost/asio/steady_timer.hpp>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace Tessera {
namespace System {

// The exception for a failed operation: `operation` ("read from", "connect
// to") and the peer go into the message before the system's text.
std::unique_ptr<Exception> StreamError(const boost::system::error_code& ec,
                                       const std::string& operation, const std::string& peer);

// `pool` as the streams need it: one of the library's own, else
// InvalidArgumentException.
ThreadPoolAsio* StreamPool(ThreadPool* pool);

namespace Detail {
// shutdown(send) where the I/O object has it; not supported elsewhere.
template <class S>
auto ShutdownSend(S& s, boost::system::error_code& ec, int)
    -> decltype(s.shutdown(boost::asio::socket_base::shutdown_send, ec), void()) {
    s.shutdown(boost::asio::socket_base::shutdown_send, ec);
}
template <class S>
void ShutdownSend(S&, boost::system::error_code& ec, long) {
    ec = boost::asio::error::operation_not_supported;
}

// Sockets can be made non-blocking and tried at once; Windows pipe handles
// cannot, and all their operations go through the I/O service.
template <class S, class = void>
struct CanTryNow : std::false_type {};
template <class S>
struct CanTryNow<S, decltype(std::declval<S&>().non_blocking(
                                 true, std::declval<boost::system::error_code&>()),
                             void())> : std::true_type {};

inline bool WouldBlock(const boost::system::error_code& ec) {
    return ec == boost::asio::error::would_block || ec == boost::asio::error::try_again;
}

// Whether `ec` on a read means that the peer ended the stream: Asio's end of
// file, or a system error of that kind (a broken Windows pipe).
inline bool IsEndOfStream(const boost::system::error_code& ec) {
    return ec == boost::asio::error::eof ||
           (ec.category() == boost::system::system_category() &&
            Platform::ClassifyNativeError(ec.value()) == Platform::ErrorKind::EndOfStream);
}

// A completion handler that continues the work of the handler that started
// its operation. Started on an I/O thread, inside a handler, an operation that
// completes at once (a speculative read or write) is then run by the same
// thread once the current handler returns, as composed operations are, instead
// of waking another thread for it. Started anywhere else it changes nothing.
template <class H>
struct Continuation {
    H handler;
    template <class... A>
    void operator()(A&&... args) {
        handler(std::forward<A>(args)...);
    }
    friend bool asio_handler_is_continuation(Continuation*) { return true; }
};
template <class H>
Continuation<typename std::decay<H>::type> AsContinuation(H&& handler) {
    return {std::forward<H>(handler)};
}

// A run of Asio buffers inside an array, as Asio takes a buffer sequence.
struct BufferRange {
    typedef boost::asio::const_buffer value_type;
    typedef const boost::asio::const_buffer* const_iterator;
    const_iterator first;
    const_iterator last;
    const_iterator begin() const noexcept { return first; }
    const_iterator end() const noexcept { return last; }
};

} // namespace Detail

template <class Socket, class Interface>
class AsioStream : public ObjectImpl, public Interface {
public:
    typedef Stream::ReadCallback ReadCallback;
    typedef Stream::WriteCallback WriteCallback;
    typedef Socket SocketType;

    AsioStream(ThreadPoolAsio* pool, std::string peer)
        : _pool(pool),
          _socket(pool->GetIoService()),
          _readTimer(pool->GetIoService()),
          _writeTimer(pool->GetIoService()),
          _peer(std::move(peer)) {}
    ~AsioStream() override {
        boost::system::error_code ignored;
        _socket.close(ignored);
    }

    Socket& GetSocket() noexcept { return _socket; } // under the lock, or before sharing
    void SetPeer(std::string peer) {
        std::lock_guard<std::mutex> hold(_lock);
        _peer = std::move(peer);
    }

    // Stream:
    std::size_t Read(char* buffer, std::size_t maxLength) override {
        if constexpr (Detail::CanTryNow<Socket>::value) {
            std::size_t count = 0;
            if (ReadNow(buffer, maxLength, count)) return count;
        }
        SyncWait wait;
        StartRead(buffer, maxLength, [&wait](std::size_t n, Exception* e) { wait.Done(n, e); });
        return wait.Result();
    }
    void Write(const char* data, std::size_t length) override {
        std::size_t written = 0;
        if constexpr (Detail::CanTryNow<Socket>::value) {
            if (WriteNow(data, length, written)) return;
        }
        SyncWait wait;
        const ConstBuffer rest{data + written, length - written};
        StartWrite(&rest, 1, [&wait](std::size_t n, Exception* e) { wait.Done(n, e); });
        wait.Result();
    }
    // Every path of StartRead and StartWrite holds a reference to the stream
    // until the handler has returned, so the callbacks need none of their own.
    void AsyncRead(char* buffer, std::size_t maxLength, const ReadCallback& done) override {
        StartRead(buffer, maxLength, [this, done](std::size_t n, Exception* e) {
            _pool->Run(ThreadPool::WORK_IO, [&] { done(this, n, e); });
        });
    }
    void AsyncWrite(const char* data, std::size_t length, const WriteCallback& done) override {
        const ConstBuffer one{data, length};
        AsyncWriteBuffers(&one, 1, done);
    }
    void AsyncWriteBuffers(const ConstBuffer* buffers, std::size_t count,
                           const WriteCallback& done) override {
        StartWrite(buffers, count, [this, done](std::size_t, Exception* e) {
            _pool->Run(ThreadPool::WORK_IO, [&] { done(this, e); });
        });
    }
    void SetTimeouts(std::int64_t readTimeoutUsec, std::int64_t writeTimeoutUsec) override {
        std::lock_guard<std::mutex> hold(_lock);
        _readTimeout = readTimeoutUsec;
        _writeTimeout = writeTimeoutUsec;
    }
    void ShutdownWrite() override {
        std::lock_guard<std::mutex> hold(_lock);
        if (!_open) throw InvalidStateException("The stream to " + _peer + " is closed");
        boost::system::error_code ec;
        Detail::ShutdownSend(_socket, ec, 0);
        if (ec == boost::asio::error::operation_not_supported) {
            throw NotSupportedException("A pipe stream cannot be half closed");
        }
        if (ec) StreamError(ec, "shut down sending to", _peer)->Throw();
    }
    void Close() override {
        std::lock_guard<std::mutex> hold(_lock);
        CloseLocked();
    }
    bool IsOpen() const override {
        std::lock_guard<std::mutex> hold(_lock);
        return _open && _socket.is_open();
    }
    std::string GetPeerName() const override {
        std::lock_guard<std::mutex> hold(_lock);
        return _peer;
    }

protected:
    void CloseLocked() {
        if (!_open) return;
        _open = false;
        boost::system::error_code ignored;
        _readTimer.cancel();
        _writeTimer.cancel();
        // Pending operations end first (some systems do not end them at the
        // close alone), then the handle goes. Threads waiting in WaitHere
        // return at the shutdown, and the last of them closes the handle: it
        // must not be closed, and its number reused, under their wait.
        _socket.cancel(ignored);
        if constexpr (Detail::CanTryNow<Socket>::value) {
            if (_waitingHere > 0) {
                Platform::WakeSocketWaiters(
                    static_cast<Platform::NativeSocket>(_socket.native_handle()));
                return;
            }
        }
        _socket.close(ignored);
    }

    // The synchronous forms run in the calling thread: the operation is
    // tried at once, and where the platform can wait in the calling thread,
    // the wait for readiness is made here too, with no hand-off to the pool.
    // False when the rest has to go through the I/O service.
    bool ReadNow(char* buffer, std::size_t maxLength, std::size_t& count) {
        std::unique_lock<std::mutex> hold(_lock);
        if (!_open) ClosedError()->Throw();
        TESSERA_ASSERT(!_readPending);
        if (_readEnded) {
            count = 0;
            return true;
        }
        if (!MakeNonBlockingLocked()) return false;
        const Deadline deadline(_readTimeout);
        // A reader that had to wait last time (a response to a request, say)
        // most likely waits again: it waits first and spares the failing try.
        if (_readWaitedLast && !WaitHere(hold, false, deadline)) return false;
        for (bool first = true;; first = false) {
            boost::system::error_code ec;
            count = _socket.read_some(boost::asio::buffer(buffer, maxLength), ec);
            if (first) _readWaitedLast = Detail::WouldBlock(ec);
            if (!ec) return true;
            if (Detail::IsEndOfStream(ec)) {
                _readEnded = true;
                count = 0;
                return true;
            }
            if (!Detail::WouldBlock(ec)) ErrorLocked(ec, false, 0, "read from")->Throw();
            if (!WaitHere(hold, false, deadline)) return false;
        }
    }

    bool WriteNow(const char* data, std::size_t length, std::size_t& written) {
        std::unique_lock<std::mutex> hold(_lock);
        if (!_open) ClosedError()->Throw();
        TESSERA_ASSERT(!_writePending);
        if (!MakeNonBlockingLocked()) return false;
        const Deadline deadline(_writeTimeout);
        while (written < length) {
            boost::system::error_code ec;
            written +=
                _socket.write_some(boost::asio::buffer(data + written, length - written), ec);
            if (!ec) continue;
            if (!Detail::WouldBlock(ec)) ErrorLocked(ec, false, 0, "write to")->Throw();
            if (!WaitHere(hold, true, deadline)) return false;
        }
        return true;
    }

    bool MakeNonBlockingLocked() {
        if (_socket.non_blocking()) return true;
        boost::system::error_code ec;
        _socket.non_blocking(true, ec);
        return !ec;
    }

    // Waits, without the lock, until the socket is ready or the deadline
    // passes. Throws when the stream was closed meanwhile, and at the
    // deadline, which closes the stream as an operation's timer does. False
    // where the platform does not wait in the calling thread.
    bool WaitHere(std::unique_lock<std::mutex>& hold, bool forWrite, const Deadline& deadline) {
        const char* operation = forWrite ? "write to" : "read from";
        const std::int64_t left = deadline.Left();
        if (left == 0) {
            CloseLocked();
            ErrorLocked({}, true, forWrite ? _writeTimeout : _readTimeout, operation)->Throw();
        }
        bool& pending = forWrite ? _writePending : _readPending;
        pending = true;
        ++_waitingHere;
        const auto native = static_cast<Platform::NativeSocket>(_socket.native_handle());
        hold.unlock();
        bool ready = false;
        const int failed = Platform::WaitForSocket(native, forWrite, left, ready);
        hold.lock();
        pending = false;
        if (--_waitingHere == 0 && !_open) {
            boost::system::error_code ignored;
            _socket.close(ignored);
        }
        if (!_open) ClosedError()->Throw();
        if (failed != Platform::kSuccess) {
            if (Platform::ClassifyNativeError(failed) == Platform::ErrorKind::NotSupported) {
                return false;
            }
            StreamError(boost::system::error_code(failed, boost::system::system_category()),
                        operation, _peer)
                ->Throw();
        }
        return true;
    }

    // Runs handler(0, exception) on an I/O thread.
    template <class H>
    void PostFailure(H&& handler, std::unique_ptr<Exception> error) {
        std::shared_ptr<Exception> shared(std::move(error));
        boost::asio::post(_pool->GetIoService(),
                          [self = Ref<AsioStream>(this), h = std::forward<H>(handler),
                           shared]() mutable { h(0, shared.get()); });
    }

    // Closes and time-outs are everyday events of a server's connections:
    // their exceptions are built without a stack.
    std::unique_ptr<Exception> ClosedError() const {
        return std::unique_ptr<Exception>(
            new InvalidStateException("The stream to " + _peer + " is closed", kWithoutBacktrace));
    }

    // The exception for `ec`, under the lock.
    std::unique_ptr<Exception> ErrorLocked(const boost::system::error_code& ec, bool timedOut,
                                           std::int64_t timeout, const char* operation) const {
        if (timedOut) {
            return std::unique_ptr<Exception>(new TimeoutException(
                MessageFormatter::ASPrint("Timed out after %1 microseconds: %2 %3", timeout,
                                          operation, _peer),
                kWithoutBacktrace));
        }
        if (!_open) return ClosedError();
        return StreamError(ec, operation, _peer);
    }

    void ArmTimer(boost::asio::steady_timer& timer, std::int64_t usec, std::uint64_t generation,
                  bool read) {
        timer.expires_after(std::chrono::microseconds(usec));
        Ref<AsioStream> self(this);
        timer.async_wait(
            [self = std::move(self), generation, read](const boost::system::error_code& ec) {
                if (!ec) self->TimedOut(generation, read);
            });
    }

    void TimedOut(std::uint64_t generation, bool read) {
        std::lock_guard<std::mutex> hold(_lock);
        if (read) {
            if (!_readPending || _readGeneration != generation) return;
            _readTimedOut = true;
        } else {
            if (!_writePending || _writeGeneration != generation) return;
            _writeTimedOut = true;
        }
        CloseLocked();
    }

    template <class H>
    void StartRead(char* buffer, std::size_t maxLength, H&& handler) {
        std::unique_lock<std::mutex> hold(_lock);
        if (!_open) {
            std::unique_ptr<Exception> error = ClosedError();
            hold.unlock();
            PostFailure(std::forward<H>(handler), std::move(error));
            return;
        }
        TESSERA_ASSERT(!_readPending);
        if (_readEnded) {
            // The end of the stream stays the end: no wait for an event
            // the system will not signal again.
            hold.unlock();
            boost::asio::post(_pool->GetIoService(),
                              [self = Ref<AsioStream>(this),
                               h = std::forward<H>(handler)]() mutable { h(0, nullptr); });
            return;
        }
        _readPending = true;
        const std::uint64_t generation = ++_readGeneration;
        _readTimerArmed = _readTimeout > 0;
        if (_readTimerArmed) ArmTimer(_readTimer, _readTimeout, generation, true);
        Ref<AsioStream> self(this);
        _socket.async_read_some(
            boost::asio::buffer(buffer, maxLength),
            Detail::AsContinuation([self = std::move(self), h = std::forward<H>(handler)](
                                       const boost::system::error_code& ec, std::size_t n) mutable {
                std::unique_ptr<Exception> error = self->FinishRead(ec);
                h(error ? 0 : n, error.get());
            }));
    }

    std::unique_ptr<Exception> FinishRead(const boost::system::error_code& ec) {
        std::lock_guard<std::mutex> hold(_lock);
        _readPending = false;
        if (_readTimerArmed) _readTimer.cancel();
        _readTimerArmed = false;
        if (!ec) return nullptr;
        if (Detail::IsEndOfStream(ec)) {
            if (!_readTimedOut) {
                _readEnded = true;
                return nullptr; // the end of the stream: a read of 0
            }
        }
        return ErrorLocked(ec, _readTimedOut, _readTimeout, "read from");
    }

    template <class H>
    void StartWrite(const ConstBuffer* buffers, std::size_t count, H&& handler) {
        std::unique_lock<std::mutex> hold(_lock);
        if (!_open) {
            std::unique_ptr<Exception> error = ClosedError();
            hold.unlock();
            PostFailure(std::forward<H>(handler), std::move(error));
            return;
        }
        TESSERA_ASSERT(!_writePending);
        _writePending = true;
        // The buffers still to write; empty ones are left out, and a write
        // of nothing still goes through the system once.
        _writeBuffers.clear();
        _writeLeft = 0;
        for (std::size_t i = 0; i < count; ++i) {
            if (buffers[i].size == 0) continue;
            _writeBuffers.emplace_back(buffers[i].data, buffers[i].size);
            _writeLeft += buffers[i].size;
        }
        if (_writeBuffers.empty()) _writeBuffers.emplace_back();
        _writeFirst = 0;
        const std::uint64_t generation = ++_writeGeneration;
        _writeTimerArmed = _writeTimeout > 0;
        if (_writeTimerArmed) ArmTimer(_writeTimer, _writeTimeout, generation, false);
        WriteSome(0, typename std::decay<H>::type(std::forward<H>(handler)));
    }

    // Under the lock.
    template <class H>
    void WriteSome(std::size_t written, H&& handler) {
        Ref<AsioStream> self(this);
        const Detail::BufferRange rest{_writeBuffers.data() + _writeFirst,
                                       _writeBuffers.data() + _writeBuffers.size()};
        _socket.async_write_some(
            rest,
            Detail::AsContinuation([self = std::move(self), written, h = std::move(handler)](
                                       const boost::system::error_code& ec, std::size_t n) mutable {
                self->WriteStepDone(ec, written + n, n, std::move(h));
            }));
    }

    // Under the lock: drops the `n` bytes just written from the front.
    void ConsumeWritten(std::size_t n) {
        _writeLeft -= n;
        while (n > 0) {
            boost::asio::const_buffer& first = _writeBuffers[_writeFirst];
            if (n < first.size()) {
                first += n;
                return;
            }
            n -= first.size();
            ++_writeFirst;
        }
    }

    template <class H>
    void WriteStepDone(const boost::system::error_code& ec, std::size_t written, std::size_t step,
                       H&& handler) {
        std::unique_lock<std::mutex> hold(_lock);
        ConsumeWritten(step);
        if (!ec && _writeLeft > 0 && _open) {
            WriteSome(written, std::move(handler));
            return;
        }
        _writePending = false;
        if (_writeTimerArmed) _writeTimer.cancel();
        _writeTimerArmed = false;
        std::unique_ptr<Exception> error;
        if (ec) {
            error = ErrorLocked(ec, _writeTimedOut, _writeTimeout, "write to");
        } else if (_writeLeft > 0) {
            error = ClosedError();
        }
        hold.unlock();
        handler(written, error.get());
    }

    Ref<ThreadPoolAsio> _pool;
    mutable std::mutex _lock;
    Socket _socket;
    boost::asio::steady_timer _readTimer;
    boost::asio::steady_timer _writeTimer;
    std::string _peer;
    bool _open = true;
    std::int64_t _readTimeout = TIMEOUT_INFINITE;
    std::int64_t _writeTimeout = TIMEOUT_INFINITE;
    std::vector<boost::asio::const_buffer> _writeBuffers; // what the pending write has left
    std::size_t _writeFirst = 0; // the first of them not written in full
    std::size_t _writeLeft = 0; // the bytes left in them
    bool _readPending = false;
    bool _writePending = false;
    bool _readTimerArmed = false;
    bool _writeTimerArmed = false;
    bool _readTimedOut = false;
    bool _readEnded = false;
    bool _writeTimedOut = false;
    std::uint64_t _readGeneration = 0;
    std::uint64_t _writeGeneration = 0;
    int _waitingHere = 0; // threads in WaitHere
    bool _readWaitedLast = false; // the last synchronous read found nothing at once
};

} // namespace System
} // namespace Tessera
