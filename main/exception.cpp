// The exception tree.

#include <tessera/exception.h>
#include <tessera/logger.h>
#include <tessera/system/system.h>

#include "system/platform/diagnostics.h"

#include <cstdio>
#include <typeinfo>

namespace Tessera {

Throwable::Throwable(const std::string& message) : _message(message) {
    System::GetSystemFactory()->CreateBacktrace(_backtrace);
}

Throwable::Throwable(const std::string& message, WithoutBacktrace) : _message(message) {}

Throwable::Throwable(const Throwable& other)
    : std::exception(other), _message(other._message), _backtrace(other._backtrace) {}

Throwable& Throwable::operator=(const Throwable& other) {
    std::exception::operator=(other);
    _message = other._message;
    _backtrace = other._backtrace;
    return *this;
}

Throwable::~Throwable() = default;

const char* Throwable::what() const noexcept { return _message.c_str(); }

System::Backtrace* Throwable::GetBacktrace() const { return _backtrace.Get(); }

void Throwable::Dump() const {
    Service::Logger* log = Service::DefaultLogger();
    if (!log->IsLevel(Service::Logger::LOG_ERROR)) return;
    Service::LogInternal(log, Service::Logger::LOG_ERROR,
                         "\n\nException: %1\nType: %2\nBacktrace:\n%3", what(),
                         typeid(*this).name(), Where());
}

std::string Throwable::Where() const {
    return _backtrace.IsNull() ? std::string() : _backtrace->ToString();
}

Exception* Exception::Clone() const { return new Exception(*this); }

void Exception::Throw() const { throw Exception(*this); }

#define TESSERA_DEFINE_EXCEPTION(Name)                    \
    Name* Name::Clone() const { return new Name(*this); } \
    void Name::Throw() const { throw Name(*this); }

// ---- SystemException ----

SystemErrorCode::SystemErrorCode() noexcept : _value(System::Platform::GetLastSystemError()) {}

std::string SystemException::GetSystemMessage(int errorId) {
    std::string text = System::Platform::GetSystemErrorText(errorId);
    if (text.empty()) {
        char buffer[64];
        std::snprintf(buffer, sizeof(buffer), "Unknown error %d (0x%x)\n", errorId,
                      static_cast<unsigned>(errorId));
        text = buffer;
    }
    return text;
}

SystemException::SystemException(int errorId)
    : Exception(GetSystemMessage(errorId)), _errorId(errorId) {}

SystemException::SystemException(const SystemErrorCode& code) : SystemException(code.Value()) {}

SystemException::SystemException(int errorId, const std::string& message)
    : Exception(message), _errorId(errorId) {}

TESSERA_DEFINE_EXCEPTION(SystemException)

// ---- the classes that prefix their message ----

InvalidArgumentException::InvalidArgumentException(const std::string& detail)
    : Exception("Invalid argument : " + detail) {}
TESSERA_DEFINE_EXCEPTION(InvalidArgumentException)

NotFoundException::NotFoundException(const std::string& detail)
    : Exception("Object not found: " + detail) {}
TESSERA_DEFINE_EXCEPTION(NotFoundException)

AlreadyExistsException::AlreadyExistsException(const std::string& detail)
    : Exception("Already exists: " + detail) {}
TESSERA_DEFINE_EXCEPTION(AlreadyExistsException)

// ---- the message-only classes ----

TESSERA_DEFINE_EXCEPTION(AlreadyInitializedException)
TESSERA_DEFINE_EXCEPTION(CanceledException)
TESSERA_DEFINE_EXCEPTION(FullException)
TESSERA_DEFINE_EXCEPTION(InErrorStateException)
TESSERA_DEFINE_EXCEPTION(InProgressException)
TESSERA_DEFINE_EXCEPTION(InternalErrorException)
TESSERA_DEFINE_EXCEPTION(InvalidFormatStringException)
TESSERA_DEFINE_EXCEPTION(InvalidStateException)
TESSERA_DEFINE_EXCEPTION(IOException)
TESSERA_DEFINE_EXCEPTION(NotInProgressException)
TESSERA_DEFINE_EXCEPTION(NotSupportedException)
TESSERA_DEFINE_EXCEPTION(TicketExpiredException)
TESSERA_DEFINE_EXCEPTION(TimeoutException)
TESSERA_DEFINE_EXCEPTION(TypeMismatchException)
TESSERA_DEFINE_EXCEPTION(WrongThreadException)
TESSERA_DEFINE_EXCEPTION(Base64FormatException)
TESSERA_DEFINE_EXCEPTION(DateTimeFormatException)
TESSERA_DEFINE_EXCEPTION(NumberFormatException)
TESSERA_DEFINE_EXCEPTION(NumberRangeException)
TESSERA_DEFINE_EXCEPTION(NotInitializedException)
TESSERA_DEFINE_EXCEPTION(FileFormatException)
TESSERA_DEFINE_EXCEPTION(ResourceInUseException)
TESSERA_DEFINE_EXCEPTION(AuthdException)
TESSERA_DEFINE_EXCEPTION(FileIOException)
TESSERA_DEFINE_EXCEPTION(FileIOAlreadyExistsException)
TESSERA_DEFINE_EXCEPTION(FileIOLockFailedException)
TESSERA_DEFINE_EXCEPTION(FileIONotFoundException)
TESSERA_DEFINE_EXCEPTION(FileIOPermissionDeniedException)
TESSERA_DEFINE_EXCEPTION(FileIONoSpaceException)

namespace Http {
TESSERA_DEFINE_EXCEPTION(HttpException)
TESSERA_DEFINE_EXCEPTION(MalformedHeaderException)
TESSERA_DEFINE_EXCEPTION(TruncatedResponseException)
} // namespace Http

namespace Soap {
TESSERA_DEFINE_EXCEPTION(InvalidRequestException)
} // namespace Soap

namespace Service {
TESSERA_DEFINE_EXCEPTION(JrnlException)
} // namespace Service

namespace Xml {
TESSERA_DEFINE_EXCEPTION(XMLParseException)
TESSERA_DEFINE_EXCEPTION(ParsingAbortedException)
namespace Security {
TESSERA_DEFINE_EXCEPTION(XmlSecurityException)
TESSERA_DEFINE_EXCEPTION(SignatureSyntaxException)
TESSERA_DEFINE_EXCEPTION(SignatureGenerationException)
TESSERA_DEFINE_EXCEPTION(SignatureVerificationException)
TESSERA_DEFINE_EXCEPTION(UnsupportedCanonicalizationException)
TESSERA_DEFINE_EXCEPTION(UnsupportedHashAlgorithmException)
TESSERA_DEFINE_EXCEPTION(UnsupportedSignAlgorithmException)
TESSERA_DEFINE_EXCEPTION(MissingReferentException)
TESSERA_DEFINE_EXCEPTION(DuplicateURIException)
} // namespace Security
} // namespace Xml

namespace Crypto {
TESSERA_DEFINE_EXCEPTION(CryptoException)
} // namespace Crypto

namespace Ssl {
TESSERA_DEFINE_EXCEPTION(SSLException)
TESSERA_DEFINE_EXCEPTION(SSLVerifyException)
TESSERA_DEFINE_EXCEPTION(SSLHandshakeTimeoutException)
} // namespace Ssl

namespace Authorize {
TESSERA_DEFINE_EXCEPTION(AuthException)
TESSERA_DEFINE_EXCEPTION(AuthUserException)
TESSERA_DEFINE_EXCEPTION(AuthUserNotFoundException)
TESSERA_DEFINE_EXCEPTION(AuthUserUnresolvedException)
TESSERA_DEFINE_EXCEPTION(AuthPermissionNotFoundException)
TESSERA_DEFINE_EXCEPTION(AuthRoleNotFoundException)
TESSERA_DEFINE_EXCEPTION(AuthPrivilegeNotFoundException)
TESSERA_DEFINE_EXCEPTION(AuthEntityNotFoundException)
TESSERA_DEFINE_EXCEPTION(NoPermissionException)
TESSERA_DEFINE_EXCEPTION(AuthStorageException)
TESSERA_DEFINE_EXCEPTION(AuthMinimumAdminPermissionException)
TESSERA_DEFINE_EXCEPTION(AuthSystemRoleException)
TESSERA_DEFINE_EXCEPTION(AuthInvalidRoleNameException)
TESSERA_DEFINE_EXCEPTION(AuthAlreadyExistsException)
TESSERA_DEFINE_EXCEPTION(AuthRolePermissionsExistException)
TESSERA_DEFINE_EXCEPTION(AuthSameRoleException)
TESSERA_DEFINE_EXCEPTION(AuthSystemPrivilegeException)
} // namespace Authorize

} // namespace Tessera
