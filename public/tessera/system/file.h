// Files and directories, made by the system factory.
//
//     Ref<FileHandle> f;
//     GetSystemFactory()->GetFileHandle(path, FileHandle::OPEN_APPEND, f);
//     f->Write(record.data(), record.size());
//     f->Flush();   // on stable storage when this returns
//     f->Close();
//
// Paths are UTF-8 on every platform (UTF-16 is used underneath on Windows); a
// path that is not valid UTF-8 raises InvalidArgumentException when used.
// Handles are never inherited by child processes. Every failure raises a file
// exception of the tree naming the path: FileIONotFoundException,
// FileIOPermissionDeniedException, FileIOAlreadyExistsException,
// FileIONoSpaceException, FileIOLockFailedException, else FileIOException.
//
// Durability: Write hands the bytes to the operating system, which survives a
// crash of the process but not of the machine. Flush puts the file's data on
// stable storage (fdatasync on POSIX, FlushFileBuffers on Windows) as far as
// the disk honours the request; it does not make a newly created name
// durable: File::SyncDirectory does that on POSIX.
//
// Thread safety: distinct objects may be used from any threads; one handle is
// not to be used by two threads at once.
#pragma once

#include <tessera/api.h>
#include <tessera/object.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Tessera {
namespace System {

class TESSERA_EXPORT FileHandle : public virtual Object {
public:
    enum OpenMode {
        OPEN_READ, // reading an existing file
        OPEN_WRITE, // reading and writing, created when absent, at the start
        OPEN_APPEND, // writing at the end, created when absent
        OPEN_UPDATE, // reading and writing an existing file, at the start
        OPEN_CREATE, // reading and writing a new file; an existing one raises
                     // FileIOAlreadyExistsException
    };
    enum SeekOrigin { FROM_BEGIN, FROM_CURRENT, FROM_END };

    // Reads at most `length` bytes; returns the count read, 0 at the end.
    virtual std::size_t Read(void* buffer, std::size_t length) = 0;
    // Writes all `length` bytes, or raises.
    virtual void Write(const void* data, std::size_t length) = 0;
    // Moves the position and returns it, counted from the start.
    virtual std::int64_t Seek(std::int64_t offset, SeekOrigin origin) = 0;
    virtual std::int64_t GetSize() = 0;
    // Cuts the file to `size` bytes; the position stays where it was.
    virtual void Truncate(std::int64_t size) = 0;
    // Returns once the data written is on stable storage.
    virtual void Flush() = 0;
    // Releases the handle; later calls raise InvalidStateException. Closing
    // twice is harmless; destruction closes too, ignoring errors.
    virtual void Close() = 0;
    virtual const std::string& GetPath() const = 0;
};

// A path: what can be done to a file or directory without opening it.
class TESSERA_EXPORT File : public virtual Object {
public:
    struct Entry {
        std::string name; // without the directory
        bool isDirectory;
    };

    virtual const std::string& GetPath() const = 0;
    virtual bool Exists() = 0;
    virtual bool IsDirectory() = 0;
    // Removes the file (not a directory).
    virtual void Delete() = 0;
    // Removes the directory, which must be empty.
    virtual void DeleteEmptyDirectory() = 0;
    // Renames the file to `newPath`, replacing a file already there.
    virtual void Rename(const std::string& newPath) = 0;
    // Creates the directory and its missing parents; an existing directory
    // is fine.
    virtual void MakeDirectories() = 0;
    // The entries of the directory, sorted by name.
    virtual void List(std::vector<Entry>& out) = 0;
    // Makes the creation, renaming or removal of names inside this directory
    // durable (fsync of the directory on POSIX; nothing to do on Windows).
    virtual void SyncDirectory() = 0;
    // The path of the directory holding this path ("." for a bare name).
    virtual std::string GetParent() const = 0;
};

// The separator that joins directory and name on this platform: '/' on
// POSIX, '\\' on Windows.
TESSERA_EXPORT char GetPathSeparator() noexcept;

} // namespace System
} // namespace Tessera
