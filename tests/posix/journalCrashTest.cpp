// The journal survives SIGKILL at any moment: a child re-running this program
// appends entries and reports each acknowledged index; the parent kills it at
// a random point and checks the journal it left.

#include "tests/journal/journalCrash.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

extern char** environ;

namespace {

// Lines from the child's standard output.
class LineReader {
public:
    explicit LineReader(int fd) : _fd(fd) {}
    // False at the end of the output.
    bool Next(std::string& line) {
        for (;;) {
            const std::string::size_type nl = _buffer.find('\n');
            if (nl != std::string::npos) {
                line = _buffer.substr(0, nl);
                _buffer.erase(0, nl + 1);
                return true;
            }
            char chunk[4096];
            const ssize_t n = ::read(_fd, chunk, sizeof(chunk));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return false;
            _buffer.append(chunk, static_cast<std::size_t>(n));
        }
    }

private:
    int _fd;
    std::string _buffer;
};

TEST(JournalCrashTest, EveryAcknowledgedEntrySurvivesSigkill) {
    const std::filesystem::path dir =
        std::filesystem::temp_directory_path() / ("tessera-crash-" + std::to_string(::getpid()));
    std::filesystem::remove_all(dir);
    JournalCrash::BeginParent(dir.string());
    std::string self(4096, '\0');
    const ssize_t selfLen = ::readlink("/proc/self/exe", &self[0], self.size());
    ASSERT_GT(selfLen, 0);
    self.resize(static_cast<std::size_t>(selfLen));
    std::vector<std::string> env;
    for (char** e = environ; *e != nullptr; ++e) {
        if (std::strncmp(*e, "GTEST_", 6) != 0) env.push_back(*e);
    }
    env.push_back(std::string(JournalCrash::kMarker) + "=" + dir.string());
    std::vector<char*> envp;
    for (std::string& e : env) envp.push_back(&e[0]);
    envp.push_back(nullptr);
    std::string filter = JournalCrash::kChildFilter;
    char* argv[] = {&self[0], &filter[0], nullptr};

    std::mt19937 random(std::random_device{}());
    // Children under a sanitizer start several times slower: fewer kills
    // there, the full count in the plain builds.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    const int kRuns = 200;
#else
    const int kRuns = 1000;
#endif
    int torn = 0, totalAcked = 0;
    for (int run = 0; run < kRuns; ++run) {
        int pipefd[2];
        ASSERT_EQ(::pipe2(pipefd, O_CLOEXEC), 0);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, pipefd[1], STDOUT_FILENO);
        pid_t child = 0;
        ASSERT_EQ(::posix_spawn(&child, self.c_str(), &actions, nullptr, argv, envp.data()), 0);
        posix_spawn_file_actions_destroy(&actions);
        ::close(pipefd[1]);

        LineReader lines(pipefd[0]);
        std::string line, journal;
        while (journal.empty() && lines.Next(line)) {
            if (line.rfind("@J ", 0) == 0) journal = line.substr(3);
        }
        ASSERT_FALSE(journal.empty()) << "the child made no journal";
        // Kill after a few acknowledgements and a moment more.
        const int waitFor = static_cast<int>(random() % 3);
        int acked = 0;
        while (acked < waitFor && lines.Next(line)) acked += line.rfind("@A ", 0) == 0;
        ::usleep(static_cast<useconds_t>(random() % 1500));
        ::kill(child, SIGKILL);
        while (lines.Next(line)) acked += line.rfind("@A ", 0) == 0;
        ::close(pipefd[0]);
        int status = 0;
        ::waitpid(child, &status, 0);
        ASSERT_TRUE(WIFSIGNALED(status)) << "the child ended on its own: " << status;

        bool wasTorn = false;
        const std::string failure = JournalCrash::CheckAfterKill(journal, acked, wasTorn);
        ASSERT_EQ(failure, "") << "run " << run << ", " << acked << " acknowledged";
        torn += wasTorn;
        totalAcked += acked;
    }
    JournalCrash::EndParent();
    std::filesystem::remove_all(dir);
    std::printf("[ crash    ] %d kills, %d acknowledged entries, %d torn records cut\n", kRuns,
                totalAcked, torn);
}

}  // namespace
