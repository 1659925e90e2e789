// The mapper from Windows system error codes to exceptions.

#include "tests/system/nativeErrorCases.h"

#include <windows.h>
#include <winsock2.h>

TEST(NativeErrorMapper, ReturnsTheExceptionItsThrowingFormThrows) {
    NativeErrorCases::CheckMapper({ERROR_PATH_NOT_FOUND, ERROR_SHARING_VIOLATION,
                                   ERROR_ALREADY_EXISTS, ERROR_DISK_FULL, ERROR_LOCK_VIOLATION,
                                   WAIT_TIMEOUT, WSAECONNREFUSED, ERROR_NO_UNICODE_TRANSLATION,
                                   ERROR_INVALID_HANDLE});
}
