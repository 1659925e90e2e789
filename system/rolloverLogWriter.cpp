// The rolling log writer and the standard-stream writers.
//
// Files of a rolling writer named <name> in its directory:
//     <name>.log                the current file
//     <name>-1.log              the newest closed file
//     ...
//     <name>-<numFiles-1>.log   the oldest
// A record that would take the current file past the maximum size first
// rolls the files over: the oldest is deleted, every other one is renamed to
// the next number, oldest first, and a new current file is started. Each
// rename goes onto a name that no longer exists, so a failure part-way leaves
// every file whole and under some name; the writer then keeps appending to the
// current file and tries again later, resuming the roll where it stopped.

#include <tessera/exception.h>
#include <tessera/formatter.h>
#include <tessera/logger.h>

#include "system/platform/logFile.h"
#include "system/platform/nativeError.h"
#include "system/logWriters.h"

#include <chrono>
#include <filesystem>
#include <mutex>

namespace Tessera {
namespace System {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// How long a failed roll-over waits before it is tried again.
constexpr std::chrono::milliseconds kRetryDelay(200);

class StandardWriter final : public ObjectImpl, public Writer {
public:
    explicit StandardWriter(bool error) noexcept
        : _file(Platform::StandardStream(error)), _error(error) {}
    void Write(const char* data, int length) override {
        std::lock_guard<std::mutex> hold(_lock);
        if (const Platform::NativeError error =
                Platform::WriteLogFile(_file, data, static_cast<std::size_t>(length))) {
            ThrowSystemError(error, _error ? "Cannot write to standard error"
                                           : "Cannot write to standard output");
        }
    }
    void Flush() override {}

private:
    std::mutex _lock;
    const Platform::LogFile _file;
    const bool _error;
};

// Also the file roller: the same files with another extension and a header
// written at the top of each new file.
class RolloverLogWriter final : public ObjectImpl, public FileRoller {
public:
    RolloverLogWriter(const std::string& directory, const std::string& name,
                      std::int64_t maxSize, RolloverFailureAction action, std::int32_t numFiles,
                      const std::string& extension = ".log",
                      const std::string& header = std::string())
        : _directory(fs::u8path(directory)), _name(name), _maxSize(maxSize),
          _numFiles(numFiles), _action(action), _extension(extension), _header(header) {}

    ~RolloverLogWriter() override { Platform::CloseLogFile(_file); }

    void Start(bool append) {
        std::error_code ec;
        fs::create_directories(_directory, ec); // an error shows when the file is opened
        std::string failure;
        if (!append && fs::file_size(PathOf(0), ec) > 0 && !ec) {
            // Each run begins a new file.
            failure = TryRoll();
        }
        Open();
        if (!failure.empty()) Failed(failure);
    }

    void Write(const char* data, int length) override {
        TESSERA_ASSERT(length >= 0);
        std::string failure;
        {
            std::lock_guard<std::mutex> hold(_lock);
            if (_closed) {
                throw InvalidStateException("Log file " + PathOf(0).u8string() + " is closed");
            }
            if (_file == Platform::kNoLogFile) Open(); // a reopening that failed before
            // A file holding only its header is not rolled away.
            if (_size > static_cast<std::int64_t>(_header.size()) && _size + length > _maxSize &&
                Clock::now() >= _retryAt) {
                Platform::CloseLogFile(_file); // Windows renames no open file
                _file = Platform::kNoLogFile;
                failure = TryRoll();
                Open();
            }
            if (const Platform::NativeError error =
                    Platform::WriteLogFile(_file, data, static_cast<std::size_t>(length))) {
                ThrowFileError(error, "Cannot write log file", PathOf(0).u8string());
            }
            _size += length;
        }
        // Reported outside the lock: the report may come back to this writer.
        if (!failure.empty()) Failed(failure);
    }

    // Every record is with the system when Write returns.
    void Flush() override {}

    void Close() override {
        std::lock_guard<std::mutex> hold(_lock);
        Platform::CloseLogFile(_file);
        _file = Platform::kNoLogFile;
        _closed = true;
    }

    std::string GetPath() const override { return PathOf(0).u8string(); }

    void Roll() override {
        std::string failure;
        {
            std::lock_guard<std::mutex> hold(_lock);
            if (_closed) {
                throw InvalidStateException("File " + PathOf(0).u8string() + " is closed");
            }
            Platform::CloseLogFile(_file);
            _file = Platform::kNoLogFile;
            failure = TryRoll();
            Open();
        }
        if (!failure.empty()) Failed(failure);
    }

private:
    fs::path PathOf(int index) const {
        return _directory /
               fs::u8path(index == 0 ? _name + _extension
                                     : _name + "-" + std::to_string(index) + _extension);
    }

    // Opens the current file and learns its size; throws when it cannot.
    void Open() {
        const fs::path path = PathOf(0);
        if (const Platform::NativeError error = Platform::OpenLogFile(path.u8string(), false, _file)) {
            ThrowFileError(error, "Cannot open log file", path.u8string());
        }
        std::error_code ec;
        const std::uintmax_t size = fs::file_size(path, ec);
        _size = ec ? 0 : static_cast<std::int64_t>(size);
        if (_size == 0 && !_header.empty()) {
            if (const Platform::NativeError error =
                    Platform::WriteLogFile(_file, _header.data(), _header.size())) {
                ThrowFileError(error, "Cannot write file", path.u8string());
            }
            _size = static_cast<std::int64_t>(_header.size());
        }
    }

    // Moves every file one number up, so that the current name is free;
    // empty on success, else what failed. A roll that failed part-way left a
    // free number behind it: the next attempt moves only the files below that
    // number, so however often attempts fail, no file but the oldest of the
    // first attempt is ever deleted.
    std::string RollFiles() {
        std::error_code ec;
        int free = 1;
        while (free < _numFiles && fs::exists(fs::symlink_status(PathOf(free), ec))) ++free;
        if (free == _numFiles) {
            free = _numFiles - 1;
            const fs::path oldest = PathOf(free);
            if (!fs::remove(oldest, ec)) {
                return "cannot delete " + oldest.u8string() + ": " + ec.message();
            }
        }
        for (int i = free - 1; i >= 0; --i) {
            const fs::path from = PathOf(i);
            const fs::path to = PathOf(i + 1);
            if (!fs::exists(fs::symlink_status(from, ec))) continue;
            if (fs::exists(fs::symlink_status(to, ec))) {
                return "cannot rename " + from.u8string() + ": " + to.u8string() +
                       " still exists";
            }
            fs::rename(from, to, ec);
            if (ec) {
                return "cannot rename " + from.u8string() + " to " + to.u8string() + ": " +
                       ec.message();
            }
        }
        return std::string();
    }

    // Rolls over, or puts the next attempt off when that fails.
    std::string TryRoll() {
        std::string failure = RollFiles();
        _retryAt = failure.empty() ? Clock::time_point() : Clock::now() + kRetryDelay;
        return failure;
    }

    void Failed(const std::string& reason) {
        const std::string text = "Log rollover of " + PathOf(0).u8string() + " failed: " + reason;
        switch (_action) {
        case RolloverFailureAction::ABORT:
            PanicExit(text.c_str());
        case RolloverFailureAction::BREAK:
            if (Platform::DebuggerAttached()) Platform::BreakIntoDebugger();
            break;
        case RolloverFailureAction::CONTINUE:
            break;
        }
        TESSERA_LOG(Service::DefaultLogger(), Service::Logger::LOG_ERROR,
                    "%1; writing on to the current file", text);
    }

    const fs::path _directory;
    const std::string _name;
    const std::int64_t _maxSize;
    const std::int32_t _numFiles;
    const RolloverFailureAction _action;
    const std::string _extension;
    const std::string _header;

    std::mutex _lock;
    Platform::LogFile _file = Platform::kNoLogFile;
    std::int64_t _size = 0;
    Clock::time_point _retryAt;
    bool _closed = false;
};

} // namespace

RolloverFailureAction ParseRolloverFailureAction(const std::string& text) {
    if (text == "continue") return RolloverFailureAction::CONTINUE;
    if (text == "abort") return RolloverFailureAction::ABORT;
    if (text == "break") return RolloverFailureAction::BREAK;
    throw InvalidArgumentException("Bad failure action string");
}

Ref<Writer> NewRolloverLogWriter(const std::string& directory, const std::string& name,
                                 std::int64_t maxSize, std::int32_t numFiles,
                                 RolloverFailureAction action, bool append) {
    if (numFiles < 2) {
        throw InvalidArgumentException(
            MessageFormatter::ASPrint("At least two log files required. %1 specified", numFiles));
    }
    if (maxSize <= 0) {
        throw InvalidArgumentException(
            MessageFormatter::ASPrint("Log file size must be positive. %1 specified",
                                      static_cast<long long>(maxSize)));
    }
    Ref<RolloverLogWriter> writer(new RolloverLogWriter(directory, name, maxSize, action, numFiles));
    writer->Start(append);
    return writer;
}

Ref<FileRoller> NewFileRoller(const std::string& directory, const std::string& name,
                              const std::string& extension, const std::string& header,
                              RolloverFailureAction action, std::int32_t numFiles,
                              std::uint32_t maxSize) {
    if (numFiles < 2) {
        throw InvalidArgumentException(
            MessageFormatter::ASPrint("At least two files required. %1 specified", numFiles));
    }
    if (maxSize == 0) throw InvalidArgumentException("File size must be positive. 0 specified");
    if (name.empty()) throw InvalidArgumentException("A file roller needs a name");
    Ref<RolloverLogWriter> roller(new RolloverLogWriter(directory, name, maxSize, action,
                                                        numFiles, extension, header));
    roller->Start(true);
    return roller;
}

Ref<Writer> NewStandardWriter(bool error) { return new StandardWriter(error); }

} // namespace System
} // namespace Tessera
