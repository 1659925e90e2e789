// The mapper from errno values to exceptions.

#include "tests/system/nativeErrorCases.h"

#include <cerrno>
#include <system_error>

TEST(NativeErrorMapper, ReturnsTheExceptionItsThrowingFormThrows) {
    NativeErrorCases::CheckMapper(
        {ENOENT, EACCES, EEXIST, ENOSPC, ENOLCK, ETIMEDOUT, ECONNREFUSED, EILSEQ, EIO});
}

// Errors of the standard library, by their portable condition. (Not in the
// Windows test: there the program and the DLL each link their own C++
// runtime, whose error categories are different objects.)
TEST(NativeErrorMapper, StandardErrorsByTheirCondition) {
    using namespace Tessera;
    const std::string path = "dir/a.log";
    const std::unique_ptr<Exception> missing = System::FileError(
        std::make_error_code(std::errc::no_such_file_or_directory), "Cannot list directory", path);
    EXPECT_EQ(std::string(typeid(*missing).name()), typeid(FileIONotFoundException).name());
    const std::unique_ptr<Exception> full =
        System::FileError(std::make_error_code(std::errc::no_space_on_device), "Cannot copy", path);
    EXPECT_EQ(std::string(typeid(*full).name()), typeid(FileIONoSpaceException).name());
    const std::unique_ptr<Exception> invalid = System::FileError(
        std::make_error_code(std::errc::illegal_byte_sequence), "Cannot copy", path);
    EXPECT_EQ(std::string(typeid(*invalid).name()), typeid(InvalidArgumentException).name());
    const std::unique_ptr<Exception> other =
        System::FileError(std::make_error_code(std::errc::io_error), "Cannot copy", path);
    EXPECT_EQ(std::string(typeid(*other).name()), typeid(FileIOException).name());
    EXPECT_EQ(std::string(other->what()),
              "Cannot copy 'dir/a.log': " + std::make_error_code(std::errc::io_error).message());
}
