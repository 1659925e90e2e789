// Windows side of the log writers' file layer.

#include "system/logFilePlatform.h"

#include <windows.h>

#include <vector>

namespace Tessera {
namespace System {
namespace Platform {

LogFile OpenLogFile(const std::string& path, int& error, bool truncate) noexcept {
    const int n = ::MultiByteToWideChar(CP_UTF8, 0, path.c_str(), -1, nullptr, 0);
    if (n <= 0) {
        error = static_cast<int>(::GetLastError());
        return kNoLogFile;
    }
    std::vector<wchar_t> wide(static_cast<std::size_t>(n));
    ::MultiByteToWideChar(CP_UTF8, 0, path.c_str(), -1, wide.data(), n);
    if (truncate) {
        // Appending access cannot empty a file: a writing handle does, and is
        // closed before the appending one is opened.
        HANDLE emptied = ::CreateFileW(wide.data(), GENERIC_WRITE,
                                       FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                       nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
        if (emptied == INVALID_HANDLE_VALUE) {
            error = static_cast<int>(::GetLastError());
            return kNoLogFile;
        }
        ::CloseHandle(emptied);
    }
    // Appending access only: every write goes to the end. Others may read,
    // write, rename and delete the file while it is open. The handle is not
    // inheritable (no security attributes).
    HANDLE file = ::CreateFileW(wide.data(), FILE_APPEND_DATA | SYNCHRONIZE,
                                FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        error = static_cast<int>(::GetLastError());
        return kNoLogFile;
    }
    return reinterpret_cast<LogFile>(file);
}

LogFileError ClassifyLogFileError(int error) noexcept {
    switch (static_cast<DWORD>(error)) {
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
    case ERROR_INVALID_DRIVE:
    case ERROR_BAD_NETPATH:
        return LogFileError::NOT_FOUND;
    case ERROR_ACCESS_DENIED:
    case ERROR_WRITE_PROTECT:
    case ERROR_SHARING_VIOLATION:
        return LogFileError::PERMISSION_DENIED;
    default:
        return LogFileError::OTHER;
    }
}

bool WriteLogFile(LogFile file, const char* data, std::size_t length, int& error) noexcept {
    HANDLE handle = reinterpret_cast<HANDLE>(file);
    while (length > 0) {
        const DWORD chunk = length > 0x40000000u ? 0x40000000u : static_cast<DWORD>(length);
        DWORD written = 0;
        if (!::WriteFile(handle, data, chunk, &written, nullptr)) {
            error = static_cast<int>(::GetLastError());
            return false;
        }
        data += written;
        length -= written;
    }
    return true;
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
