// Stacktrace: capture, hash and order.

#include <tessera/system/stacktrace.h>

#include "system/platform/diagnostics.h"

#include <cstdint>

namespace Tessera {
namespace System {

Stacktrace::Stacktrace() noexcept : _frames(), _numFrames(0), _hash(0) {}

// Each entry point calls the platform itself, so that every one of them is
// exactly one frame deep and `skip` means the same through all four.
void Stacktrace::Capture() noexcept {
    _numFrames = Platform::CaptureFrames(_frames, MAX_FRAMES, 1, false);
    GenerateHash();
}

void Stacktrace::CaptureFull() noexcept {
    _numFrames = Platform::CaptureFrames(_frames, MAX_FRAMES, 1, true);
    GenerateHash();
}

void Stacktrace::Capture(int skip) noexcept {
    _numFrames = Platform::CaptureFrames(_frames, MAX_FRAMES, skip + 1, false);
    GenerateHash();
}

void Stacktrace::CaptureFull(int skip) noexcept {
    _numFrames = Platform::CaptureFrames(_frames, MAX_FRAMES, skip + 1, true);
    GenerateHash();
}

void* Stacktrace::GetStackFrame(int i) const noexcept {
    return (i >= 0 && i < _numFrames) ? _frames[i] : nullptr;
}

// FNV-1a over the addresses.
void Stacktrace::GenerateHash() noexcept {
    std::uint64_t h = 14695981039346656037ull;
    for (int i = 0; i < _numFrames; ++i) {
        h ^= reinterpret_cast<std::uintptr_t>(_frames[i]);
        h *= 1099511628211ull;
    }
    _hash = static_cast<std::size_t>(h);
}

int Stacktrace::Compare(const Stacktrace& other) const noexcept {
    if (_hash != other._hash) {
        return _hash < other._hash ? -1 : 1;
    }
    if (_numFrames != other._numFrames) {
        return _numFrames < other._numFrames ? -1 : 1;
    }
    for (int i = 0; i < _numFrames; ++i) {
        if (_frames[i] != other._frames[i]) {
            return reinterpret_cast<std::uintptr_t>(_frames[i]) <
                           reinterpret_cast<std::uintptr_t>(other._frames[i])
                       ? -1
                       : 1;
        }
    }
    return 0;
}

} // namespace System
} // namespace Tessera
