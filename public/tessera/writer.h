// Writer: the universal character sink.
//
// Loggers, the message formatter and everything that produces text write runs
// of characters to a Writer. A run is given by pointer and length and may hold
// any byte, NUL included; nothing is terminated or translated on the way.
//
//     Tessera::Ref<Tessera::StringWriter> out;
//     Tessera::CreateStringWriter(out);
//     out->Write("abc", 3);
//     std::string text = out->TakeString();   // "abc", and the writer is empty
//
// NullWriter discards everything; CountingWriter discards everything but
// counts the bytes, which measures a text without keeping it. A writer is not
// made thread-safe by being counted: callers that share one serialise their
// writes.
#pragma once

#include <tessera/api.h>
#include <tessera/assert.h>
#include <tessera/object.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace Tessera {

class TESSERA_EXPORT Writer : public virtual Object {
public:
    // Writes `length` bytes from `data`; `length` is never negative.
    virtual void Write(const char* data, int length) = 0;
    // Hands what was written so far on to the writer's destination.
    virtual void Flush() = 0;
    // Ends the writer's use. The base does nothing.
    virtual void Close() {}
};

// Discards everything it is given.
class TESSERA_EXPORT NullWriter : public ObjectImpl, public Writer {
public:
    NullWriter() noexcept = default;
    void Write(const char*, int) override {}
    void Flush() override {}
    void Close() override {}
};

// Discards the data and counts its bytes.
class TESSERA_EXPORT CountingWriter : public ObjectImpl, public Writer {
public:
    CountingWriter() noexcept : _count(0) {}
    void Write(const char*, int length) override {
        TESSERA_ASSERT(length >= 0);
        _count += static_cast<std::uint64_t>(length);
    }
    void Flush() override {}
    void Close() override {}
    // The bytes written since the writer was made.
    std::uint64_t GetCount() const noexcept { return _count; }

private:
    std::uint64_t _count;
};

// A writer that appends to a string held in memory. Flush and Close do
// nothing; the string stays readable after Close.
class TESSERA_EXPORT StringWriter : public Writer {
public:
    // What was written since the writer was made or last taken from.
    virtual const std::string& GetString() const = 0;
    // Moves the text out and leaves the writer empty, ready for more.
    virtual std::string TakeString() = 0;
};

// A new, empty string writer whose string has room for `reserve` bytes.
TESSERA_EXPORT void CreateStringWriter(Ref<StringWriter>& out, std::size_t reserve = 0);

}  // namespace Tessera
