// Windows side of the input files.

#include "system/platform/inputFile.h"

#include "win32/support.h"

#include <new>

namespace Tessera {
namespace System {
namespace Platform {

NativeError OpenInputFile(const std::string& path, InputFile& file, long long& size) noexcept {
    file = kNoInputFile;
    std::wstring wide;
    try {
        const NativeError error = Utf8ToWide(path, wide);
        if (error != kSuccess) return error;
    } catch (const std::bad_alloc&) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    // Backup semantics open a directory too, so that it is told apart from a
    // file that cannot be opened.
    ScopedHandle handle(::CreateFileW(wide.c_str(), GENERIC_READ,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                      nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    if (!handle.Valid()) return LastError();
    size = -1;
    if (::GetFileType(handle.Get()) == FILE_TYPE_DISK) {
        BY_HANDLE_FILE_INFORMATION info;
        if (!::GetFileInformationByHandle(handle.Get(), &info)) return LastError();
        if (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) return ERROR_DIRECTORY;
        size = static_cast<long long>((static_cast<unsigned long long>(info.nFileSizeHigh) << 32) |
                                      info.nFileSizeLow);
    }
    file = reinterpret_cast<InputFile>(handle.Release());
    return kSuccess;
}

NativeError ReadInputFile(InputFile file, char* buffer, std::size_t max,
                          std::size_t& count) noexcept {
    const DWORD ask = max > 0x40000000 ? 0x40000000 : static_cast<DWORD>(max);
    DWORD read = 0;
    count = 0;
    if (!::ReadFile(reinterpret_cast<HANDLE>(file), buffer, ask, &read, nullptr)) {
        const NativeError error = LastError();
        // The writing end of a pipe closed: the end of the input.
        return error == ERROR_BROKEN_PIPE ? kSuccess : error;
    }
    count = read;
    return kSuccess;
}

void CloseInputFile(InputFile file) noexcept { ::CloseHandle(reinterpret_cast<HANDLE>(file)); }

} // namespace Platform
} // namespace System
} // namespace Tessera
