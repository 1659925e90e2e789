// Stacktrace: the return addresses of a thread's stack, as a value.
//
// Capturing stores at most MAX_FRAMES addresses and a hash of them; it does
// not resolve names, so it is cheap enough to do for every exception thrown.
// Names come later, from the Backtrace text (system/system.h).
//
// Capture() uses the platform's fast unwinder. CaptureFull() uses the most
// thorough one the platform has (on Windows the debug-help stack walker, which
// also crosses frames without unwind data); where the platform has only one,
// both are the same. `skip` drops that many of the innermost frames above the
// caller of Capture.
#pragma once

#include <tessera/api.h>

#include <cstddef>

namespace Tessera {
namespace System {

class TESSERA_EXPORT Stacktrace {
public:
    enum { MAX_FRAMES = 62 };

    Stacktrace() noexcept;

    void Capture() noexcept;
    void Capture(int skip) noexcept;
    void CaptureFull() noexcept;
    void CaptureFull(int skip) noexcept;

    int GetNumStackFrames() const noexcept { return _numFrames; }
    void* GetStackFrame(int i) const noexcept;
    void* const* GetStackFrames() const noexcept { return _frames; }
    std::size_t GetHash() const noexcept { return _hash; }

    // Orders by hash, then frame count, then the frames: a total order in
    // which equal traces compare 0.
    int Compare(const Stacktrace& other) const noexcept;
    bool operator==(const Stacktrace& o) const noexcept { return Compare(o) == 0; }
    bool operator!=(const Stacktrace& o) const noexcept { return Compare(o) != 0; }
    bool operator<(const Stacktrace& o) const noexcept { return Compare(o) < 0; }

private:
    void GenerateHash() noexcept;

    void* _frames[MAX_FRAMES];
    int _numFrames;
    std::size_t _hash;
};

} // namespace System
} // namespace Tessera
