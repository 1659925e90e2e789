// The test child on POSIX.

#include "testChild.h"

#include <dirent.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

extern char** environ;

namespace TesseraTestChild {

std::string ListInherited(int, char**) {
    std::vector<int> fds;
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) {
        return "no /proc/self/fd";
    }
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        const int fd = std::atoi(entry->d_name);
        if (fd != dirfd(dir)) {
            fds.push_back(fd);
        }
    }
    closedir(dir);
    std::sort(fds.begin(), fds.end());
    std::string text;
    for (int fd : fds) {
        text += (text.empty() ? "" : " ") + std::to_string(fd);
    }
    return text;
}

std::string Environment() {
    std::string text;
    for (char** e = environ; *e != nullptr; ++e) {
        text += *e;
        text += '\n';
    }
    return text;
}

void UseBinaryStreams() {}

std::string TouchCommand(const std::string& program, const std::string& file) {
    return "'" + program + "' touch '" + file + "'";
}

void DieBySignal(int) {
    raise(SIGTERM);
    _exit(1);
}

}  // namespace TesseraTestChild
