// The plain file writer of SystemFactory::CreateFileWriter, over the log
// writers' file layer: appending, unbuffered, not inherited.

#include <tessera/exception.h>

#include "system/logFilePlatform.h"
#include "system/logWriters.h"

#include <filesystem>
#include <mutex>

namespace Tessera {
namespace System {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void ThrowFileError(const std::string& what, const std::string& path, int error) {
    const std::string text =
        "Cannot " + what + " file '" + path + "': " + SystemException::GetSystemMessage(error);
    switch (Platform::ClassifyLogFileError(error)) {
    case Platform::LogFileError::NOT_FOUND:
        throw FileIONotFoundException(text);
    case Platform::LogFileError::PERMISSION_DENIED:
        throw FileIOPermissionDeniedException(text);
    case Platform::LogFileError::OTHER:
        break;
    }
    throw FileIOException(text);
}

class FileWriter final : public ObjectImpl, public Writer {
public:
    FileWriter(const std::string& path, const std::string& header, bool append) : _path(path) {
        int error = 0;
        _file = Platform::OpenLogFile(path, error, !append);
        if (_file == Platform::kNoLogFile) ThrowFileError("open", path, error);
        if (header.empty()) return;
        std::error_code ec;
        const std::uintmax_t size = fs::file_size(fs::u8path(path), ec);
        if (!ec && size > 0) return;
        if (!Platform::WriteLogFile(_file, header.data(), header.size(), error)) {
            Platform::CloseLogFile(_file);
            ThrowFileError("write", path, error);
        }
    }

    ~FileWriter() override { Platform::CloseLogFile(_file); }

    void Write(const char* data, int length) override {
        TESSERA_ASSERT(length >= 0);
        std::lock_guard<std::mutex> hold(_lock);
        if (_file == Platform::kNoLogFile) {
            throw InvalidStateException("File '" + _path + "' is closed");
        }
        int error = 0;
        if (!Platform::WriteLogFile(_file, data, static_cast<std::size_t>(length), error)) {
            ThrowFileError("write", _path, error);
        }
    }

    // Every Write is with the system when it returns.
    void Flush() override {}

    void Close() override {
        std::lock_guard<std::mutex> hold(_lock);
        Platform::CloseLogFile(_file);
        _file = Platform::kNoLogFile;
    }

private:
    const std::string _path;
    std::mutex _lock;
    Platform::LogFile _file = Platform::kNoLogFile;
};

} // namespace

Ref<Writer> NewFileWriter(const std::string& path, const std::string& header, bool append) {
    return new FileWriter(path, header, append);
}

} // namespace System
} // namespace Tessera
