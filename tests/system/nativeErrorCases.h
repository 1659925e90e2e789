// The mapper's checks, shared by tests/posix and tests/win32, which give the
// native codes of their platform.
#pragma once

#include <tessera/exception.h>

#include "system/platform/nativeError.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <typeinfo>

namespace NativeErrorCases {

// One native code of the platform for each kind the mapper tells apart.
struct Codes {
    int notFound;
    int permissionDenied;
    int alreadyExists;
    int noSpace;
    int lockFailed;
    int timedOut;
    int connectionRefused; // a kind with no exception of its own
    int invalidText; // a name that is not valid UTF-8
    int other;
};

// What the throwing form of the mapper throws, cloned; null when nothing.
template <class F>
std::unique_ptr<Tessera::Exception> Thrown(F f) {
    try {
        f();
    } catch (const Tessera::Exception& e) {
        return std::unique_ptr<Tessera::Exception>(e.Clone());
    }
    return nullptr;
}

// The returning forms give the exception of the code's kind with the
// mapper's message, and the throwing forms throw exactly that.
inline void CheckMapper(const Codes& codes) {
    using namespace Tessera;
    const std::string path = "dir/a.log";
    struct FileCase {
        int code;
        const std::type_info& type;
    } fileCases[] = {
        {codes.notFound, typeid(FileIONotFoundException)},
        {codes.permissionDenied, typeid(FileIOPermissionDeniedException)},
        {codes.alreadyExists, typeid(FileIOAlreadyExistsException)},
        {codes.noSpace, typeid(FileIONoSpaceException)},
        {codes.lockFailed, typeid(FileIOLockFailedException)},
        {codes.invalidText, typeid(InvalidArgumentException)},
        {codes.timedOut, typeid(FileIOException)},
        {codes.other, typeid(FileIOException)},
    };
    for (const FileCase& c : fileCases) {
        const std::unique_ptr<Exception> returned =
            System::FileError(c.code, "Cannot open file", path);
        ASSERT_NE(returned, nullptr) << c.code;
        EXPECT_EQ(std::string(typeid(*returned).name()), c.type.name()) << c.code;
        const std::string message =
            "Cannot open file '" + path + "': " + SystemException::GetSystemMessage(c.code);
        if (c.code == codes.invalidText) {
            EXPECT_EQ(std::string(returned->what()), "Invalid argument : " + message);
        } else {
            EXPECT_NE(dynamic_cast<FileIOException*>(returned.get()), nullptr) << c.code;
            EXPECT_EQ(std::string(returned->what()), message) << c.code;
        }
        const std::unique_ptr<Exception> thrown =
            Thrown([&] { System::ThrowFileError(c.code, "Cannot open file", path); });
        ASSERT_NE(thrown, nullptr) << c.code;
        EXPECT_EQ(std::string(typeid(*thrown).name()), c.type.name()) << c.code;
        EXPECT_STREQ(thrown->what(), returned->what()) << c.code;
    }

    // Anything but a file: a time-out, else the code in a SystemException.
    const std::unique_ptr<Exception> timedOut =
        System::SystemError(codes.timedOut, "Cannot connect to 127.0.0.1:80");
    EXPECT_EQ(std::string(typeid(*timedOut).name()), typeid(TimeoutException).name());
    EXPECT_EQ(std::string(timedOut->what()), "Cannot connect to 127.0.0.1:80: " +
                                                 SystemException::GetSystemMessage(codes.timedOut));
    for (int code : {codes.connectionRefused, codes.notFound, codes.other}) {
        const std::unique_ptr<Exception> returned = System::SystemError(code, "Cannot connect");
        const SystemException* system = dynamic_cast<const SystemException*>(returned.get());
        ASSERT_NE(system, nullptr) << code;
        EXPECT_EQ(std::string(typeid(*returned).name()), typeid(SystemException).name()) << code;
        EXPECT_EQ(system->ErrorId(), code);
        EXPECT_EQ(std::string(system->what()),
                  "Cannot connect: " + SystemException::GetSystemMessage(code));
        const std::unique_ptr<Exception> thrown =
            Thrown([&] { System::ThrowSystemError(code, "Cannot connect"); });
        const SystemException* thrownSystem = dynamic_cast<const SystemException*>(thrown.get());
        ASSERT_NE(thrownSystem, nullptr) << code;
        EXPECT_EQ(thrownSystem->ErrorId(), code);
        EXPECT_STREQ(thrownSystem->what(), system->what());
    }
    const std::unique_ptr<Exception> invalid =
        System::SystemError(codes.invalidText, "Cannot start");
    EXPECT_EQ(std::string(typeid(*invalid).name()), typeid(InvalidArgumentException).name());
    const std::unique_ptr<Exception> thrownInvalid =
        Thrown([&] { System::ThrowSystemError(codes.invalidText, "Cannot start"); });
    ASSERT_NE(thrownInvalid, nullptr);
    EXPECT_EQ(std::string(typeid(*thrownInvalid).name()), typeid(InvalidArgumentException).name());
    const std::unique_ptr<Exception> thrownTimeout =
        Thrown([&] { System::ThrowSystemError(codes.timedOut, "Cannot connect"); });
    ASSERT_NE(thrownTimeout, nullptr);
    EXPECT_EQ(std::string(typeid(*thrownTimeout).name()), typeid(TimeoutException).name());
    // Routine failures of connections carry no stack; the others do.
    EXPECT_EQ(timedOut->GetBacktrace(), nullptr);
    EXPECT_EQ(System::SystemError(codes.connectionRefused, "c")->GetBacktrace(), nullptr);
    EXPECT_NE(System::SystemError(codes.other, "c")->GetBacktrace(), nullptr);
    EXPECT_NE(System::SystemError(codes.notFound, "c")->GetBacktrace(), nullptr);
}

} // namespace NativeErrorCases
