// Platform help for tests whose subject is portable but whose set-up is not.
// Implemented in tests/posix/testSupport.cpp and tests/win32/testSupport.cpp.
#pragma once

#include <filesystem>
#include <string>

namespace TestSupport {

// While it lives, renaming `file` fails: on Windows a handle open on it
// without delete sharing (as a log viewer holds it), on Linux the append-only
// attribute. Where the platform refuses to set that up (no privilege, a file
// system without the attribute), Active() is false and Why() says why.
class RenameBlocker {
public:
    explicit RenameBlocker(const std::filesystem::path& file);
    ~RenameBlocker();
    RenameBlocker(const RenameBlocker&) = delete;
    RenameBlocker& operator=(const RenameBlocker&) = delete;

    bool Active() const { return _active; }
    const std::string& Why() const { return _why; }

private:
    std::filesystem::path _file;
    bool _active = false;
    std::string _why;
    long long _native = -1;
};

// Waits until the child process `processId` has ended, without collecting
// its exit status (that stays for its owner); false if it still runs after
// 60 s.
bool WaitUntilEnded(long long processId);

} // namespace TestSupport
