#include <tessera/exception.h>
#include <tessera/logger.h>
#include <tessera/system/runtime.h>
#include <tessera/system/system.h>

#include "tests/scratchDir.h"
#include "tests/testSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using namespace Tessera;
namespace fs = std::filesystem;

namespace {

class RolloverLogWriterTest : public ScratchDirTest {
protected:
    Ref<Writer> Make(std::int64_t maxSize, std::int32_t numFiles, bool append = true,
                     const std::string& action = "continue") {
        Ref<Writer> out;
        System::GetSystemFactory()->CreateRolloverLogWriter(_dir.u8string(), "svc", maxSize,
                                                            numFiles, action, append, out);
        return out;
    }
    fs::path File(int index) const {
        return _dir /
               (index == 0 ? std::string("svc.log") : "svc-" + std::to_string(index) + ".log");
    }
    std::string Read(int index) const { return Contents(File(index)); }
    // Every file's text, oldest first.
    std::string ReadAll(int numFiles) const {
        std::string all;
        for (int i = numFiles - 1; i >= 0; --i) all += Read(i);
        return all;
    }
    int CountFiles() const {
        int n = 0;
        for (const auto& entry : fs::directory_iterator(_dir)) {
            (void)entry;
            ++n;
        }
        return n;
    }
    static void Put(const Ref<Writer>& w, const std::string& line) {
        w->Write(line.data(), static_cast<int>(line.size()));
    }
};

} // namespace

TEST_F(RolloverLogWriterTest, RefusesBadSettings) {
    try {
        Make(1000, 1);
        FAIL() << "one file accepted";
    } catch (const InvalidArgumentException& e) {
        EXPECT_STREQ(e.what(), "Invalid argument : At least two log files required. 1 specified");
    }
    try {
        Make(1000, 3, true, "retry");
        FAIL() << "unknown action accepted";
    } catch (const InvalidArgumentException& e) {
        EXPECT_STREQ(e.what(), "Invalid argument : Bad failure action string");
    }
    EXPECT_THROW(Make(0, 3), InvalidArgumentException);
}

TEST_F(RolloverLogWriterTest, RollsByNumberAndKeepsTheCount) {
    Ref<Writer> w = Make(100, 3);
    const std::string line(40, 'x');
    for (int i = 0; i < 10; ++i) Put(w, std::to_string(i) + line + "\n");
    // 42 bytes a record, two records a file: 0-1 went, 2-3 in -2, 4-5 in -1, ...
    EXPECT_EQ(CountFiles(), 3);
    EXPECT_EQ(Read(0), "8" + line + "\n9" + line + "\n");
    EXPECT_EQ(Read(1), "6" + line + "\n7" + line + "\n");
    EXPECT_EQ(Read(2), "4" + line + "\n5" + line + "\n");
    for (int i = 0; i < 3; ++i) EXPECT_LE(fs::file_size(File(i)), 100u);
    w->Close();
    EXPECT_THROW(Put(w, "late\n"), InvalidStateException);

    // Appending continues the current file; a new run rolls it away first.
    Put(Make(100, 3, true), "A\n");
    EXPECT_EQ(Read(0), "8" + line + "\n9" + line + "\nA\n");
    Put(Make(100, 3, false), "B\n");
    EXPECT_EQ(Read(0), "B\n");
    EXPECT_EQ(Read(1), "8" + line + "\n9" + line + "\nA\n");
}

TEST_F(RolloverLogWriterTest, ManyThreadsAcrossManyRolls) {
    const int numFiles = 64, threads = 4, records = 500;
    Ref<Writer> w = Make(2048, numFiles);
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&w, t] {
            for (int i = 0; i < records; ++i) {
                Put(w, "t" + std::to_string(t) + " r" + std::to_string(i) + " " +
                           std::string(static_cast<std::size_t>(i % 37), '.') + "|\n");
            }
        });
    }
    for (std::thread& worker : workers) worker.join();
    EXPECT_LE(CountFiles(), numFiles);
    EXPECT_GT(CountFiles(), 10); // it did roll, many times

    std::istringstream all(ReadAll(numFiles));
    std::map<int, int> next;
    std::string line;
    int count = 0;
    while (std::getline(all, line)) {
        int t = -1, i = -1;
        ASSERT_EQ(std::sscanf(line.c_str(), "t%d r%d", &t, &i), 2) << line;
        const std::string whole = "t" + std::to_string(t) + " r" + std::to_string(i) + " " +
                                  std::string(static_cast<std::size_t>(i % 37), '.') + "|";
        ASSERT_EQ(line, whole);
        ASSERT_EQ(i, next[t]++) << "out of order or repeated";
        ++count;
    }
    EXPECT_EQ(count, threads * records);
}

TEST_F(RolloverLogWriterTest, FailedRollWritesOnAndRetriesLater) {
    fs::create_directories(_dir);
    std::ofstream(File(1), std::ios::binary) << "older\n";
    // The oldest name is taken by a directory that cannot be deleted.
    fs::create_directories(File(2) / "keep");
    Ref<Writer> w = Make(50, 3);
    const std::string line(30, 'y');
    const auto beforeFailure = std::chrono::steady_clock::now();
    for (int i = 0; i < 5; ++i) Put(w, std::to_string(i) + line + "\n");
    EXPECT_EQ(Read(1), "older\n");
    EXPECT_EQ(fs::file_size(File(0)), 5u * 32u); // nothing lost, all in the current file

    // The next attempt waits its pause (200 ms) out: a write within it does
    // not roll. A busy machine may be past the pause by then; it still rolls
    // once, at this write or the next.
    fs::remove_all(File(2));
    Put(w, "soon\n");
    const bool withinPause =
        std::chrono::steady_clock::now() - beforeFailure < std::chrono::milliseconds(150);
    if (withinPause) {
        EXPECT_EQ(Read(1), "older\n") << "retried without a pause";
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    Put(w, "after\n");
    if (withinPause || Read(0) == "after\n") {
        EXPECT_EQ(Read(0), "after\n");
        EXPECT_EQ(fs::file_size(File(1)), 5u * 32u + 5u);
    } else {
        EXPECT_EQ(Read(0), "soon\nafter\n");
        EXPECT_EQ(fs::file_size(File(1)), 5u * 32u);
    }
    EXPECT_EQ(Read(2), "older\n");
}

// A roll moves files only onto free numbers: with a gap in the numbers (a
// file deleted by hand, a roll cut short), the files past the gap stay as
// they are and nothing is deleted.
TEST_F(RolloverLogWriterTest, RollMovesFilesOnlyOntoFreeNumbers) {
    fs::create_directories(_dir);
    std::ofstream(File(2), std::ios::binary) << "two\n";
    std::ofstream(File(3), std::ios::binary) << "three\n";
    Ref<Writer> w = Make(10, 4);
    Put(w, "current\n");
    Put(w, "next\n");
    EXPECT_EQ(Read(0), "next\n");
    EXPECT_EQ(Read(1), "current\n");
    EXPECT_EQ(Read(2), "two\n");
    EXPECT_EQ(Read(3), "three\n");
}

// A roll whose rename keeps failing (a viewer holding the current file open on
// Windows, an append-only attribute on Linux) resumes where it stopped: only
// the one oldest file that the roll itself drops is lost, however many
// retries fail.
TEST_F(RolloverLogWriterTest, RepeatedlyFailingRollLosesOnlyTheOldestFile) {
    Ref<Writer> w = Make(40, 4);
    Ref<StringWriter> log;
    CreateStringWriter(log);
    Service::LogManager::AddWriter("roll", w, Service::Logger::MASK_ERROR);
    Service::LogManager::AddWriter("other", log, Service::Logger::MASK_ERROR);
    auto record = [](int n) {
        char text[32];
        std::snprintf(text, sizeof(text), "record %04d\n", n); // 12 bytes, three to a file
        return std::string(text);
    };
    auto put = [&](int n) { Put(w, record(n)); };
    int next = 0;
    while (!fs::exists(File(3))) put(next++);
    put(next++);
    const std::string oldest = Read(3);
    {
        TestSupport::RenameBlocker blocker(File(0));
        if (!blocker.Active()) GTEST_SKIP() << blocker.Why();
        // Eight retries, 200 ms apart, all failing.
        for (int i = 0; i < 8; ++i) {
            put(next++);
            std::this_thread::sleep_for(std::chrono::milliseconds(210));
        }
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(210));
    put(next++); // the roll now completes
    Service::LogManager::RemoveAllWriters();
    // Every record but those of the oldest file before the roll, in order,
    // with the reports of the failed attempts among them.
    std::string all;
    for (int n = 0; n < next; ++n) all += record(n);
    std::string kept, reports;
    std::istringstream lines(ReadAll(4));
    for (std::string line; std::getline(lines, line);) {
        (line.find("Log rollover of ") != std::string::npos ? reports : kept) += line + "\n";
    }
    EXPECT_EQ(kept, all.substr(oldest.size())) << "history lost";
    // Each failure is reported to every writer, the rolling file's own
    // included.
    EXPECT_NE(reports.find("failed: cannot rename"), std::string::npos);
    EXPECT_NE(log->GetString().find("failed: cannot rename"), std::string::npos);
}

TEST_F(RolloverLogWriterTest, RecordsFromTheLogManagerLandWhole) {
    Ref<Writer> w = Make(1 << 20, 2);
    Service::LogManager::AddWriter("file", w, Service::Logger::MASK_INFO);
    Ref<Service::Logger> log(new Service::Logger("roll", Service::Logger::MASK_TRIVIA));
    TESSERA_LOG(log, Service::Logger::LOG_INFO, "to the file %1", 7);
    TESSERA_LOG(log, Service::Logger::LOG_VERBOSE, "not to the file");
    Service::LogManager::RemoveAllWriters();
    const std::string text = Read(0);
    EXPECT_NE(text.find(" info 'roll'] to the file 7\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("not to the file"), std::string::npos);
    EXPECT_EQ(text.back(), '\n');
}

using RolloverLogWriterDeathTest = RolloverLogWriterTest;

TEST_F(RolloverLogWriterDeathTest, AbortEndsTheProcessWithTheReason) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Ref<Writer> w = Make(10, 2, true, "abort");
    fs::create_directories(File(1) / "keep");
    Put(w, "0123456789\n");
    EXPECT_DEATH(Put(w, "more\n"), "PANIC: Log rollover of \\S+svc\\.log failed: cannot delete");
}
