// A stream over bytes in memory, for the tests, the fuzz targets and the
// benchmarks: reads hand out the bytes it was given, in the piece sizes asked
// for, then the end of the stream (or a reset, where one is asked for); what
// is written is kept. Asynchronous operations complete on the thread pool
// given, or the process's. One reader and one writer at a time, as on any
// stream; not for several threads at once otherwise.
#pragma once

#include <tessera/exception.h>
#include <tessera/system/stream.h>
#include <tessera/system/threadPool.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

namespace Tessera {
namespace Testing {

class MemoryStream : public ObjectImpl, public System::Stream {
public:
    // What a read hands out: the piece sizes in `pieces` first, then pieces
    // of at most `rest` bytes (0: as many as asked for).
    explicit MemoryStream(std::string wire, std::size_t rest = 0,
                          std::vector<std::size_t> pieces = {})
        : _own(std::move(wire)), _wire(&_own), _pieces(std::move(pieces)), _rest(rest) {}
    // The same over bytes the caller keeps alive as long as the stream.
    MemoryStream(const std::string* borrowed, std::size_t rest) : _wire(borrowed), _rest(rest) {}

    // Once `at` bytes are read, reads fail as a connection reset by the peer.
    void ResetAt(std::size_t at) { _resetAt = at; }
    // The pool that asynchronous operations complete on.
    void SetPool(System::ThreadPool* pool) { _pool = pool; }

    std::size_t Consumed() const { return _pos; }
    bool AllRead() const { return _pos == _wire->size(); }
    const std::string& Written() const { return _written; }

    std::size_t Read(char* buffer, std::size_t maxLength) override {
        if (!_open) throw InvalidStateException("The stream to " + GetPeerName() + " is closed");
        if (_pos == _resetAt) {
            throw SystemException(kConnectionReset, "Failed to read from memory: reset",
                                  kWithoutBacktrace);
        }
        std::size_t n = _next < _pieces.size() ? _pieces[_next++] : _rest;
        if (n == 0) n = maxLength;
        n = std::min({n, maxLength, std::min(_wire->size(), _resetAt) - _pos});
        std::memcpy(buffer, _wire->data() + _pos, n);
        _pos += n;
        return n;
    }
    void Write(const char* data, std::size_t length) override {
        if (!_open) throw InvalidStateException("The stream to " + GetPeerName() + " is closed");
        _written.append(data, length);
    }
    void AsyncRead(char* buffer, std::size_t maxLength, const ReadCallback& done) override {
        Ref<MemoryStream> self(this);
        Pool().QueueWorkItem(
            [self, buffer, maxLength, done] {
                std::size_t n = 0;
                try {
                    n = self->Read(buffer, maxLength);
                } catch (const Exception& e) {
                    done(self.Get(), 0, const_cast<Exception*>(&e));
                    return;
                }
                done(self.Get(), n, nullptr);
            },
            System::ThreadPool::WORK_IO);
    }
    void AsyncWrite(const char* data, std::size_t length, const WriteCallback& done) override {
        const System::ConstBuffer one{data, length};
        AsyncWriteBuffers(&one, 1, done);
    }
    void AsyncWriteBuffers(const System::ConstBuffer* buffers, std::size_t count,
                           const WriteCallback& done) override {
        std::vector<System::ConstBuffer> copy(buffers, buffers + count);
        Ref<MemoryStream> self(this);
        Pool().QueueWorkItem(
            [self, copy, done] {
                try {
                    for (const System::ConstBuffer& b : copy) self->Write(b.data, b.size);
                } catch (const Exception& e) {
                    done(self.Get(), const_cast<Exception*>(&e));
                    return;
                }
                done(self.Get(), nullptr);
            },
            System::ThreadPool::WORK_IO);
    }
    void SetTimeouts(std::int64_t, std::int64_t) override {}
    void ShutdownWrite() override {}
    void Close() override { _open = false; }
    bool IsOpen() const override { return _open; }
    std::string GetPeerName() const override { return "memory"; }

    // ECONNRESET on Linux; what the code is matters only to the tests that
    // compare it.
    static constexpr int kConnectionReset = 104;

private:
    System::ThreadPool& Pool() { return _pool != nullptr ? *_pool : *System::GetThreadPool(); }

    std::string _own;
    const std::string* _wire;
    std::vector<std::size_t> _pieces;
    std::size_t _rest;
    std::size_t _next = 0;
    std::size_t _pos = 0;
    std::size_t _resetAt = std::string::npos;
    std::string _written;
    bool _open = true;
    System::ThreadPool* _pool = nullptr;
};

} // namespace Testing
} // namespace Tessera
