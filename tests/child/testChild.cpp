// A small program the child-process tests run: each mode is one behaviour of
// a child, chosen by the first argument.
//
//   exit <code>             exits with <code>
//   args ...                writes each further argument on a line of its own
//   sleep <ms> [<code>]     sleeps, then exits with <code> (0)
//   spew <bytes>            writes <bytes> to standard output and as many to
//                           standard error, alternating in 64 KiB pieces
//   echo                    copies standard input to standard output, then
//                           writes "<count> bytes" to standard error
//   cwd                     writes its working directory
//   env                     writes its environment
//   inherited [<handles>]   lists what it inherited (see testChild.h)
//   tree <file>             starts "touch <file>" through the shell and waits
//   touch <file>            appends a byte to <file> every 50 ms, for ever
//   signal                  ends itself by a signal (POSIX)

#include "testChild.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

int main(int argc, char** argv) {
    if (argc < 2) {
        return 2;
    }
    TesseraTestChild::UseBinaryStreams();
    const std::string mode = argv[1];
    if (mode == "exit" && argc > 2) {
        return std::atoi(argv[2]);
    }
    if (mode == "args") {
        for (int i = 2; i < argc; ++i) {
            std::cout << '[' << argv[i] << "]\n";
        }
        return 0;
    }
    if (mode == "sleep" && argc > 2) {
        std::this_thread::sleep_for(std::chrono::milliseconds(std::atoi(argv[2])));
        return argc > 3 ? std::atoi(argv[3]) : 0;
    }
    if (mode == "spew" && argc > 2) {
        std::size_t left = std::strtoull(argv[2], nullptr, 10);
        std::vector<char> out(65536, 'o');
        std::vector<char> err(65536, 'e');
        while (left > 0) {
            const std::size_t n = left < out.size() ? left : out.size();
            if (std::fwrite(out.data(), 1, n, stdout) != n || std::fflush(stdout) != 0 ||
                std::fwrite(err.data(), 1, n, stderr) != n || std::fflush(stderr) != 0) {
                return 3;
            }
            left -= n;
        }
        return 0;
    }
    if (mode == "echo") {
        std::size_t count = 0;
        char buffer[4096];
        std::size_t n;
        while ((n = std::fread(buffer, 1, sizeof buffer, stdin)) > 0) {
            std::fwrite(buffer, 1, n, stdout);
            count += n;
        }
        std::fprintf(stderr, "%zu bytes", count);
        return 0;
    }
    if (mode == "cwd") {
        std::cout << std::filesystem::current_path().string();
        return 0;
    }
    if (mode == "env") {
        std::cout << TesseraTestChild::Environment();
        return 0;
    }
    if (mode == "inherited") {
        std::cout << TesseraTestChild::ListInherited(argc - 2, argv + 2);
        return 0;
    }
    if (mode == "tree" && argc > 2) {
        const std::string command = TesseraTestChild::TouchCommand(argv[0], argv[2]);
        return std::system(command.c_str()) == 0 ? 0 : 4;
    }
    if (mode == "touch" && argc > 2) {
        for (;;) {
            std::ofstream(argv[2], std::ios::app | std::ios::binary) << 'x';
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    }
    if (mode == "signal") {
        TesseraTestChild::DieBySignal(9);
    }
    return 2;
}
