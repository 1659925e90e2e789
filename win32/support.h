// What the Windows back ends keep needing: UTF-8 and UTF-16 conversions, a
// handle closed by its owner's destructor, FILETIME arithmetic, the calling
// thread's last error as a native error code. Only files in win32/ include it.
#pragma once

#include "system/platform/nativeError.h"

#include <windows.h>

#include <cstdint>
#include <string>

namespace Tessera {
namespace System {
namespace Platform {

inline NativeError LastError() noexcept { return static_cast<NativeError>(::GetLastError()); }

// UTF-8 to UTF-16; kSuccess, or the error of an invalid UTF-8 text.
NativeError Utf8ToWide(const std::string& text, std::wstring& wide);
// UTF-16 to UTF-8; `length` characters, or up to the terminator when -1.
// Characters that are not valid UTF-16 become U+FFFD.
std::string WideToUtf8(const wchar_t* text, int length = -1);

// Owns a kernel handle (null and INVALID_HANDLE_VALUE both mean none).
class ScopedHandle {
public:
    ScopedHandle() noexcept = default;
    explicit ScopedHandle(HANDLE handle) noexcept : _handle(handle) {}
    ~ScopedHandle() { Reset(); }
    ScopedHandle(ScopedHandle&& other) noexcept : _handle(other.Release()) {}
    ScopedHandle& operator=(ScopedHandle&& other) noexcept {
        if (this != &other) Reset(other.Release());
        return *this;
    }
    ScopedHandle(const ScopedHandle&) = delete;
    ScopedHandle& operator=(const ScopedHandle&) = delete;

    bool Valid() const noexcept { return _handle != nullptr && _handle != INVALID_HANDLE_VALUE; }
    HANDLE Get() const noexcept { return _handle; }
    // Gives the handle up without closing it.
    HANDLE Release() noexcept {
        HANDLE handle = _handle;
        _handle = nullptr;
        return handle;
    }
    void Reset(HANDLE handle = nullptr) noexcept {
        if (Valid()) ::CloseHandle(_handle);
        _handle = handle;
    }

private:
    HANDLE _handle = nullptr;
};

// A FILETIME as its 100-nanosecond ticks, and back.
inline std::uint64_t FileTimeTicks(const FILETIME& time) noexcept {
    return (static_cast<std::uint64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
}
inline FILETIME TicksToFileTime(std::uint64_t ticks) noexcept {
    FILETIME time;
    time.dwLowDateTime = static_cast<DWORD>(ticks & 0xffffffffu);
    time.dwHighDateTime = static_cast<DWORD>(ticks >> 32);
    return time;
}

} // namespace Platform
} // namespace System
} // namespace Tessera
