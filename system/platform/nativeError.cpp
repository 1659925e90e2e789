// The portable mapper from native errors to the exception tree.

#include "system/platform/nativeError.h"

#include <tessera/assert.h>

namespace Tessera {
namespace System {
namespace {

std::unique_ptr<Exception> FileErrorOfKind(Platform::ErrorKind kind, const std::string& message) {
    using Platform::ErrorKind;
    switch (kind) {
    case ErrorKind::NotFound: return std::make_unique<FileIONotFoundException>(message);
    case ErrorKind::PermissionDenied:
        return std::make_unique<FileIOPermissionDeniedException>(message);
    case ErrorKind::AlreadyExists: return std::make_unique<FileIOAlreadyExistsException>(message);
    case ErrorKind::NoSpace: return std::make_unique<FileIONoSpaceException>(message);
    case ErrorKind::LockFailed: return std::make_unique<FileIOLockFailedException>(message);
    case ErrorKind::InvalidText: return std::make_unique<InvalidArgumentException>(message);
    default: return std::make_unique<FileIOException>(message);
    }
}

// The kind of an error of the standard library, by its portable condition.
Platform::ErrorKind ClassifyErrorCode(const std::error_code& error) {
    using Platform::ErrorKind;
    if (error.category() == std::system_category()) {
        return Platform::ClassifyNativeError(error.value());
    }
    if (error == std::errc::no_such_file_or_directory || error == std::errc::not_a_directory) {
        return ErrorKind::NotFound;
    }
    if (error == std::errc::permission_denied || error == std::errc::operation_not_permitted ||
        error == std::errc::read_only_file_system) {
        return ErrorKind::PermissionDenied;
    }
    if (error == std::errc::file_exists) return ErrorKind::AlreadyExists;
    if (error == std::errc::no_space_on_device) return ErrorKind::NoSpace;
    if (error == std::errc::no_lock_available) return ErrorKind::LockFailed;
    if (error == std::errc::illegal_byte_sequence) return ErrorKind::InvalidText;
    return ErrorKind::Other;
}

// Throws `e` as its dynamic type. Exception::Throw never returns, but the
// compiler cannot see that through a virtual call.
[[noreturn]] void Raise(const std::unique_ptr<Exception>& e) {
    e->Throw();
    PanicExit("Exception::Throw returned");
}

} // namespace

std::unique_ptr<Exception> FileError(Platform::NativeError error, const std::string& what,
                                     const std::string& path) {
    return FileErrorOfKind(Platform::ClassifyNativeError(error),
                           what + " '" + path + "': " + SystemException::GetSystemMessage(error));
}

std::unique_ptr<Exception> FileError(const std::error_code& error, const std::string& what,
                                     const std::string& path) {
    return FileErrorOfKind(ClassifyErrorCode(error), what + " '" + path + "': " + error.message());
}

std::unique_ptr<Exception> SystemError(Platform::NativeError error, const std::string& operation) {
    using Platform::ErrorKind;
    const std::string message = operation + ": " + SystemException::GetSystemMessage(error);
    switch (Platform::ClassifyNativeError(error)) {
    case ErrorKind::TimedOut: return std::make_unique<TimeoutException>(message, kWithoutBacktrace);
    case ErrorKind::ConnectionRefused:
    case ErrorKind::ConnectionReset:
    case ErrorKind::EndOfStream:
        // Everyday events of a server's connections: no stack is captured.
        return std::make_unique<SystemException>(error, message, kWithoutBacktrace);
    case ErrorKind::InvalidText: return std::make_unique<InvalidArgumentException>(message);
    case ErrorKind::NotSupported: return std::make_unique<NotSupportedException>(message);
    default: return std::make_unique<SystemException>(error, message);
    }
}

void ThrowFileError(Platform::NativeError error, const std::string& what, const std::string& path) {
    Raise(FileError(error, what, path));
}

void ThrowFileError(const std::error_code& error, const std::string& what,
                    const std::string& path) {
    Raise(FileError(error, what, path));
}

void ThrowSystemError(Platform::NativeError error, const std::string& operation) {
    Raise(SystemError(error, operation));
}

} // namespace System
} // namespace Tessera
