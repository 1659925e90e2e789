// Windows side of the log writers' file layer.

#include "system/platform/logFile.h"
#include "win32/support.h"

#include <windows.h>


namespace Tessera {
namespace System {
namespace Platform {

NativeError OpenLogFile(const std::string& path, bool truncate, LogFile& file) noexcept {
    std::wstring wide;
    if (const NativeError error = Utf8ToWide(path, wide)) return error;
    if (truncate) {
        // Appending access cannot empty a file: a writing handle does, and is
        // closed before the appending one is opened.
        ScopedHandle emptied(::CreateFileW(wide.c_str(), GENERIC_WRITE,
                                           FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                           nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
        if (!emptied.Valid()) return LastError();
    }
    // Appending access only: every write goes to the end. Others may read,
    // write, rename and delete the file while it is open. The handle is not
    // inheritable (no security attributes).
    HANDLE handle = ::CreateFileW(wide.c_str(), FILE_APPEND_DATA | SYNCHRONIZE,
                                  FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                  OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle == INVALID_HANDLE_VALUE) return LastError();
    file = reinterpret_cast<LogFile>(handle);
    return kSuccess;
}

NativeError WriteLogFile(LogFile file, const char* data, std::size_t length) noexcept {
    HANDLE handle = reinterpret_cast<HANDLE>(file);
    while (length > 0) {
        const DWORD chunk = length > 0x40000000u ? 0x40000000u : static_cast<DWORD>(length);
        DWORD written = 0;
        if (!::WriteFile(handle, data, chunk, &written, nullptr)) return LastError();
        data += written;
        length -= written;
    }
    return kSuccess;
}

void CloseLogFile(LogFile file) noexcept {
    if (file != kNoLogFile) ::CloseHandle(reinterpret_cast<HANDLE>(file));
}

LogFile StandardStream(bool error) noexcept {
    return reinterpret_cast<LogFile>(::GetStdHandle(error ? STD_ERROR_HANDLE : STD_OUTPUT_HANDLE));
}

bool DebuggerAttached() noexcept { return ::IsDebuggerPresent() != FALSE; }

void BreakIntoDebugger() noexcept { ::DebugBreak(); }

} // namespace Platform
} // namespace System
} // namespace Tessera
