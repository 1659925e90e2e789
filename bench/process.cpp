// The process the benchmarks run in must look like a service: one that has
// had a second thread. Until a process starts its first thread, libstdc++
// counts std::shared_ptr references with plain, non-atomic instructions
// (glibc's __libc_single_threaded), which would flatter that peer in every
// single-threaded benchmark. Starting one thread before main turns that off
// for good.

#include <sys/single_threaded.h>

#include <cstdio>
#include <cstdlib>
#include <thread>

namespace TesseraBench {
namespace {

const bool kHadSecondThread = [] {
    std::thread([] {}).join();
    if (__libc_single_threaded) {
        std::fputs("tessera_bench: the process still counts as single-threaded\n", stderr);
        std::abort();
    }
    return true;
}();

} // namespace
} // namespace TesseraBench
