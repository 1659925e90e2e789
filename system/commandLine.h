// Command lines split into words and joined again, on every platform, so that
// both sets of rules are built and tested everywhere. ParseRawCommand
// (tessera/system/sysCommand.h) picks the platform's.
#pragma once

#include <string>
#include <vector>

namespace Tessera {
namespace System {

// The rules of CommandLineToArgvW (see ParseRawCommand). Never fails.
void SplitWindowsCommandLine(const std::string& line, std::vector<std::string>& words);
// The shell's quoting without expansion. False, with `error` set, for an
// unterminated quote or a trailing backslash.
bool SplitShellWords(const std::string& line, std::vector<std::string>& words, std::string& error);
// Appends `word` to `line` quoted so that SplitWindowsCommandLine gives it
// back as one argument (not for the program name, which is quoted whole).
void AppendWindowsArgument(const std::string& word, std::string& line);
// The command line of a Windows child: the program name (argv[0]) in quotes
// when it holds a blank, then each argument as AppendWindowsArgument quotes it.
std::string JoinWindowsCommandLine(const std::vector<std::string>& argv);

} // namespace System
} // namespace Tessera
