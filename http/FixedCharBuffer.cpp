// The fixed character buffer: one array for its whole life.

#include <tessera/assert.h>
#include <tessera/http/charBuffer.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace Tessera {
namespace Http {

FixedCharBuffer::FixedCharBuffer(std::uint64_t capacity, std::uint64_t prependReserve)
    : _capacity(capacity),
      _prependReserve(prependReserve),
      _position(prependReserve),
      _prependPosition(prependReserve),
      _limit(capacity),
      _array(prependReserve > capacity
                 ? throw InvalidArgumentException("Prepend reserve exceeds capacity")
                 : new char[capacity]) {}

FixedCharBuffer::~FixedCharBuffer() {
    delete[] _array;
}

void FixedCharBuffer::Clear() {
    _position = _prependPosition = _prependReserve;
    _limit = _capacity;
}

void FixedCharBuffer::Flip() {
    _limit = _position;
    _position = _prependPosition;
}

void FixedCharBuffer::Compact() {
    if (_position > _prependReserve) {
        const std::uint64_t shift = _position - _prependReserve;
        std::memmove(_array + _prependReserve, _array + _position, _limit - _position);
        _position -= shift;
        _limit -= shift;
    }
    _prependPosition = _position;
    _position = _limit;
    _limit = _capacity;
}

std::uint64_t FixedCharBuffer::Append(const char* data, std::uint64_t len) {
    const std::uint64_t n = std::min(len, _capacity - _position);
    if (n != 0) std::memcpy(_array + _position, data, n);
    _position += n;
    return n;
}

std::uint64_t FixedCharBuffer::Prepend(const char* data, std::uint64_t len) {
    const std::uint64_t n = std::min(len, _prependPosition);
    _prependPosition -= n;
    if (n != 0) std::memcpy(_array + _prependPosition, data, n);
    return n;
}

std::uint64_t FixedCharBuffer::Get(char* dest, std::uint64_t len) {
    const std::uint64_t n = std::min(len, _limit - _position);
    if (n != 0) std::memcpy(dest, _array + _position, n);
    _position += n;
    _prependPosition = _position;
    return n;
}

void FixedCharBuffer::Write(const WriteFunction& writer) {
    writer(_array + _position, static_cast<int>(_limit - _position));
    _prependPosition = _position = _limit;
}

void FixedCharBuffer::AsyncWrite(const AsyncWriteFunction& fun, const Callback& callback) {
    TESSERA_ASSERT(fun != 0);
    TESSERA_ASSERT(_callback.IsNull());
    _asyncWriter = std::make_shared<const AsyncWriteFunction>(fun);
    _callback = callback;
    _self = this;
    const std::shared_ptr<const AsyncWriteFunction> writer = _asyncWriter;
    const Callback done([this](System::Stream* stream, Exception* exception) {
        AsyncWriteDone(stream, exception);
    });
    try {
        (*writer)(_array + _position, static_cast<int>(_limit - _position), done);
    } catch (...) {
        // The writer refused the data: no write is pending.
        _callback.Clear();
        _asyncWriter.reset();
        _self.Reset();
        throw;
    }
}

void FixedCharBuffer::AsyncWriteDone(System::Stream*, Exception* exception) {
    if (exception == nullptr) {
        _prependPosition = _position = _limit;
    }
    InvokeCallback(exception);
}

void FixedCharBuffer::InvokeCallback(Exception* exception) {
    const Callback callback = std::move(_callback);
    const Ref<FixedCharBuffer> self = std::move(_self);
    _asyncWriter.reset();
    callback(nullptr, exception);
}

}  // namespace Http
}  // namespace Tessera
