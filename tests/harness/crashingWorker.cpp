// A test program whose only test crashes on a worker thread. The suite runs it
// through the same harness as the real tests and requires it to fail: under
// Wine a process whose worker thread dies of an unhandled fault can still
// exit with status 0 (seen: 1 run in 3 with four crashing workers), so a harness that trusts the exit status alone would
// count this crash as a pass.

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace {
// Kept out of the optimizer's sight, so the store really happens.
int* volatile gNowhere = nullptr;
} // namespace

// Several workers crash at once: that is when Wine most often reports
// success.
TEST(HarnessCheck, WorkerThreadCrashes) {
    std::vector<std::thread> workers;
    for (int i = 0; i < 4; ++i) workers.emplace_back([] { *gNowhere = 1; });
    for (auto& worker : workers) worker.join();
}
