// The growing character buffer: a queue of equal chunks, drained in place.

#include <tessera/assert.h>
#include <tessera/http/charBuffer.h>
#include <tessera/system/threadPool.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace Tessera {
namespace Http {

DynamicCharBuffer::DynamicCharBuffer(std::uint64_t allocationSize, std::uint64_t prependReserve,
                                     System::ThreadPool* pool)
    : _allocationSize(allocationSize),
      _prependReserve(prependReserve),
      _position(prependReserve),
      _prependPosition(prependReserve),
      _limit(allocationSize),
      _pool(pool) {
    if (prependReserve > allocationSize) {
        throw InvalidArgumentException("Prepend reserve exceeds allocation size");
    }
    if (allocationSize == 0) {
        throw InvalidArgumentException("Allocation size must be non-zero");
    }
    AddChunk();
}

DynamicCharBuffer::~DynamicCharBuffer() = default;

void DynamicCharBuffer::AddChunk() { _chunks.emplace_back(new char[_allocationSize]); }

std::uint64_t DynamicCharBuffer::Segment(std::uint64_t p) const {
    return std::min(_allocationSize - Col(p), _limit - p);
}

void DynamicCharBuffer::Clear() {
    while (_chunks.size() > 1) {
        _chunks.pop_back();
    }
    _position = _prependPosition = _prependReserve;
    _limit = _allocationSize;
}

void DynamicCharBuffer::Flip() {
    _limit = _position;
    _position = _prependPosition;
}

void DynamicCharBuffer::Compact() {
    // A front chunk goes only when all of it lies behind the position and the
    // reserve still fits in front of what remains.
    while (_position > _allocationSize && _position >= _allocationSize + _prependReserve) {
        _chunks.pop_front();
        _position -= _allocationSize;
        _limit -= _allocationSize;
    }
    _prependPosition = _position;
    _position = _limit;
    _limit = Capacity();
}

std::uint64_t DynamicCharBuffer::Append(const char* data, std::uint64_t len) {
    while (_position + len > _limit) {
        AddChunk();
        _limit = Capacity();
    }
    std::uint64_t done = 0;
    while (done < len) {
        const std::uint64_t n = std::min(_allocationSize - Col(_position), len - done);
        std::memcpy(At(_position), data + done, n);
        _position += n;
        done += n;
    }
    return len;
}

std::uint64_t DynamicCharBuffer::Prepend(const char* data, std::uint64_t len) {
    const std::uint64_t n = std::min(len, _prependPosition);
    _prependPosition -= n;
    std::uint64_t p = _prependPosition;
    std::uint64_t done = 0;
    while (done < n) {
        const std::uint64_t step = std::min(_allocationSize - Col(p), n - done);
        std::memcpy(At(p), data + done, step);
        p += step;
        done += step;
    }
    return n;
}

std::uint64_t DynamicCharBuffer::Get(char* dest, std::uint64_t len) {
    const std::uint64_t n = std::min(len, _limit - _position);
    std::uint64_t done = 0;
    while (done < n) {
        const std::uint64_t step = std::min(_allocationSize - Col(_position), n - done);
        std::memcpy(dest + done, At(_position), step);
        _position += step;
        done += step;
    }
    _prependPosition = _position;
    return n;
}

void DynamicCharBuffer::Write(const WriteFunction& writer) {
    while (_position < _limit) {
        const std::uint64_t n = Segment(_position);
        writer(At(_position), static_cast<int>(n));
        _position += n;
    }
    _prependPosition = _position = _limit;
}

void DynamicCharBuffer::GetSegments(std::vector<System::ConstBuffer>& out) const {
    for (std::uint64_t p = _position; p < _limit; p += Segment(p)) {
        out.push_back({At(p), static_cast<std::size_t>(Segment(p))});
    }
}

void DynamicCharBuffer::MarkWritten() { _prependPosition = _position = _limit; }

void DynamicCharBuffer::AsyncWrite(const AsyncWriteFunction& fun, const Callback& callback) {
    TESSERA_ASSERT(fun != 0);
    TESSERA_ASSERT(_callback.IsNull());
    _asyncWriter = std::make_shared<const AsyncWriteFunction>(fun);
    _callback = callback;
    _self = this;
    try {
        AsyncWriteInt(true);
    } catch (...) {
        // The writer refused the first segment: no write is pending.
        _callback.Clear();
        _asyncWriter.reset();
        _self.Reset();
        throw;
    }
}

void DynamicCharBuffer::AsyncWriteInt(bool deferCompletion) {
    if (_position >= _limit) {
        _prependPosition = _position;
        if (!deferCompletion) {
            InvokeCallback(nullptr);
            return;
        }
        // Still inside the caller's AsyncWrite: complete from the pool.
        System::ThreadPool* pool = _pool != nullptr ? _pool : System::GetThreadPool();
        if (!pool->Defer([this]() { InvokeCallback(nullptr); })) {
            InvokeCallback(nullptr);
        }
        return;
    }
    // The completion may run on another thread before the writer returns,
    // and end the write: from the call on, only locals are used.
    const std::shared_ptr<const AsyncWriteFunction> writer = _asyncWriter;
    const Callback done([this](System::Stream* stream, Exception* exception) {
        AsyncWriteDone(stream, exception);
    });
    (*writer)(At(_position), static_cast<int>(Segment(_position)), done);
}

void DynamicCharBuffer::AsyncWriteDone(System::Stream*, Exception* exception) {
    if (exception != nullptr) {
        InvokeCallback(exception);
        return;
    }
    _position += Segment(_position);
    AsyncWriteInt(false);
}

void DynamicCharBuffer::InvokeCallback(Exception* exception) {
    // Everything of this write leaves the buffer first, so the callback may
    // start the next one; the reference keeps the buffer until it returns.
    const Callback callback = std::move(_callback);
    const Ref<DynamicCharBuffer> self = std::move(_self);
    _asyncWriter.reset();
    callback(nullptr, exception);
}

} // namespace Http
} // namespace Tessera
