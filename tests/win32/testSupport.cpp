#include "tests/testSupport.h"

#include <windows.h>

namespace TestSupport {

RenameBlocker::RenameBlocker(const std::filesystem::path& file) : _file(file) {
    // Reading and writing are shared, deleting and renaming are not.
    HANDLE handle = ::CreateFileW(file.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                  nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        _why = "cannot open " + file.u8string() + ": error " + std::to_string(::GetLastError());
        return;
    }
    _native = reinterpret_cast<long long>(handle);
    _active = true;
}

RenameBlocker::~RenameBlocker() {
    if (_active) ::CloseHandle(reinterpret_cast<HANDLE>(_native));
}

bool WaitUntilEnded(long long processId) {
    HANDLE process = ::OpenProcess(SYNCHRONIZE, FALSE, static_cast<DWORD>(processId));
    if (process == nullptr) return false;
    const bool ended = ::WaitForSingleObject(process, 60 * 1000) == WAIT_OBJECT_0;
    ::CloseHandle(process);
    return ended;
}

} // namespace TestSupport
