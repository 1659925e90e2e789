// Byte streams: TCP connections and local pipes, read and written
// synchronously or asynchronously on the thread pool.
//
// A Stream is one connection. Its synchronous operations block the calling
// thread; its asynchronous ones return at once and complete on an I/O thread of
// the thread pool (threadPool.h), calling their callback exactly once, never
// inside the call that started the operation:
//
//     void Session::Send() {
//         _stream->AsyncWrite(_out.data(), _out.size(),
//                             boost::bind(&Session::Sent, Ref<Session>(this), _1, _2));
//     }
//     void Session::Sent(System::Stream* stream, Exception* error) {
//         if (error) {                  // null on success
//             TESSERA_LOG(_log, Logger::LOG_WARNING, "Send failed: %1", error->what());
//             return;
//         }
//         ...
//     }
//
// The exception handed to a callback lives for the call only: Clone() it to
// keep it. A callback runs on a pool thread like any work item; an exception
// escaping it ends the process (see threadPool.h), so catch what you throw.
//
// A pending asynchronous operation holds a reference to its stream, so a
// stream may be dropped by its owner while an operation is under way; the
// operation then still completes and calls its callback. At most one
// asynchronous read and one asynchronous write may be pending at a time.
//
// Failures are exceptions of the tree (exception.h), each message naming the
// peer ("127.0.0.1:8080", "[::1]:443", or the pipe's name):
//   - SystemException: the connection was refused, reset by the peer or broke
//     otherwise; ErrorId() is the system's error code, the message names the
//     operation, the peer and the system's text;
//   - TimeoutException: a time-out of the stream ran out (see SetTimeouts);
//   - InvalidStateException: the stream was closed by this side, before or
//     during the operation (a pending operation fails so when Close is called).
// A peer that goes away in the middle of an asynchronous write fails that
// write's callback with a SystemException; it never raises a signal.
//
// Synchronous calls on the pool's own threads: on POSIX a synchronous Read or
// Write that has to wait does so in the calling thread. On Windows such a wait
// goes through the pool (the completion port for sockets, the pipe's event
// for pipes), and another I/O thread must run the completion: the pool's busy
// watch adds one when every I/O thread is busy, up to the pool's "IoMax". So
// a handler may block in a synchronous call there only while fewer than
// "IoMax" handlers do so at once; beyond that they wait until their time-outs
// (SetTimeouts), or for ever without one. Handlers should use the
// asynchronous forms.
//
// Handles: no descriptor or handle of a stream is inherited by child
// processes.
//
// Thread safety: one synchronous reader and one synchronous writer may use a
// stream at the same time from two threads (a full-duplex connection); Close
// may be called from any thread at any time.
#pragma once

#include <tessera/api.h>
#include <tessera/exception.h>
#include <tessera/functor.h>
#include <tessera/object.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace Tessera {
namespace System {

// No time-out.
constexpr std::int64_t TIMEOUT_INFINITE = -1;

// A run of bytes for a gathered write.
struct ConstBuffer {
    const char* data;
    std::size_t size;
};

class TESSERA_EXPORT Stream : public virtual Object {
public:
    // Completion of an asynchronous write: the stream, and the exception or
    // null on success.
    typedef Functor<void(Stream*, Exception*)> WriteCallback;
    // Completion of an asynchronous read: the stream, the count of bytes read
    // (0 at end of stream, and on failure), and the exception or null.
    typedef Functor<void(Stream*, std::size_t, Exception*)> ReadCallback;

    // Reads at most `maxLength` bytes into `buffer`, waiting until at least one
    // byte has arrived; 0 at the end of the stream (the peer closed its
    // side).
    virtual std::size_t Read(char* buffer, std::size_t maxLength) = 0;
    // Writes all `length` bytes.
    virtual void Write(const char* data, std::size_t length) = 0;

    // Asynchronous forms of Read and Write. AsyncWrite writes all the bytes
    // before it completes; AsyncRead completes as soon as some have arrived.
    // The memory must stay valid until the callback runs.
    virtual void AsyncRead(char* buffer, std::size_t maxLength, const ReadCallback& done) = 0;
    virtual void AsyncWrite(const char* data, std::size_t length, const WriteCallback& done) = 0;
    // Writes the `count` buffers one after the other, as AsyncWrite writes
    // one, handing them to the system together where it can (a response's
    // head and body in one system call). The memory must stay valid until
    // the callback runs; the array itself is copied before the call returns.
    virtual void AsyncWriteBuffers(const ConstBuffer* buffers, std::size_t count,
                                   const WriteCallback& done) = 0;

    // Time-outs, in microseconds, of each later read and write, synchronous or
    // not: a read that receives nothing, or a write that cannot finish, within
    // its time-out fails with TimeoutException and closes the stream (what
    // the peer has seen of it is unknown). TIMEOUT_INFINITE (or any value of
    // 0 or less), the default, waits for ever.
    virtual void SetTimeouts(std::int64_t readTimeoutUsec, std::int64_t writeTimeoutUsec) = 0;

    // Ends sending: the peer reads the end of the stream once it has read
    // what was written. Reading goes on.
    virtual void ShutdownWrite() = 0;
    // Closes the stream; pending operations fail with InvalidStateException.
    // Idempotent.
    virtual void Close() = 0;
    virtual bool IsOpen() const = 0;

    // The peer's name as failures quote it.
    virtual std::string GetPeerName() const = 0;
};

} // namespace System
} // namespace Tessera
