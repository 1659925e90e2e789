// The test child on Windows.

#include "testChild.h"

#include <windows.h>

#include <fcntl.h>
#include <io.h>
#include <stdio.h>

#include <cstdlib>
#include <cstring>

namespace TesseraTestChild {

std::string ListInherited(int argc, char** argv) {
    std::string text;
    for (int i = 0; i < argc; ++i) {
        const HANDLE handle = reinterpret_cast<HANDLE>(std::strtoull(argv[i], nullptr, 10));
        DWORD flags = 0;
        text += (text.empty() ? "" : " ");
        text += GetHandleInformation(handle, &flags) ? "open" : "closed";
    }
    return text;
}

std::string Environment() {
    std::string text;
    char* block = GetEnvironmentStringsA();
    for (const char* e = block; *e != '\0'; e += std::strlen(e) + 1) {
        text += e;
        text += '\n';
    }
    FreeEnvironmentStringsA(block);
    return text;
}

void UseBinaryStreams() {
    _setmode(_fileno(stdin), _O_BINARY);
    _setmode(_fileno(stdout), _O_BINARY);
    _setmode(_fileno(stderr), _O_BINARY);
}

// cmd /c takes off the first and the last quote of the whole line.
std::string TouchCommand(const std::string& program, const std::string& file) {
    return "\"\"" + program + "\" touch \"" + file + "\"\"";
}

void DieBySignal(int code) {
    ExitProcess(static_cast<UINT>(code));
}

}  // namespace TesseraTestChild
