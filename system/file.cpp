// The file layer: handles and paths over the platform back end, failures
// raised through the one native-error mapper.

#include <tessera/exception.h>
#include <tessera/system/file.h>

#include "system/platform/file.h"
#include "system/platform/nativeError.h"
#include "system/systemFactoryImpl.h"
#include "system/utf8.h"

#include <algorithm>

namespace Tessera {
namespace System {
namespace {

using Platform::kSuccess;
using Platform::NativeError;

static_assert(static_cast<int>(FileHandle::FROM_BEGIN) ==
                      static_cast<int>(Platform::NativeSeekOrigin::BEGIN) &&
                  static_cast<int>(FileHandle::FROM_CURRENT) ==
                      static_cast<int>(Platform::NativeSeekOrigin::CURRENT) &&
                  static_cast<int>(FileHandle::FROM_END) ==
                      static_cast<int>(Platform::NativeSeekOrigin::END),
              "seek origins must match the back end's");

void Check(NativeError error, const char* what, const std::string& path) {
    if (error != kSuccess) ThrowFileError(error, what, path);
}

class FileHandleImpl final : public ObjectImpl, public FileHandle {
public:
    FileHandleImpl(const std::string& path, OpenMode mode) : _path(path) {
        RequireUtf8(path, "Path");
        Platform::NativeOpenMode native = Platform::NativeOpenMode::READ;
        if (mode == OPEN_WRITE) native = Platform::NativeOpenMode::WRITE;
        if (mode == OPEN_APPEND) native = Platform::NativeOpenMode::APPEND;
        if (mode == OPEN_UPDATE) native = Platform::NativeOpenMode::UPDATE;
        if (mode == OPEN_CREATE) native = Platform::NativeOpenMode::CREATE;
        Check(Platform::OpenNativeFile(path, native, _file), "Cannot open file", path);
    }
    ~FileHandleImpl() override {
        if (_file != Platform::kNoNativeFile) Platform::CloseNativeFile(_file);
    }

    // FileHandle:
    std::size_t Read(void* buffer, std::size_t length) override {
        std::size_t done = 0;
        Check(Platform::ReadNativeFile(Open(), buffer, length, done), "Cannot read file", _path);
        return done;
    }
    void Write(const void* data, std::size_t length) override {
        Check(Platform::WriteNativeFile(Open(), data, length), "Cannot write file", _path);
    }
    std::int64_t Seek(std::int64_t offset, SeekOrigin origin) override {
        std::int64_t position = 0;
        Check(Platform::SeekNativeFile(Open(), offset,
                                       static_cast<Platform::NativeSeekOrigin>(origin), position),
              "Cannot seek in file", _path);
        return position;
    }
    std::int64_t GetSize() override {
        std::int64_t size = 0;
        Check(Platform::NativeFileSize(Open(), size), "Cannot get the size of file", _path);
        return size;
    }
    void Truncate(std::int64_t size) override {
        Check(Platform::TruncateNativeFile(Open(), size), "Cannot truncate file", _path);
    }
    void Flush() override { Check(Platform::SyncNativeFile(Open()), "Cannot flush file", _path); }
    void Close() override {
        if (_file == Platform::kNoNativeFile) return;
        const Platform::NativeFile file = _file;
        _file = Platform::kNoNativeFile;
        Check(Platform::CloseNativeFile(file), "Cannot close file", _path);
    }
    const std::string& GetPath() const override { return _path; }

private:
    Platform::NativeFile Open() const {
        if (_file == Platform::kNoNativeFile) {
            throw InvalidStateException("File '" + _path + "' is closed");
        }
        return _file;
    }

    const std::string _path;
    Platform::NativeFile _file = Platform::kNoNativeFile;
};

bool IsSeparator(char c) {
    return c == '/' || (Platform::NativePathSeparator() == '\\' && c == '\\');
}

class FileImpl final : public ObjectImpl, public File {
public:
    explicit FileImpl(const std::string& path) : _path(path) {}

    // File:
    const std::string& GetPath() const override { return _path; }
    bool Exists() override {
        bool exists = false, isDirectory = false;
        Check(Platform::StatNativePath(Checked(), exists, isDirectory), "Cannot examine", _path);
        return exists;
    }
    bool IsDirectory() override {
        bool exists = false, isDirectory = false;
        Check(Platform::StatNativePath(Checked(), exists, isDirectory), "Cannot examine", _path);
        return isDirectory;
    }
    void Delete() override {
        Check(Platform::RemoveNativeFile(Checked()), "Cannot delete file", _path);
    }
    void DeleteEmptyDirectory() override {
        Check(Platform::RemoveNativeDirectory(Checked()), "Cannot delete directory", _path);
    }
    void Rename(const std::string& newPath) override {
        RequireUtf8(newPath, "Path");
        Check(Platform::RenameNativeFile(Checked(), newPath), "Cannot rename file",
              _path + "' to '" + newPath);
    }
    void MakeDirectories() override {
        // Each prefix that ends before a separator, then the whole path;
        // roots ("/", "C:\") and empty components are skipped.
        Checked();
        std::string::size_type at = 0;
        while (at < _path.size()) {
            std::string::size_type next = at;
            while (next < _path.size() && !IsSeparator(_path[next])) ++next;
            const std::string prefix = _path.substr(0, next);
            const bool root = prefix.empty() || (prefix.size() == 2 && prefix[1] == ':');
            if (!root && next > at) {
                Check(Platform::MakeNativeDirectory(prefix), "Cannot create directory", prefix);
            }
            at = next + 1;
        }
    }
    void List(std::vector<Entry>& out) override {
        std::vector<Platform::NativeDirEntry> entries;
        Check(Platform::ListNativeDirectory(Checked(), entries), "Cannot list directory", _path);
        out.clear();
        out.reserve(entries.size());
        for (Platform::NativeDirEntry& e : entries) {
            out.push_back(Entry{std::move(e.name), e.isDirectory});
        }
        std::sort(out.begin(), out.end(),
                  [](const Entry& a, const Entry& b) { return a.name < b.name; });
    }
    void SyncDirectory() override {
        Check(Platform::SyncNativeDirectory(Checked()), "Cannot flush directory", _path);
    }
    std::string GetParent() const override {
        std::string::size_type end = _path.size();
        while (end > 1 && IsSeparator(_path[end - 1])) --end;
        while (end > 0 && !IsSeparator(_path[end - 1])) --end;
        if (end == 0) return ".";
        while (end > 1 && IsSeparator(_path[end - 1])) --end;
        return _path.substr(0, end);
    }

private:
    // The path, once it is known to be UTF-8 (a path object itself touches
    // nothing until used).
    const std::string& Checked() const {
        RequireUtf8(_path, "Path");
        return _path;
    }

    const std::string _path;
};

} // namespace

char GetPathSeparator() noexcept { return Platform::NativePathSeparator(); }

void SystemFactoryImpl::GetFile(const std::string& path, Ref<File>& out) {
    out = new FileImpl(path);
}

void SystemFactoryImpl::GetFileHandle(const std::string& path, FileHandle::OpenMode mode,
                                      Ref<FileHandle>& out) {
    out = new FileHandleImpl(path, mode);
}

void SystemFactoryImpl::GetTempDir(std::string& out) {
    Check(Platform::NativeTempDirectory(out), "Cannot find", "the temporary directory");
}

} // namespace System
} // namespace Tessera
