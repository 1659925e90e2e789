// The plain file writer of SystemFactory::CreateFileWriter, over the log
// writers' file layer: appending, unbuffered, not inherited.

#include <tessera/exception.h>

#include "system/logWriters.h"
#include "system/platform/logFile.h"
#include "system/platform/nativeError.h"
#include "system/utf8.h"

#include <filesystem>
#include <mutex>

namespace Tessera {
namespace System {
namespace {

namespace fs = std::filesystem;

class FileWriter final : public ObjectImpl, public Writer {
public:
    FileWriter(const std::string& path, const std::string& header, bool append) : _path(path) {
        RequireUtf8(path, "Path");
        if (const Platform::NativeError error = Platform::OpenLogFile(path, !append, _file)) {
            ThrowFileError(error, "Cannot open file", path);
        }
        if (header.empty()) return;
        std::error_code ec;
        const std::uintmax_t size = fs::file_size(fs::u8path(path), ec);
        if (!ec && size > 0) return;
        if (const Platform::NativeError error =
                Platform::WriteLogFile(_file, header.data(), header.size())) {
            Platform::CloseLogFile(_file);
            ThrowFileError(error, "Cannot write file", path);
        }
    }

    ~FileWriter() override { Platform::CloseLogFile(_file); }

    void Write(const char* data, int length) override {
        TESSERA_ASSERT(length >= 0);
        std::lock_guard<std::mutex> hold(_lock);
        if (_file == Platform::kNoLogFile) {
            throw InvalidStateException("File '" + _path + "' is closed");
        }
        if (const Platform::NativeError error =
                Platform::WriteLogFile(_file, data, static_cast<std::size_t>(length))) {
            ThrowFileError(error, "Cannot write file", _path);
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
