// The test child on Windows.

#include "testChild.h"

#include <windows.h>

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

void DieBySignal(int code) {
    ExitProcess(static_cast<UINT>(code));
}

}  // namespace TesseraTestChild
