// The portable mapper from native errors to the exception tree.

#include "system/platform/nativeError.h"

#include <tessera/exception.h>

namespace Tessera {
namespace System {
namespace {

[[noreturn]] void ThrowFileErrorOfKind(Platform::ErrorKind kind, const std::string& message) {
    using Platform::ErrorKind;
    switch (kind) {
    case ErrorKind::NotFound:
        throw FileIONotFoundException(message);
    case ErrorKind::PermissionDenied:
        throw FileIOPermissionDeniedException(message);
    case ErrorKind::AlreadyExists:
        throw FileIOAlreadyExistsException(message);
    case ErrorKind::NoSpace:
        throw FileIONoSpaceException(message);
    case ErrorKind::LockFailed:
        throw FileIOLockFailedException(message);
    default:
        throw FileIOException(message);
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
    return ErrorKind::Other;
}

} // namespace

void ThrowFileError(Platform::NativeError error, const std::string& what, const std::string& path) {
    ThrowFileErrorOfKind(Platform::ClassifyNativeError(error),
                         what + " '" + path + "': " + SystemException::GetSystemMessage(error));
}

void ThrowFileError(const std::error_code& error, const std::string& what,
                    const std::string& path) {
    ThrowFileErrorOfKind(ClassifyErrorCode(error), what + " '" + path + "': " + error.message());
}

void ThrowSystemError(Platform::NativeError error, const std::string& operation) {
    const std::string message = operation + ": " + SystemException::GetSystemMessage(error);
    if (Platform::ClassifyNativeError(error) == Platform::ErrorKind::TimedOut) {
        throw TimeoutException(message);
    }
    throw SystemException(error, message);
}

} // namespace System
} // namespace Tessera
