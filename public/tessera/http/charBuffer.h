// Character buffers: where the HTTP layer stages outgoing bytes before a
// stream takes them.
//
// TL;DR: append the body, prepend the framing in the reserve kept free in
// front of it, flip, and drain the whole to a writer; nothing is copied twice.
//
//     Ref<CharBuffer> out(new DynamicCharBuffer(8192, 64));
//     out->Append(body.data(), body.size());          // fill mode
//     out->Prepend(header.data(), header.size());     // into the reserve
//     out->Flip();                                    // drain mode
//     out->AsyncWrite(writer, done);                  // or Write / Get
//     ...                                             // in done:
//     out->Clear();                                   // fill again
//
// Layout (all cursors are byte offsets, unsigned 64-bit):
//
//     0          prepend       position                       limit/capacity
//     |  reserve | prepended | appended |          free         |
//                ^ prepend position                                    fill mode
//
//     0          prepend                                 limit     capacity
//     |          | drained... | position -> still to drain |         |
//                                                                  drain mode
//
// Always prepend position <= position <= limit <= capacity, and Prepend can
// write only into the bytes before the prepend position. The mode is not a
// flag: after Clear or Compact the limit is the capacity (fill mode), after
// Flip it is the end of the data (drain mode). Flip makes the prepended bytes
// part of what is drained. Compact goes back to fill mode keeping the bytes
// not yet drained, so a partial drain can be topped up and drained again.
//
// DynamicCharBuffer grows without bound by adding chunks of its allocation
// size, never moving a byte; it drains chunk segment by chunk segment, each
// handed to the writer in place. FixedCharBuffer is one array allocated once;
// what does not fit is dropped and the returned count says so.
//
// Asynchronous drain: AsyncWrite stores the writer and the callback and hands
// the data to the writer one segment at a time (the fixed buffer in one), each
// with a completion functor that the writer calls once that segment is
// written. When everything is written the callback runs with a null
// exception; when a segment fails, it runs with that segment's exception and
// the cursors still point at the failed segment, so nothing unwritten is lost.
// The callback is moved out of the buffer before it is called, so it may
// start the next AsyncWrite. It never runs inside its own AsyncWrite call: a
// dynamic buffer with nothing to write completes through the thread pool's
// Defer (the pool given at construction, else the process-wide one; should
// that pool refuse, being shut down, the callback runs at once). A writer
// that completes inside its own call makes the next segment start from that
// completion, one nested call per segment.
//
// Errors: starting an AsyncWrite with an empty writer, or while another is
// pending, stops the process ("fun != 0", "_callback.IsNull()"). An exception
// thrown by the writer's first call leaves AsyncWrite with no write pending
// (later segments' writers run in completions and must not throw). Write with
// an empty writer throws boost::bad_function_call.
//
// Ownership: a pending AsyncWrite holds a reference to its buffer until its
// callback has returned. The data handed to a writer stays valid until that
// segment's completion.
//
// Thread safety: none. A buffer belongs to one message at a time; between
// AsyncWrite and its callback only the writer's completions may touch it.
#pragma once

#include <tessera/api.h>
#include <tessera/exception.h>
#include <tessera/functor.h>
#include <tessera/object.h>
#include <tessera/system/stream.h>

#include <boost/function.hpp>

#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

namespace Tessera {
namespace System {
class ThreadPool;
}
namespace Http {

class TESSERA_EXPORT CharBuffer : public virtual ObjectImpl {
public:
    // A synchronous writer: takes `len` bytes at `data` before it returns.
    typedef boost::function<void(const char* data, int len)> WriteFunction;
    // What AsyncWrite calls when it is done: the stream is null, the exception
    // null on success.
    typedef System::Stream::WriteCallback Callback;
    // An asynchronous writer: starts writing `len` bytes at `data` and calls
    // (a copy of) `done` once, when they are written or have failed.
    typedef boost::function<void(const char* data, int len, const Callback& done)>
        AsyncWriteFunction;

    virtual std::uint64_t Capacity() const = 0;
    virtual std::uint64_t PrependReserve() const = 0;
    virtual std::uint64_t Position() const = 0;
    virtual std::uint64_t PrependPosition() const = 0;
    virtual std::uint64_t Limit() const = 0;

    // An empty buffer in fill mode: position = prepend position = reserve.
    virtual void Clear() = 0;
    // Fill to drain mode: limit = position, position = prepend position.
    virtual void Flip() = 0;
    // Drain to fill mode, keeping the bytes between position and limit.
    virtual void Compact() = 0;

    // Copies data at the position; the count taken.
    virtual std::uint64_t Append(const char* data, std::uint64_t len) = 0;
    // Copies the first min(len, prepend position) bytes of data just before
    // the prepend position; the count taken.
    virtual std::uint64_t Prepend(const char* data, std::uint64_t len) = 0;
    // Copies out min(len, limit - position) bytes from the position; the
    // prepend position then follows the position (also when nothing was left).
    virtual std::uint64_t Get(char* dest, std::uint64_t len) = 0;

    // Drains everything to `writer`; position = prepend position = limit.
    virtual void Write(const WriteFunction& writer) = 0;
    // Drains everything to `fun`, then calls `callback`; see above.
    virtual void AsyncWrite(const AsyncWriteFunction& fun, const Callback& callback) = 0;
};

class TESSERA_EXPORT DynamicCharBuffer : public CharBuffer {
public:
    // One chunk of `allocationSize` bytes to begin with. Throws
    // InvalidArgumentException when `prependReserve` exceeds the allocation
    // size, or when the allocation size is 0. `pool` runs the deferred
    // completion described above (null: the process-wide pool); it must
    // outlive the buffer.
    DynamicCharBuffer(std::uint64_t allocationSize, std::uint64_t prependReserve,
                      System::ThreadPool* pool = nullptr);
    ~DynamicCharBuffer() override;

    // CharBuffer:
    std::uint64_t Capacity() const override { return _allocationSize * _chunks.size(); }
    std::uint64_t PrependReserve() const override { return _prependReserve; }
    std::uint64_t Position() const override { return _position; }
    std::uint64_t PrependPosition() const override { return _prependPosition; }
    std::uint64_t Limit() const override { return _limit; }
    void Clear() override;
    void Flip() override;
    // Frees whole chunks behind the position instead of moving bytes.
    void Compact() override;
    // Always takes everything, adding chunks as needed.
    std::uint64_t Append(const char* data, std::uint64_t len) override;
    std::uint64_t Prepend(const char* data, std::uint64_t len) override;
    std::uint64_t Get(char* dest, std::uint64_t len) override;
    // One call per chunk segment.
    void Write(const WriteFunction& writer) override;
    void AsyncWrite(const AsyncWriteFunction& fun, const Callback& callback) override;

    std::uint64_t AllocationSize() const { return _allocationSize; }
    std::size_t ChunkCount() const { return _chunks.size(); }

    // For a gathered write of the bytes from the position to the limit
    // (Stream::AsyncWriteBuffers): appends their chunk segments to `out`, in
    // order, without moving anything; MarkWritten then moves the position to
    // the limit, as a drain does, once the write has completed.
    void GetSegments(std::vector<System::ConstBuffer>& out) const;
    void MarkWritten();

private:
    std::uint64_t Row(std::uint64_t p) const { return p / _allocationSize; }
    std::uint64_t Col(std::uint64_t p) const { return p % _allocationSize; }
    char* At(std::uint64_t p) const { return _chunks[Row(p)].get() + Col(p); }
    // The bytes from `p` to the end of its chunk or to the limit.
    std::uint64_t Segment(std::uint64_t p) const;
    void AddChunk();

    void AsyncWriteInt(bool deferCompletion);
    void AsyncWriteDone(System::Stream* stream, Exception* exception);
    void InvokeCallback(Exception* exception);

    const std::uint64_t _allocationSize;
    const std::uint64_t _prependReserve;
    std::uint64_t _position;
    std::uint64_t _prependPosition;
    std::uint64_t _limit;
    std::deque<std::shared_ptr<char[]>> _chunks;
    System::ThreadPool* const _pool;

    // The write in progress; all empty when none is.
    std::shared_ptr<const AsyncWriteFunction> _asyncWriter;
    Callback _callback;
    Ref<DynamicCharBuffer> _self;
};

class TESSERA_EXPORT FixedCharBuffer : public CharBuffer {
public:
    // One array of `capacity` bytes (0 is allowed). Throws
    // InvalidArgumentException when `prependReserve` exceeds the capacity.
    FixedCharBuffer(std::uint64_t capacity, std::uint64_t prependReserve);
    ~FixedCharBuffer() override;

    // CharBuffer:
    std::uint64_t Capacity() const override { return _capacity; }
    std::uint64_t PrependReserve() const override { return _prependReserve; }
    std::uint64_t Position() const override { return _position; }
    std::uint64_t PrependPosition() const override { return _prependPosition; }
    std::uint64_t Limit() const override { return _limit; }
    void Clear() override;
    void Flip() override;
    // Moves the bytes not yet drained down to the reserve.
    void Compact() override;
    // Takes at most capacity - position bytes.
    std::uint64_t Append(const char* data, std::uint64_t len) override;
    std::uint64_t Prepend(const char* data, std::uint64_t len) override;
    std::uint64_t Get(char* dest, std::uint64_t len) override;
    // One call with everything.
    void Write(const WriteFunction& writer) override;
    void AsyncWrite(const AsyncWriteFunction& fun, const Callback& callback) override;

private:
    void AsyncWriteDone(System::Stream* stream, Exception* exception);
    void InvokeCallback(Exception* exception);

    const std::uint64_t _capacity;
    const std::uint64_t _prependReserve;
    std::uint64_t _position;
    std::uint64_t _prependPosition;
    std::uint64_t _limit;
    char* const _array;

    std::shared_ptr<const AsyncWriteFunction> _asyncWriter;
    Callback _callback;
    Ref<FixedCharBuffer> _self;
};

} // namespace Http
} // namespace Tessera
