// The mapper from errno values to exceptions.

#include "tests/system/nativeErrorCases.h"

#include <cerrno>

TEST(NativeErrorMapper, ReturnsTheExceptionItsThrowingFormThrows) {
    NativeErrorCases::CheckMapper(
        {ENOENT, EACCES, EEXIST, ENOSPC, ENOLCK, ETIMEDOUT, ECONNREFUSED, EIO});
}
