// Windows back end of the file layer: wide-character Win32 calls, the
// GetLastError code returned. No Tessera name that <windows.h> rewrites
// (CreateFile, DeleteFile, CreateDirectory) is visible here.

#include "system/platform/file.h"
#include "win32/support.h"

#include <windows.h>

namespace Tessera {
namespace System {
namespace Platform {
namespace {

static_assert(static_cast<DWORD>(NativeSeekOrigin::BEGIN) == FILE_BEGIN &&
                  static_cast<DWORD>(NativeSeekOrigin::CURRENT) == FILE_CURRENT &&
                  static_cast<DWORD>(NativeSeekOrigin::END) == FILE_END,
              "seek origins must match the system's move methods");

// Utf8ToWide for the noexcept back end: a failed allocation is an error.
NativeError Widen(const std::string& path, std::wstring& out) noexcept {
    try {
        return Utf8ToWide(path, out);
    } catch (...) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
}

HANDLE AsHandle(NativeFile file) noexcept { return reinterpret_cast<HANDLE>(file); }

} // namespace

NativeError OpenNativeFile(const std::string& path, NativeOpenMode mode, NativeFile& out) noexcept {
    std::wstring wide;
    if (const NativeError error = Widen(path, wide)) return error;
    DWORD access = GENERIC_READ;
    DWORD disposition = OPEN_EXISTING;
    switch (mode) {
    case NativeOpenMode::READ: break;
    case NativeOpenMode::WRITE:
        access = GENERIC_READ | GENERIC_WRITE;
        disposition = OPEN_ALWAYS;
        break;
    case NativeOpenMode::APPEND:
        access = FILE_APPEND_DATA | SYNCHRONIZE;
        disposition = OPEN_ALWAYS;
        break;
    case NativeOpenMode::UPDATE: access = GENERIC_READ | GENERIC_WRITE; break;
    case NativeOpenMode::CREATE:
        access = GENERIC_READ | GENERIC_WRITE;
        disposition = CREATE_NEW;
        break;
    }
    // No security attributes: the handle is not inherited.
    const HANDLE h =
        ::CreateFileW(wide.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                      nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (h == INVALID_HANDLE_VALUE) return LastError();
    out = reinterpret_cast<NativeFile>(h);
    return kSuccess;
}

NativeError ReadNativeFile(NativeFile file, void* buffer, std::size_t length,
                           std::size_t& done) noexcept {
    const DWORD chunk = length > 0x40000000u ? 0x40000000u : static_cast<DWORD>(length);
    DWORD n = 0;
    if (!::ReadFile(AsHandle(file), buffer, chunk, &n, nullptr)) {
        const NativeError error = LastError();
        if (error != ERROR_HANDLE_EOF && error != ERROR_BROKEN_PIPE) return error;
        n = 0;
    }
    done = n;
    return kSuccess;
}

NativeError WriteNativeFile(NativeFile file, const void* data, std::size_t length) noexcept {
    const char* p = static_cast<const char*>(data);
    while (length > 0) {
        const DWORD chunk = length > 0x40000000u ? 0x40000000u : static_cast<DWORD>(length);
        DWORD n = 0;
        if (!::WriteFile(AsHandle(file), p, chunk, &n, nullptr)) return LastError();
        if (n == 0) return ERROR_WRITE_FAULT;
        p += n;
        length -= n;
    }
    return kSuccess;
}

NativeError SeekNativeFile(NativeFile file, std::int64_t offset, NativeSeekOrigin origin,
                           std::int64_t& position) noexcept {
    LARGE_INTEGER distance;
    distance.QuadPart = offset;
    LARGE_INTEGER at;
    if (!::SetFilePointerEx(AsHandle(file), distance, &at, static_cast<DWORD>(origin))) {
        return LastError();
    }
    position = at.QuadPart;
    return kSuccess;
}

NativeError NativeFileSize(NativeFile file, std::int64_t& size) noexcept {
    LARGE_INTEGER s;
    if (!::GetFileSizeEx(AsHandle(file), &s)) return LastError();
    size = s.QuadPart;
    return kSuccess;
}

NativeError TruncateNativeFile(NativeFile file, std::int64_t size) noexcept {
    FILE_END_OF_FILE_INFO info;
    info.EndOfFile.QuadPart = size;
    if (!::SetFileInformationByHandle(AsHandle(file), FileEndOfFileInfo, &info, sizeof(info))) {
        return LastError();
    }
    return kSuccess;
}

NativeError SyncNativeFile(NativeFile file) noexcept {
    return ::FlushFileBuffers(AsHandle(file)) ? kSuccess : LastError();
}

NativeError CloseNativeFile(NativeFile file) noexcept {
    return ::CloseHandle(AsHandle(file)) ? kSuccess : LastError();
}

NativeError RemoveNativeFile(const std::string& path) noexcept {
    std::wstring wide;
    if (const NativeError error = Widen(path, wide)) return error;
    return ::DeleteFileW(wide.c_str()) ? kSuccess : LastError();
}

NativeError RenameNativeFile(const std::string& from, const std::string& to) noexcept {
    std::wstring a, b;
    if (const NativeError error = Widen(from, a)) return error;
    if (const NativeError error = Widen(to, b)) return error;
    return ::MoveFileExW(a.c_str(), b.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)
               ? kSuccess
               : LastError();
}

NativeError MakeNativeDirectory(const std::string& path) noexcept {
    std::wstring wide;
    if (const NativeError error = Widen(path, wide)) return error;
    if (::CreateDirectoryW(wide.c_str(), nullptr)) return kSuccess;
    const NativeError error = LastError();
    if (error == ERROR_ALREADY_EXISTS) {
        const DWORD attributes = ::GetFileAttributesW(wide.c_str());
        if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY)) {
            return kSuccess;
        }
    }
    return error;
}

NativeError RemoveNativeDirectory(const std::string& path) noexcept {
    std::wstring wide;
    if (const NativeError error = Widen(path, wide)) return error;
    return ::RemoveDirectoryW(wide.c_str()) ? kSuccess : LastError();
}

NativeError ListNativeDirectory(const std::string& path,
                                std::vector<NativeDirEntry>& out) noexcept {
    std::wstring wide;
    if (const NativeError error = Widen(path + "\\*", wide)) return error;
    WIN32_FIND_DATAW data;
    const HANDLE find = ::FindFirstFileW(wide.c_str(), &data);
    if (find == INVALID_HANDLE_VALUE) return LastError();
    NativeError result = kSuccess;
    try {
        do {
            const std::string name = WideToUtf8(data.cFileName);
            if (name == "." || name == "..") continue;
            out.push_back(
                NativeDirEntry{name, (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0});
        } while (::FindNextFileW(find, &data));
        const NativeError error = LastError();
        if (error != ERROR_NO_MORE_FILES) result = error;
    } catch (...) {
        result = ERROR_NOT_ENOUGH_MEMORY;
    }
    ::FindClose(find);
    return result;
}

NativeError StatNativePath(const std::string& path, bool& exists, bool& isDirectory) noexcept {
    std::wstring wide;
    if (const NativeError error = Widen(path, wide)) return error;
    const DWORD attributes = ::GetFileAttributesW(wide.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES) {
        const NativeError error = LastError();
        if (error != ERROR_FILE_NOT_FOUND && error != ERROR_PATH_NOT_FOUND) return error;
        exists = false;
        isDirectory = false;
        return kSuccess;
    }
    exists = true;
    isDirectory = (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    return kSuccess;
}

NativeError SyncNativeDirectory(const std::string&) noexcept { return kSuccess; }

NativeError NativeTempDirectory(std::string& out) noexcept {
    wchar_t buffer[MAX_PATH + 2];
    const DWORD n = ::GetTempPathW(MAX_PATH + 2, buffer);
    if (n == 0 || n > MAX_PATH + 1) return LastError();
    try {
        out = WideToUtf8(buffer);
        while (out.size() > 3 && (out.back() == '\\' || out.back() == '/')) out.pop_back();
    } catch (...) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    return kSuccess;
}

char NativePathSeparator() noexcept { return '\\'; }

} // namespace Platform
} // namespace System
} // namespace Tessera
