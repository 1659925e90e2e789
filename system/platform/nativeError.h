// Native error codes and the one place that turns them into exceptions.
//
// The platform back ends (posix/, win32/) report failures as native error
// codes: errno on POSIX, a Windows system error code (GetLastError,
// WSAGetLastError) on Windows. They never log, throw or panic. Portable code
// turns a code into an exception of the tree with the functions below, so
// that the same failure raises the same exception whichever call met it.
#pragma once

#include <tessera/exception.h>

#include <memory>
#include <string>
#include <system_error>

// The mapper is exported for its tests from every build but Release.
#ifndef TESSERA_TEST_HOOK
#ifdef TESSERA_TEST_HOOKS
#define TESSERA_TEST_HOOK TESSERA_EXPORT
#else
#define TESSERA_TEST_HOOK
#endif
#endif

namespace Tessera {
namespace System {
namespace Platform {

// errno on POSIX, a Windows system error code on Windows; 0 is success.
using NativeError = int;
constexpr NativeError kSuccess = 0;

// What a native error means to a caller, whatever the platform's code.
enum class ErrorKind {
    NotFound, // no such file, directory or path component
    PermissionDenied, // access refused, read-only medium, sharing violation
    AlreadyExists, // the name is taken
    NoSpace, // the disk or the quota is full
    LockFailed, // a lock on the file is held elsewhere
    TimedOut, // the operation ran out of time
    ConnectionRefused, // nobody listens at the peer's address
    ConnectionReset, // the peer reset the connection, or went away under a write
    EndOfStream, // the peer closed its end of a pipe: to a read, the end of the stream
    InvalidText, // a name or text for the system is not valid UTF-8
    NotSupported, // the system does not offer the operation on this object
    Other,
};

// Implemented by each back end.
ErrorKind ClassifyNativeError(NativeError error) noexcept;

} // namespace Platform

// The exception for a failed operation on a file, returned, not thrown (to
// carry it elsewhere, or to throw it later with its Throw()):
// InvalidArgumentException for a path that is not valid UTF-8, else
// FileIONotFoundException, FileIOPermissionDeniedException,
// FileIOAlreadyExistsException, FileIONoSpaceException,
// FileIOLockFailedException, else FileIOException. The message is
// "<what> '<path>': <the system's text>", for example
// "Cannot open file 'C:\logs\a.log': Access is denied."
TESSERA_TEST_HOOK std::unique_ptr<Exception> FileError(Platform::NativeError error,
                                                       const std::string& what,
                                                       const std::string& path);
// The same for an error of the standard library (std::filesystem).
TESSERA_TEST_HOOK std::unique_ptr<Exception> FileError(const std::error_code& error,
                                                       const std::string& what,
                                                       const std::string& path);

// The exception for a failed operation on anything but a file, returned, not
// thrown: TimeoutException for a time-out, InvalidArgumentException for a
// text that is not valid UTF-8, NotSupportedException for an operation the
// system does not offer, else SystemException carrying the code. The
// message is "<operation>: <the system's text>"; name the peer or the object
// in `operation` ("Cannot connect to 127.0.0.1:80"). A time-out, a refused
// connection, a reset one and the end of a pipe are built without a stack
// (WithoutBacktrace): they are routine, and a server meets many.
TESSERA_TEST_HOOK std::unique_ptr<Exception> SystemError(Platform::NativeError error,
                                                         const std::string& operation);

// Throw what FileError and SystemError return.
[[noreturn]] TESSERA_TEST_HOOK void ThrowFileError(Platform::NativeError error,
                                                   const std::string& what,
                                                   const std::string& path);
[[noreturn]] TESSERA_TEST_HOOK void ThrowFileError(const std::error_code& error,
                                                   const std::string& what,
                                                   const std::string& path);
[[noreturn]] TESSERA_TEST_HOOK void ThrowSystemError(Platform::NativeError error,
                                                     const std::string& operation);

} // namespace System
} // namespace Tessera
