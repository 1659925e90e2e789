// The exposition as the Prometheus tool itself checks it ("promtool check
// metrics": the format and its naming conventions). promtool runs on Linux
// only; scripts/deps.sh installs it.

#include "tests/perfCounter/expositionSample.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <cstdio>
#include <string>

namespace {

// The command's exit status and everything it printed.
int RunCommand(const std::string& command, std::string& output) {
    std::FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) return -1;
    char buffer[512];
    while (std::fgets(buffer, sizeof(buffer), pipe) != nullptr) output += buffer;
    const int status = ::pclose(pipe);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

TEST(Promtool, AcceptsTheExposition) {
    std::string ignored;
    if (RunCommand("command -v promtool", ignored) != 0) {
        GTEST_SKIP() << "promtool is not installed (Debian package \"prometheus\"; "
                        "scripts/deps.sh installs it): the exposition is not checked";
    }
    std::string text;
    ExpositionSample::Write(text);
    const std::string path = ExpositionSample::Path() + ".promtool";
    std::FILE* out = std::fopen(path.c_str(), "wb");
    ASSERT_NE(out, nullptr);
    std::fwrite(text.data(), 1, text.size(), out);
    std::fclose(out);

    std::string output;
    EXPECT_EQ(RunCommand("promtool check metrics < '" + path + "'", output), 0) << output << text;
    EXPECT_EQ(output, "") << text;
    // A text promtool must refuse, so that a pass above means something.
    output.clear();
    EXPECT_NE(RunCommand("printf 'bad metric{\\n' | promtool check metrics", output), 0) << output;
    std::remove(path.c_str());
}
