// POSIX: what errno values mean to the portable mapper.

#include "system/platform/nativeError.h"

#include <cerrno>

namespace Tessera {
namespace System {
namespace Platform {

ErrorKind ClassifyNativeError(NativeError error) noexcept {
    switch (error) {
    case ENOENT:
    case ENOTDIR: return ErrorKind::NotFound;
    case EACCES:
    case EPERM:
    case EROFS: return ErrorKind::PermissionDenied;
    case EEXIST:
    case ENOTEMPTY: return ErrorKind::AlreadyExists;
    case ENOSPC:
    case EDQUOT: return ErrorKind::NoSpace;
    case ENOLCK:
    case EWOULDBLOCK: return ErrorKind::LockFailed;
    case ETIMEDOUT: return ErrorKind::TimedOut;
    case ECONNREFUSED: return ErrorKind::ConnectionRefused;
    case ECONNRESET:
    case ECONNABORTED:
    case EPIPE: return ErrorKind::ConnectionReset;
    case EILSEQ: return ErrorKind::InvalidText;
    case EOPNOTSUPP:
#if ENOTSUP != EOPNOTSUPP
    case ENOTSUP:
#endif
        return ErrorKind::NotSupported;
    default: return ErrorKind::Other;
    }
}

} // namespace Platform
} // namespace System
} // namespace Tessera
