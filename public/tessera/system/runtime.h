// Process and thread services: identities, CPU time, paths, named thread
// states and the process exit handler.
#pragma once

#include <tessera/api.h>

#include <boost/function.hpp>

#include <cstdint>
#include <string>

namespace Tessera {
namespace System {

// The operating system's id of the calling thread.
TESSERA_EXPORT std::uint64_t GetThreadId();

// The host's name as the operating system knows it.
TESSERA_EXPORT std::string GetHostName();

// The CPU time the process has used so far, in microseconds, in user mode and
// in the kernel.
TESSERA_EXPORT void GetCpuTime(std::uint64_t& userMicroseconds, std::uint64_t& kernelMicroseconds);

// Paths are UTF-8. A path that does not exist raises FileIONotFoundException,
// one that may not be read FileIOPermissionDeniedException, any other failure
// FileIOException, each naming the path.
TESSERA_EXPORT std::string GetCurrentWorkingDirectory();
TESSERA_EXPORT void SetCurrentWorkingDirectory(const std::string& path);
// The absolute path with every link, "." and ".." resolved.
TESSERA_EXPORT std::string GetCanonicalPath(const std::string& path);

// Named states of the calling thread ("reconfiguring pool", "request 1234"),
// shown beside its log lines and in diagnostic dumps. A state lasts until it
// is removed; a thread removes its own states, and only its own, before it
// ends (removing another thread's state stops the process).
TESSERA_EXPORT std::uint64_t AddThreadState(const char* name);
TESSERA_EXPORT void RemoveThreadState(std::uint64_t handle);
// The calling thread's states, oldest first, separated by spaces; empty when
// it has none.
TESSERA_EXPORT std::string GetThreadStates();
// Every thread's states, one line per thread: "<thread id>: <states>".
TESSERA_EXPORT std::string DumpThreadStates();

// The handler QuickExit runs before it ends the process. A process has one: a
// second call throws AlreadyExistsException and keeps the first.
TESSERA_EXPORT void SetExitHandler(const boost::function<void()>& handler);
// Runs the exit handler, then ends the process with `code` at once: no static
// destructors and no atexit functions run, so threads still at work cannot
// trip over half-destroyed globals.
[[noreturn]] TESSERA_EXPORT void QuickExit(int code);

} // namespace System
} // namespace Tessera
