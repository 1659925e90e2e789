// The exception tree: every error the library reports is a Throwable.
//
// Each exception carries its message and the stack of the thread that built
// it. Clone() copies it onto the heap under its own dynamic type and Throw()
// throws it again as that type, so an exception caught on one thread can be
// carried to another and re-thrown there:
//
//     std::unique_ptr<Tessera::Exception> saved;
//     try { ... } catch (const Tessera::Exception& e) { saved.reset(e.Clone()); }
//     ...                    // on another thread
//     saved->Throw();        // caught by a handler for the original type
//
// Failures that are routine where they happen (a peer that reset or closed
// its connection, a refused connection, a time-out) are built without a
// stack, with the WithoutBacktrace tag: a server meets thousands of them, and
// capturing each stack would cost more than the failed call itself.
// GetBacktrace() of such an exception is null and Where() empty.
//
// Classes without fields of their own are built from a message alone. Three
// classes put a fixed prefix before the message they are given:
// InvalidArgumentException "Invalid argument : ", NotFoundException
// "Object not found: " and AlreadyExistsException "Already exists: ".
#pragma once

#include <tessera/api.h>
#include <tessera/object.h>

#include <exception>
#include <string>

namespace Tessera {

namespace System {
class Backtrace; // tessera/system/system.h
} // namespace System

// Builds an exception without capturing the stack.
struct WithoutBacktrace {
    explicit constexpr WithoutBacktrace() = default;
};
constexpr WithoutBacktrace kWithoutBacktrace{};

class TESSERA_EXPORT Throwable : public std::exception {
public:
    explicit Throwable(const std::string& message);
    Throwable(const std::string& message, WithoutBacktrace);
    ~Throwable() override;

    const char* what() const noexcept override;
    // The stack captured when this exception (or the one it was copied from)
    // was built; owned by the exception.
    virtual System::Backtrace* GetBacktrace() const;
    // When the default logger (tessera/logger.h) is enabled for "error",
    // logs one record with the message, the dynamic type's name and the stack.
    virtual void Dump() const;
    // The text of that stack.
    virtual std::string Where() const;

protected:
    // Copies share the backtrace of the original.
    Throwable(const Throwable& other);
    Throwable& operator=(const Throwable& other);

private:
    std::string _message;
    Ref<System::Backtrace> _backtrace;
};

class TESSERA_EXPORT Exception : public Throwable {
public:
    explicit Exception(const std::string& message) : Throwable(message) {}
    Exception(const std::string& message, WithoutBacktrace tag) : Throwable(message, tag) {}
    Exception(const Exception&) = default;
    Exception& operator=(const Exception&) = default;

    // A heap copy of the same dynamic type, owned by the caller.
    virtual Exception* Clone() const;
    // Throws a copy of *this as its dynamic type.
    [[noreturn]] virtual void Throw() const;
};

// An exception class whose only state is the message.
#define TESSERA_DECLARE_EXCEPTION(Name, Base)                                          \
    class TESSERA_EXPORT Name : public Base {                                          \
    public:                                                                            \
        explicit Name(const std::string& message) : Base(message) {}                   \
        Name(const std::string& message, WithoutBacktrace tag) : Base(message, tag) {} \
        Name* Clone() const override;                                                  \
        [[noreturn]] void Throw() const override;                                      \
    }

// An error code of the operating system: GetLastError() on Windows, errno
// elsewhere.
class TESSERA_EXPORT SystemErrorCode {
public:
    // The calling thread's last system error.
    SystemErrorCode() noexcept;
    explicit SystemErrorCode(int value) noexcept : _value(value) {}
    int Value() const noexcept { return _value; }

private:
    int _value;
};

class TESSERA_EXPORT SystemException : public Exception {
public:
    // The message is the system's text for the code, in UTF-8, or
    // "Unknown error <decimal> (0x<hex>)\n" for a code the system does not know.
    explicit SystemException(int errorId);
    explicit SystemException(const SystemErrorCode& code);
    SystemException(int errorId, const std::string& message);
    SystemException(int errorId, const std::string& message, WithoutBacktrace tag)
        : Exception(message, tag), _errorId(errorId) {}

    int ErrorId() const noexcept { return _errorId; }

    SystemException* Clone() const override;
    [[noreturn]] void Throw() const override;

    // The system's text for `errorId`, as SystemException(errorId) uses it.
    static std::string GetSystemMessage(int errorId);

private:
    int _errorId;
};

class TESSERA_EXPORT InvalidArgumentException : public Exception {
public:
    // what() is "Invalid argument : " + detail.
    explicit InvalidArgumentException(const std::string& detail);
    InvalidArgumentException* Clone() const override;
    [[noreturn]] void Throw() const override;
};

class TESSERA_EXPORT NotFoundException : public Exception {
public:
    // what() is "Object not found: " + detail.
    explicit NotFoundException(const std::string& detail);
    NotFoundException* Clone() const override;
    [[noreturn]] void Throw() const override;
};

class TESSERA_EXPORT AlreadyExistsException : public Exception {
public:
    // what() is "Already exists: " + detail.
    explicit AlreadyExistsException(const std::string& detail);
    AlreadyExistsException* Clone() const override;
    [[noreturn]] void Throw() const override;
};

TESSERA_DECLARE_EXCEPTION(AlreadyInitializedException, Exception);
TESSERA_DECLARE_EXCEPTION(CanceledException, Exception);
TESSERA_DECLARE_EXCEPTION(FullException, Exception);
TESSERA_DECLARE_EXCEPTION(InErrorStateException, Exception);
TESSERA_DECLARE_EXCEPTION(InProgressException, Exception);
TESSERA_DECLARE_EXCEPTION(InternalErrorException, Exception);
TESSERA_DECLARE_EXCEPTION(InvalidFormatStringException, Exception);
TESSERA_DECLARE_EXCEPTION(InvalidStateException, Exception);
TESSERA_DECLARE_EXCEPTION(IOException, Exception);
TESSERA_DECLARE_EXCEPTION(NotInProgressException, Exception);
TESSERA_DECLARE_EXCEPTION(NotSupportedException, Exception);
TESSERA_DECLARE_EXCEPTION(TicketExpiredException, Exception);
TESSERA_DECLARE_EXCEPTION(TimeoutException, Exception);
TESSERA_DECLARE_EXCEPTION(TypeMismatchException, Exception);
TESSERA_DECLARE_EXCEPTION(WrongThreadException, Exception);
TESSERA_DECLARE_EXCEPTION(Base64FormatException, Exception);
TESSERA_DECLARE_EXCEPTION(DateTimeFormatException, Exception);
TESSERA_DECLARE_EXCEPTION(NumberFormatException, Exception);
TESSERA_DECLARE_EXCEPTION(NumberRangeException, NumberFormatException);
TESSERA_DECLARE_EXCEPTION(NotInitializedException, Exception);
TESSERA_DECLARE_EXCEPTION(FileFormatException, Exception);
TESSERA_DECLARE_EXCEPTION(ResourceInUseException, Exception);
TESSERA_DECLARE_EXCEPTION(AuthdException, Exception);

// File-system errors. The subclasses say what went wrong; catch the base for
// any of them.
TESSERA_DECLARE_EXCEPTION(FileIOException, Exception);
TESSERA_DECLARE_EXCEPTION(FileIOAlreadyExistsException, FileIOException);
TESSERA_DECLARE_EXCEPTION(FileIOLockFailedException, FileIOException);
TESSERA_DECLARE_EXCEPTION(FileIONotFoundException, FileIOException);
TESSERA_DECLARE_EXCEPTION(FileIOPermissionDeniedException, FileIOException);
TESSERA_DECLARE_EXCEPTION(FileIONoSpaceException, FileIOException);

namespace Http {
TESSERA_DECLARE_EXCEPTION(HttpException, Exception);
TESSERA_DECLARE_EXCEPTION(MalformedHeaderException, Exception);
TESSERA_DECLARE_EXCEPTION(TruncatedResponseException, Exception);
} // namespace Http

namespace Soap {
TESSERA_DECLARE_EXCEPTION(InvalidRequestException, Exception);
} // namespace Soap

namespace Service {
TESSERA_DECLARE_EXCEPTION(JrnlException, Exception);
} // namespace Service

namespace Xml {
// A document the parser rejected; ErrorCode() is the parser's own code.
class TESSERA_EXPORT XMLParseException : public Exception {
public:
    explicit XMLParseException(const std::string& message, int errorCode = 0)
        : Exception(message), _errorCode(errorCode) {}
    int ErrorCode() const noexcept { return _errorCode; }
    XMLParseException* Clone() const override;
    [[noreturn]] void Throw() const override;

private:
    int _errorCode;
};
TESSERA_DECLARE_EXCEPTION(ParsingAbortedException, Exception);

namespace Security {
TESSERA_DECLARE_EXCEPTION(XmlSecurityException, Exception);
TESSERA_DECLARE_EXCEPTION(SignatureSyntaxException, XmlSecurityException);
TESSERA_DECLARE_EXCEPTION(SignatureGenerationException, XmlSecurityException);
TESSERA_DECLARE_EXCEPTION(SignatureVerificationException, XmlSecurityException);
TESSERA_DECLARE_EXCEPTION(UnsupportedCanonicalizationException, XmlSecurityException);
TESSERA_DECLARE_EXCEPTION(UnsupportedHashAlgorithmException, XmlSecurityException);
TESSERA_DECLARE_EXCEPTION(UnsupportedSignAlgorithmException, XmlSecurityException);
TESSERA_DECLARE_EXCEPTION(MissingReferentException, XmlSecurityException);
TESSERA_DECLARE_EXCEPTION(DuplicateURIException, XmlSecurityException);
} // namespace Security
} // namespace Xml

namespace Crypto {
TESSERA_DECLARE_EXCEPTION(CryptoException, Exception);
} // namespace Crypto

namespace Ssl {
TESSERA_DECLARE_EXCEPTION(SSLException, Exception);
TESSERA_DECLARE_EXCEPTION(SSLVerifyException, SSLException);
TESSERA_DECLARE_EXCEPTION(SSLHandshakeTimeoutException, SSLException);
} // namespace Ssl

namespace Authorize {
TESSERA_DECLARE_EXCEPTION(AuthException, Exception);
TESSERA_DECLARE_EXCEPTION(AuthUserException, AuthException);
TESSERA_DECLARE_EXCEPTION(AuthUserNotFoundException, AuthException);
TESSERA_DECLARE_EXCEPTION(AuthUserUnresolvedException, AuthException);
TESSERA_DECLARE_EXCEPTION(AuthPermissionNotFoundException, AuthException);
TESSERA_DECLARE_EXCEPTION(AuthRoleNotFoundException, AuthException);
TESSERA_DECLARE_EXCEPTION(AuthPrivilegeNotFoundException, AuthException);
TESSERA_DECLARE_EXCEPTION(AuthEntityNotFoundException, AuthException);
TESSERA_DECLARE_EXCEPTION(NoPermissionException, AuthException);
TESSERA_DECLARE_EXCEPTION(AuthStorageException, AuthException);
TESSERA_DECLARE_EXCEPTION(AuthMinimumAdminPermissionException, AuthException);
TESSERA_DECLARE_EXCEPTION(AuthSystemRoleException, AuthException);
TESSERA_DECLARE_EXCEPTION(AuthInvalidRoleNameException, AuthException);
TESSERA_DECLARE_EXCEPTION(AuthAlreadyExistsException, AuthException);
TESSERA_DECLARE_EXCEPTION(AuthRolePermissionsExistException, AuthException);
TESSERA_DECLARE_EXCEPTION(AuthSameRoleException, AuthException);
TESSERA_DECLARE_EXCEPTION(AuthSystemPrivilegeException, AuthException);
} // namespace Authorize

} // namespace Tessera
