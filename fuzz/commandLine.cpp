// The command-line splitters (system/commandLine.h), which the library keeps
// hidden, so the target is built with system/commandLine.cpp itself. Beyond
// "no crash": words quoted for a Windows command line split back into the
// same words. The input's lines are the words (a NUL, which no command line
// can hold, drops its line).

#include "system/commandLine.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    std::vector<std::string> words;
    Tessera::System::SplitWindowsCommandLine(input, words);
    std::string error;
    Tessera::System::SplitShellWords(input, words, error);

    std::vector<std::string> expected{"program"};
    std::size_t start = 0;
    for (std::size_t i = 0; i <= input.size(); ++i) {
        if (i == input.size() || input[i] == '\n') {
            const std::string word = input.substr(start, i - start);
            if (word.find('\0') == std::string::npos) {
                expected.push_back(word);
            }
            start = i + 1;
        }
    }
    std::string line = "program";
    for (std::size_t i = 1; i < expected.size(); ++i) {
        line += ' ';
        Tessera::System::AppendWindowsArgument(expected[i], line);
    }
    std::vector<std::string> back;
    Tessera::System::SplitWindowsCommandLine(line, back);
    if (back != expected) {
        std::fprintf(stderr, "FUZZ CHECK FAILED: quoted words split back differently: %s\n",
                     line.c_str());
        std::abort();
    }
    return 0;
}
