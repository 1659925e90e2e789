// Windows: what system error codes mean to the portable mapper.

#include "system/platform/nativeError.h"

#include <windows.h>
#include <winsock2.h>

namespace Tessera {
namespace System {
namespace Platform {

ErrorKind ClassifyNativeError(NativeError error) noexcept {
    switch (static_cast<DWORD>(error)) {
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
    case ERROR_INVALID_DRIVE:
    case ERROR_BAD_NETPATH:
    case ERROR_BAD_NET_NAME:
    case ERROR_DIRECTORY: return ErrorKind::NotFound;
    case ERROR_ACCESS_DENIED:
    case ERROR_WRITE_PROTECT:
    case ERROR_SHARING_VIOLATION: return ErrorKind::PermissionDenied;
    case ERROR_FILE_EXISTS:
    case ERROR_ALREADY_EXISTS:
    case ERROR_DIR_NOT_EMPTY: return ErrorKind::AlreadyExists;
    case ERROR_DISK_FULL:
    case ERROR_HANDLE_DISK_FULL: return ErrorKind::NoSpace;
    case ERROR_LOCK_VIOLATION:
    case ERROR_LOCK_FAILED: return ErrorKind::LockFailed;
    case ERROR_TIMEOUT:
    case WAIT_TIMEOUT:
    case ERROR_SEM_TIMEOUT:
    case WSAETIMEDOUT: return ErrorKind::TimedOut;
    case ERROR_CONNECTION_REFUSED:
    case WSAECONNREFUSED: return ErrorKind::ConnectionRefused;
    case ERROR_BROKEN_PIPE:
    case ERROR_PIPE_NOT_CONNECTED: return ErrorKind::EndOfStream;
    case ERROR_NO_DATA:
    case ERROR_NETNAME_DELETED:
    case ERROR_CONNECTION_ABORTED:
    case WSAECONNRESET:
    case WSAECONNABORTED: return ErrorKind::ConnectionReset;
    case ERROR_NO_UNICODE_TRANSLATION: return ErrorKind::InvalidText;
    case ERROR_NOT_SUPPORTED:
    case WSAEOPNOTSUPP: return ErrorKind::NotSupported;
    default: return ErrorKind::Other;
    }
}

} // namespace Platform
} // namespace System
} // namespace Tessera
