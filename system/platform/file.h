// The file layer's back end, implemented in posix/file.cpp and win32/file.cpp.
//
// Every function returns a native error code (kSuccess when it worked) and
// never logs or throws: the portable layer (system/file.cpp) turns a failure
// into an exception naming the path. Paths are UTF-8; the Windows back end
// converts them to UTF-16. Files are never inherited by child processes
// (O_CLOEXEC; handles made without inheritance).
#pragma once

#include "system/platform/nativeError.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Tessera {
namespace System {
namespace Platform {

// A file descriptor or a handle.
using NativeFile = std::intptr_t;
constexpr NativeFile kNoNativeFile = -1;

enum class NativeOpenMode {
    READ,    // read only, the file must exist
    WRITE,   // read and write, created when absent, positioned at the start
    APPEND,  // write only, created when absent, every write at the end
    UPDATE,  // read and write, the file must exist
    CREATE,  // read and write, the file must not exist yet
};

enum class NativeSeekOrigin { BEGIN, CURRENT, END };

struct NativeDirEntry {
    std::string name;  // UTF-8, without the directory
    bool isDirectory;
};

NativeError OpenNativeFile(const std::string& path, NativeOpenMode mode, NativeFile& out) noexcept;
// Reads at most `length` bytes; `done` is 0 at the end of the file.
NativeError ReadNativeFile(NativeFile file, void* buffer, std::size_t length,
                           std::size_t& done) noexcept;
// Writes all `length` bytes or fails.
NativeError WriteNativeFile(NativeFile file, const void* data, std::size_t length) noexcept;
// Moves the position; `position` receives the new one from the start.
NativeError SeekNativeFile(NativeFile file, std::int64_t offset, NativeSeekOrigin origin,
                           std::int64_t& position) noexcept;
NativeError NativeFileSize(NativeFile file, std::int64_t& size) noexcept;
// Cuts the file to `size` bytes (the position is left where it was).
NativeError TruncateNativeFile(NativeFile file, std::int64_t size) noexcept;
// The file's data on stable storage: fdatasync, FlushFileBuffers.
NativeError SyncNativeFile(NativeFile file) noexcept;
NativeError CloseNativeFile(NativeFile file) noexcept;

NativeError RemoveNativeFile(const std::string& path) noexcept;
// Replaces `to` when it exists.
NativeError RenameNativeFile(const std::string& from, const std::string& to) noexcept;
// One directory; its parent must exist. An existing directory is success.
NativeError MakeNativeDirectory(const std::string& path) noexcept;
NativeError RemoveNativeDirectory(const std::string& path) noexcept;
// The entries of a directory without "." and "..", in no particular order.
NativeError ListNativeDirectory(const std::string& path, std::vector<NativeDirEntry>& out) noexcept;
// Whether `path` names something, and whether that is a directory.
NativeError StatNativePath(const std::string& path, bool& exists, bool& isDirectory) noexcept;
// Makes the creation, renaming or removal of entries of the directory durable:
// fsync of the directory on POSIX; nothing on Windows, whose file systems
// commit their metadata with the file's own flush.
NativeError SyncNativeDirectory(const std::string& path) noexcept;
// The directory for temporary files, without a trailing separator.
NativeError NativeTempDirectory(std::string& out) noexcept;

// The separator of path components.
char NativePathSeparator() noexcept;

}  // namespace Platform
}  // namespace System
}  // namespace Tessera
