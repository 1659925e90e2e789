// Windows side of the input files.

#include "system/platform/inputFile.h"

#include <windows.h>

#include <new>
#include <vector>

namespace Tessera {
namespace System {
namespace Platform {

NativeError OpenInputFile(const std::string& path, InputFile& file, long long& size) noexcept {
    file = kNoInputFile;
    const int n =
        ::MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, path.c_str(), -1, nullptr, 0);
    if (n <= 0) return static_cast<NativeError>(::GetLastError());
    std::vector<wchar_t> wide;
    try {
        wide.resize(static_cast<std::size_t>(n));
    } catch (const std::bad_alloc&) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    ::MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, path.c_str(), -1, wide.data(), n);
    // Backup semantics open a directory too, so that it is told apart from a
    // file that cannot be opened.
    HANDLE handle = ::CreateFileW(wide.data(), GENERIC_READ,
                                  FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                  OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (handle == INVALID_HANDLE_VALUE) return static_cast<NativeError>(::GetLastError());
    size = -1;
    if (::GetFileType(handle) == FILE_TYPE_DISK) {
        BY_HANDLE_FILE_INFORMATION info;
        if (!::GetFileInformationByHandle(handle, &info)) {
            const DWORD error = ::GetLastError();
            ::CloseHandle(handle);
            return static_cast<NativeError>(error);
        }
        if (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
            ::CloseHandle(handle);
            return ERROR_DIRECTORY;
        }
        size = static_cast<long long>((static_cast<unsigned long long>(info.nFileSizeHigh) << 32) |
                                      info.nFileSizeLow);
    }
    file = reinterpret_cast<InputFile>(handle);
    return kSuccess;
}

NativeError ReadInputFile(InputFile file, char* buffer, std::size_t max,
                          std::size_t& count) noexcept {
    const DWORD ask = max > 0x40000000 ? 0x40000000 : static_cast<DWORD>(max);
    DWORD read = 0;
    count = 0;
    if (!::ReadFile(reinterpret_cast<HANDLE>(file), buffer, ask, &read, nullptr)) {
        const DWORD error = ::GetLastError();
        // The writing end of a pipe closed: the end of the input.
        return error == ERROR_BROKEN_PIPE ? kSuccess : static_cast<NativeError>(error);
    }
    count = read;
    return kSuccess;
}

void CloseInputFile(InputFile file) noexcept {
    ::CloseHandle(reinterpret_cast<HANDLE>(file));
}

}  // namespace Platform
}  // namespace System
}  // namespace Tessera
