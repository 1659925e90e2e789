// The platform part of the test child.
#pragma once

#include <string>

namespace TesseraTestChild {

// POSIX: the descriptors open in this process, in order ("0 1 2").
// Windows: for each handle value in `args` (decimal), "open" or "closed".
std::string ListInherited(int argc, char** argv);
// The whole environment, one "NAME=value" a line.
std::string Environment();
// Puts the standard streams in binary mode (Windows): bytes pass unchanged.
void UseBinaryStreams();
// The shell command that runs `program` with "touch <file>".
std::string TouchCommand(const std::string& program, const std::string& file);
// Stops this process for good, the way an outside kill would: ends it with a
// signal (POSIX) or exits with `code` (Windows).
[[noreturn]] void DieBySignal(int code);

}  // namespace TesseraTestChild
