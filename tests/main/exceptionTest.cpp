#include <tessera/exception.h>
#include <tessera/system/system.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <typeinfo>

using namespace Tessera;

namespace {

// Clones `original` through its Exception base and re-throws the clone: the
// handler for E must catch it, with the message and the backtrace intact.
template <class E>
::testing::AssertionResult SurvivesCloneAndThrow(const E& original) {
    const Exception& base = original;
    std::unique_ptr<Exception> clone(base.Clone());
    if (typeid(*clone) != typeid(E)) {
        return ::testing::AssertionFailure()
               << typeid(E).name() << " clones as " << typeid(*clone).name();
    }
    try {
        clone->Throw();
    } catch (const E& caught) {
        if (typeid(caught) != typeid(E)) {
            return ::testing::AssertionFailure()
                   << typeid(E).name() << " re-thrown as " << typeid(caught).name();
        }
        if (std::string(caught.what()) != original.what()) {
            return ::testing::AssertionFailure() << "message changed: " << caught.what();
        }
        if (caught.GetBacktrace() != original.GetBacktrace()) {
            return ::testing::AssertionFailure() << "backtrace not shared";
        }
        return ::testing::AssertionSuccess();
    } catch (...) {
        return ::testing::AssertionFailure() << typeid(E).name() << " escaped its own handler";
    }
    return ::testing::AssertionFailure() << "Throw returned";
}

template <class E>
void CheckClass() {
    EXPECT_TRUE(SurvivesCloneAndThrow(E("message of " + std::string(typeid(E).name()))));
}

template <class... E>
void CheckEveryClass() {
    (CheckClass<E>(), ...);
}

} // namespace

TEST(Exception, EveryClassClonesAndThrowsAsItself) {
    CheckEveryClass<
        Exception, InvalidArgumentException, NotFoundException, AlreadyExistsException,
        AlreadyInitializedException, CanceledException, FullException, InErrorStateException,
        InProgressException, InternalErrorException, InvalidFormatStringException,
        InvalidStateException, IOException, NotInProgressException, NotSupportedException,
        TicketExpiredException, TimeoutException, TypeMismatchException, WrongThreadException,
        Base64FormatException, DateTimeFormatException, NumberFormatException, NumberRangeException,
        NotInitializedException, FileFormatException, ResourceInUseException, AuthdException,
        FileIOException, FileIOAlreadyExistsException, FileIOLockFailedException,
        FileIONotFoundException, FileIOPermissionDeniedException, FileIONoSpaceException>();
    CheckEveryClass<
        Http::HttpException, Http::MalformedHeaderException, Http::TruncatedResponseException,
        Soap::InvalidRequestException, Service::JrnlException, Xml::XMLParseException,
        Xml::ParsingAbortedException, Xml::Security::XmlSecurityException,
        Xml::Security::SignatureSyntaxException, Xml::Security::SignatureGenerationException,
        Xml::Security::SignatureVerificationException,
        Xml::Security::UnsupportedCanonicalizationException,
        Xml::Security::UnsupportedHashAlgorithmException,
        Xml::Security::UnsupportedSignAlgorithmException, Xml::Security::MissingReferentException,
        Xml::Security::DuplicateURIException, Crypto::CryptoException, Ssl::SSLException,
        Ssl::SSLVerifyException, Ssl::SSLHandshakeTimeoutException>();
    CheckEveryClass<Authorize::AuthException, Authorize::AuthUserException,
                    Authorize::AuthUserNotFoundException, Authorize::AuthUserUnresolvedException,
                    Authorize::AuthPermissionNotFoundException,
                    Authorize::AuthRoleNotFoundException, Authorize::AuthPrivilegeNotFoundException,
                    Authorize::AuthEntityNotFoundException, Authorize::NoPermissionException,
                    Authorize::AuthStorageException, Authorize::AuthMinimumAdminPermissionException,
                    Authorize::AuthSystemRoleException, Authorize::AuthInvalidRoleNameException,
                    Authorize::AuthAlreadyExistsException,
                    Authorize::AuthRolePermissionsExistException, Authorize::AuthSameRoleException,
                    Authorize::AuthSystemPrivilegeException>();

    EXPECT_TRUE(SurvivesCloneAndThrow(SystemException(2, "custom")));
    std::unique_ptr<Exception> clone(SystemException(7, "x").Clone());
    EXPECT_EQ(dynamic_cast<SystemException&>(*clone).ErrorId(), 7);
    std::unique_ptr<Exception> parse(Xml::XMLParseException("bad", 4).Clone());
    EXPECT_EQ(dynamic_cast<Xml::XMLParseException&>(*parse).ErrorCode(), 4);
}

TEST(Exception, FixedPrefixes) {
    EXPECT_STREQ(InvalidArgumentException("Bad size").what(), "Invalid argument : Bad size");
    EXPECT_STREQ(NotFoundException("key").what(), "Object not found: key");
    EXPECT_STREQ(AlreadyExistsException("twice").what(), "Already exists: twice");
    EXPECT_STREQ(TimeoutException("plain").what(), "plain");
    // A copy keeps the text: the prefix is not added twice.
    InvalidArgumentException original("x");
    std::unique_ptr<Exception> clone(original.Clone());
    EXPECT_STREQ(clone->what(), "Invalid argument : x");
}

TEST(Exception, ClonedOnOneThreadThrownOnAnother) {
    std::unique_ptr<Exception> carried;
    try {
        throw TimeoutException("no answer in 30 s");
    } catch (const Exception& e) {
        carried.reset(e.Clone());
    }
    std::string caughtAs;
    std::string message;
    std::thread other([&] {
        try {
            carried->Throw();
        } catch (const TimeoutException& e) {
            caughtAs = "TimeoutException";
            message = e.what();
        } catch (const Exception&) {
            caughtAs = "Exception";
        }
    });
    other.join();
    EXPECT_EQ(caughtAs, "TimeoutException");
    EXPECT_EQ(message, "no answer in 30 s");
}

TEST(Exception, CarriesTheStackWhereItWasBuilt) {
    const TimeoutException e("t");
    ASSERT_NE(e.GetBacktrace(), nullptr);
    EXPECT_GT(e.GetBacktrace()->GetStacktrace().GetNumStackFrames(), 2);
    const std::string where = e.Where();
    EXPECT_EQ(where.rfind("#0 0x", 0), 0u) << where;
    EXPECT_NE(where.find("\n#1 0x"), std::string::npos) << where;

    // A routine failure carries none, through copies and re-throws too.
    const SystemException reset(104, "Failed to read from 127.0.0.1:80", kWithoutBacktrace);
    std::unique_ptr<Exception> copy(reset.Clone());
    try {
        copy->Throw();
    } catch (const SystemException& thrown) {
        EXPECT_EQ(thrown.GetBacktrace(), nullptr);
        EXPECT_EQ(thrown.Where(), "");
        EXPECT_EQ(thrown.ErrorId(), 104);
        EXPECT_STREQ(thrown.what(), "Failed to read from 127.0.0.1:80");
    }
    EXPECT_EQ(TimeoutException("t", kWithoutBacktrace).GetBacktrace(), nullptr);
}

TEST(SystemException, SystemTextOrUnknown) {
    const SystemException unknown(123456);
    EXPECT_STREQ(unknown.what(), "Unknown error 123456 (0x1e240)\n");
    EXPECT_EQ(unknown.ErrorId(), 123456);
    EXPECT_STREQ(SystemException(-5).what(), "Unknown error -5 (0xfffffffb)\n");

    // Code 5 is known everywhere (access denied on Windows, I/O error on POSIX).
    const SystemException known(5);
    EXPECT_EQ(known.ErrorId(), 5);
    EXPECT_EQ(std::string(known.what()), SystemException::GetSystemMessage(5));
    EXPECT_GT(std::string(known.what()).size(), 3u);
    EXPECT_EQ(std::string(known.what()).find("Unknown error"), std::string::npos);

    const SystemException viaCode{SystemErrorCode(5)};
    EXPECT_STREQ(viaCode.what(), known.what());
    const SystemException custom(5, "while opening x");
    EXPECT_STREQ(custom.what(), "while opening x");
    EXPECT_EQ(custom.ErrorId(), 5);
}
