#include <tessera/exception.h>
#include <tessera/logger.h>
#include <tessera/system/runtime.h>
#include <tessera/system/system.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <thread>
#include <typeinfo>
#include <vector>

using namespace Tessera;
using Service::Logger;
using Service::LogManager;
using System::DateTime;

namespace {

// The prefix's thread id as the manager prints it: at least five digits.
std::string ThreadIdText() {
    char text[32];
    std::snprintf(text, sizeof(text), "%05llu",
                  static_cast<unsigned long long>(System::GetThreadId()));
    return text;
}

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::size_t start = 0;
    for (std::size_t nl; (nl = text.find('\n', start)) != std::string::npos; start = nl + 1) {
        lines.push_back(text.substr(start, nl - start));
    }
    EXPECT_EQ(start, text.size()) << "text after the last line";
    return lines;
}

DateTime sNow;
DateTime FixedClock() { return sNow; }

// Records of each case go to a string writer named "test"; the manager is
// left with no writers and the system clock.
class LoggerTest : public testing::Test {
protected:
    void SetUp() override {
        CreateStringWriter(_out);
        LogManager::AddWriter("test", _out, Logger::MASK_TRIVIA);
    }
    void TearDown() override {
        LogManager::RemoveAllWriters();
        LogManager::SetClock(nullptr);
    }
    Ref<StringWriter> _out;
};

int sEvaluated = 0;
int Counted() { return ++sEvaluated; }

} // namespace

TEST(LoggerLevelTest, WordArithmetic) {
    EXPECT_EQ(Logger::GetMaskFromLevel(Logger::LOG_INFO), 31u);
    EXPECT_EQ(Logger::GetMaskFromLevel(Logger::LOG_NONE), 0u);
    EXPECT_EQ(Logger::GetLevelFromMask(31), Logger::LOG_INFO);
    EXPECT_EQ(Logger::GetLevelFromMask(Logger::MASK_TRIVIA), Logger::LOG_TRIVIA);
    EXPECT_EQ(Logger::GetLevelFromMask(0), Logger::LOG_NONE);
    EXPECT_EQ(Logger::MakeCombinedLevel(7, 127), 7u + (127u << 16));
    EXPECT_NE(Logger::MaskLogLevel(Logger::LOG_TRIVIA, Logger::MakeCombinedLevel(0, 64)), 0u);
    EXPECT_EQ(Logger::MaskLogLevel(Logger::LOG_VERBOSE, Logger::MakeCombinedLevel(31, 64)), 0u);

    // The memory half survives setting the log half, and both halves enable.
    Ref<Logger> log(new Logger("levels", Logger::MakeCombinedLevel(0, 64)));
    log->SetLevel(Logger::LOG_INFO);
    EXPECT_EQ(log->GetMemLevel(), 64u);
    EXPECT_EQ(log->GetLevelMask(), 31u);
    EXPECT_FALSE(log->IsLevel(Logger::LOG_VERBOSE));
    EXPECT_TRUE(log->IsLevel(Logger::LOG_TRIVIA));
    EXPECT_TRUE(log->IsLevel(Logger::LOG_INFO));
    EXPECT_FALSE(log->IsLevel(Logger::LOG_NONE));

    log->SetMemLevel(Logger::MASK_ERROR);
    EXPECT_EQ(log->GetRawLevel(), (7u << 16) | 31u);
    log->SetLevel(Logger::MASK_WARNING);
    EXPECT_EQ(log->GetRawLevel(), (7u << 16) | 15u);

    Ref<Logger> child;
    log->CreateLogger("child", Logger::LOG_ERROR, child);
    EXPECT_EQ(child->GetLevelMask(), 7u);
    EXPECT_EQ(child->GetMemLevelMask(), 7u);
    EXPECT_EQ(child->GetParent(), log.Get());
    log->CreateLogger("masked", Logger::MASK_VERBOSE, child);
    EXPECT_EQ(child->GetLevelMask(), 63u);

    Logger::LogLevel parsed = Logger::LOG_NONE;
    const char* names[] = {"quiet", "panic", "error", "warning", "info", "verbose", "trivia"};
    for (int i = 0; i < 7; ++i) {
        ASSERT_TRUE(Logger::ParseLevel(names[i], parsed));
        EXPECT_EQ(parsed, 1 << i);
        EXPECT_STREQ(Logger::GetLevelName(parsed), names[i]);
        // A combined word names the level of its memory half.
        EXPECT_STREQ(Logger::GetLevelName(Logger::MakeCombinedLevel(1, parsed)), names[i]);
    }
    EXPECT_TRUE(Logger::ParseLevel("none", parsed));
    EXPECT_EQ(parsed, Logger::LOG_NONE);
    EXPECT_FALSE(Logger::ParseLevel("Info", parsed));
    EXPECT_STREQ(Logger::GetLevelName(0), "none");
    EXPECT_STREQ(Logger::GetLevelName(31), "info"); // the highest bit of a mask
}

TEST_F(LoggerTest, PrefixCarriesZoneDateAndThreadStates) {
    Ref<Logger> log(new Logger("net", Logger::MASK_TRIVIA));
    const std::string id = ThreadIdText();
    struct Case {
        DateTime when;
        const char* expected;
    } cases[] = {
        {DateTime(2024, 3, 1, 9, 5, 2.117, -60), "2024-03-01T09:05:02.117+01:00 ["},
        {DateTime(2024, 3, 1, 9, 5, 2.0, 300), "2024-03-01T09:05:02.000-05:00 ["},
        {DateTime(2024, 3, 1, 9, 5, 2.5, 0), "2024-03-01T09:05:02.500Z ["},
        {DateTime(2024, 3, 1, 9, 5, 2.5, -345), "2024-03-01T09:05:02.500+05:45 ["},
        {DateTime(2024, 3, 1, 9, 5, 2.5, -16 * 60), "2024-03-01T09:05:02.500+14:00 ["},
    };
    for (const Case& c : cases) {
        std::string prefix;
        LogManager::FormatPrefix(*log, Logger::LOG_WARNING, c.when, prefix);
        EXPECT_EQ(prefix, c.expected + id + " warning 'net'] ");
    }
    const std::uint64_t state = System::AddThreadState("busy");
    std::string prefix;
    LogManager::FormatPrefix(*log, 0, cases[0].when, prefix);
    System::RemoveThreadState(state);
    EXPECT_EQ(prefix, cases[0].expected + id + " none 'net' busy] ");

    // Records across midnight: the date follows the clock.
    LogManager::SetClock(&FixedClock);
    sNow = DateTime(2023, 12, 31, 23, 59, 59.999, -60);
    TESSERA_LOG(log, Logger::LOG_INFO, "last of %1", 2023);
    sNow = DateTime(2024, 1, 1, 0, 0, 0.0, -60);
    TESSERA_LOG(log, Logger::LOG_INFO, "first");
    sNow = DateTime(2024, 1, 1, 0, 0, 0.25, 420);
    Service::LogInternal(log.Get(), Logger::LOG_NONE, "zone moved");
    EXPECT_EQ(Lines(_out->GetString()),
              (std::vector<std::string>{
                  "2023-12-31T23:59:59.999+01:00 [" + id + " info 'net'] last of 2023",
                  "2024-01-01T00:00:00.000+01:00 [" + id + " info 'net'] first",
                  "2024-01-01T00:00:00.250-07:00 [" + id + " none 'net'] zone moved"}));
}

TEST_F(LoggerTest, SystemClockGivesTheLocalDateAndZone) {
    Ref<Logger> log(new Logger("clock", Logger::MASK_INFO));
    const DateTime before = System::GetLocalDateTime();
    TESSERA_LOG(log, Logger::LOG_INFO, "now");
    std::string expected;
    LogManager::FormatPrefix(*log, Logger::LOG_INFO, before, expected);
    const std::string line = _out->GetString();
    // Same date, same zone; the time of day may have moved on.
    EXPECT_EQ(line.substr(0, 11), expected.substr(0, 11));
    EXPECT_EQ(line.substr(23, line.find(" [") - 23), expected.substr(23, expected.find(" [") - 23));
}

TEST_F(LoggerTest, DisabledRecordsCostNoArguments) {
    Ref<Logger> log(new Logger("quiet", Logger::MASK_WARNING));
    sEvaluated = 0;
    TESSERA_LOG(log, Logger::LOG_INFO, "never %1", Counted());
    TESSERA_LOG(log.Get(), Logger::LOG_VERBOSE, "never %1", Counted());
    EXPECT_EQ(sEvaluated, 0);
    EXPECT_TRUE(_out->GetString().empty());
    TESSERA_LOG(log, Logger::LOG_WARNING, "counted %1", Counted());
    EXPECT_EQ(sEvaluated, 1);
    EXPECT_NE(_out->GetString().find("warning 'quiet'] counted 1\n"), std::string::npos);
}

TEST_F(LoggerTest, WritersAndMemoryLogSeeTheirLevels) {
    Ref<StringWriter> errors;
    CreateStringWriter(errors);
    LogManager::AddWriter("errors", errors, Logger::MASK_ERROR);
    Ref<Logger> log(
        new Logger("mem", Logger::MakeCombinedLevel(Logger::MASK_INFO, Logger::MASK_TRIVIA)));
    TESSERA_LOG(log, Logger::LOG_ERROR, "bad %1 %2", "disk", 3);
    TESSERA_LOG(log, Logger::LOG_INFO, "fine");
    TESSERA_LOG(log, Logger::LOG_TRIVIA, "detail"); // memory only

    EXPECT_EQ(Lines(errors->GetString()).size(), 1u);
    EXPECT_NE(errors->GetString().find("error 'mem'] bad disk 3\n"), std::string::npos);
    const std::vector<std::string> all = Lines(_out->GetString());
    ASSERT_EQ(all.size(), 2u);
    EXPECT_NE(all[1].find("info 'mem'] fine"), std::string::npos);

    std::vector<std::string> memory;
    LogManager::GetMemoryLog(memory);
    ASSERT_EQ(memory.size(), 3u);
    EXPECT_NE(memory[2].find("trivia 'mem'] detail\n"), std::string::npos);

    // The ring keeps the newest records, oldest first.
    for (std::size_t i = 0; i < Service::MEMORY_LOG_RECORDS + 5; ++i) {
        TESSERA_LOG(log, Logger::LOG_TRIVIA, "r%1", static_cast<unsigned long long>(i));
    }
    LogManager::GetMemoryLog(memory);
    ASSERT_EQ(memory.size(), Service::MEMORY_LOG_RECORDS);
    EXPECT_NE(memory.front().find("] r5\n"), std::string::npos);
    EXPECT_NE(memory.back().find("] r1004\n"), std::string::npos);

    EXPECT_TRUE(LogManager::RemoveWriter("errors"));
    EXPECT_FALSE(LogManager::RemoveWriter("errors"));
    TESSERA_LOG(log, Logger::LOG_ERROR, "after");
    EXPECT_EQ(Lines(errors->GetString()).size(), 1u);
}

TEST_F(LoggerTest, ConcurrentRecordsArriveWholeAndInOrder) {
    Ref<Logger> log(new Logger("mt", Logger::MASK_INFO));
    const int threads = 4, records = 400;
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&log, t] {
            for (int i = 0; i < records; ++i) {
                TESSERA_LOG(log, Logger::LOG_INFO, "thread %1 record %2 end", t, i);
            }
        });
    }
    for (std::thread& w : workers) w.join();
    std::map<int, int> next;
    const std::vector<std::string> lines = Lines(_out->GetString());
    ASSERT_EQ(lines.size(), static_cast<std::size_t>(threads * records));
    for (const std::string& line : lines) {
        int t = -1, i = -1;
        const std::size_t at = line.find("] thread ");
        ASSERT_NE(at, std::string::npos) << line;
        ASSERT_EQ(std::sscanf(line.c_str() + at, "] thread %d record %d end", &t, &i), 2) << line;
        EXPECT_EQ(i, next[t]++) << line;
    }
}

// A writer that reports something through the log each time it takes a
// record, as a writer reporting its own failure does.
class ChattyWriter : public ObjectImpl, public Writer {
public:
    explicit ChattyWriter(Ref<Logger> log) : _log(log) {}
    void Write(const char* data, int length) override {
        _taken.append(data, static_cast<std::size_t>(length));
        TESSERA_LOG(_log, Logger::LOG_ERROR, "chatty took %1 bytes", length);
    }
    void Flush() override {}
    std::string _taken;

private:
    Ref<Logger> _log;
};

// Records logged from inside a writer reach every writer, the one that logged
// them included, once the record it was taking is through; what writers log
// while taking those goes no further, so nothing recurses.
TEST_F(LoggerTest, RecordsLoggedByAWriterReachEveryWriterOnce) {
    Ref<Logger> log(new Logger("w", Logger::MASK_INFO));
    Ref<ChattyWriter> chatty(new ChattyWriter(log));
    LogManager::AddWriter("chatty", chatty, Logger::MASK_INFO);
    TESSERA_LOG(log, Logger::LOG_INFO, "first");
    const std::vector<std::string> lines = Lines(_out->GetString());
    ASSERT_EQ(lines.size(), 2u) << _out->GetString();
    EXPECT_NE(lines[0].find("] first"), std::string::npos);
    EXPECT_NE(lines[1].find("error 'w'] chatty took "), std::string::npos);
    const std::vector<std::string> taken = Lines(chatty->_taken);
    ASSERT_EQ(taken.size(), 2u);
    EXPECT_EQ(taken[1], lines[1]);
}

TEST(LoggerDeathTest, SevereRecordsReachStandardErrorWithoutWriters) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            LogManager::RemoveAllWriters();
            Ref<Logger> log(new Logger("early", Logger::MASK_TRIVIA));
            TESSERA_LOG(log, Logger::LOG_WARNING, "not shown");
            TESSERA_LOG(log, Logger::LOG_ERROR, "disk %1 failed", 2);
            std::exit(3);
        },
        testing::ExitedWithCode(3), "error 'early'\\] disk 2 failed");
}

TEST_F(LoggerTest, ExceptionsDumpThemselvesAtErrorLevel) {
    Logger* log = Service::DefaultLogger();
    const unsigned saved = log->GetRawLevel();
    try {
        throw TimeoutException("no answer in 5 s");
    } catch (const Exception& e) {
        log->SetLevel(Logger::LOG_PANIC);
        e.Dump();
        EXPECT_TRUE(_out->GetString().empty());
        log->SetLevel(Logger::LOG_ERROR);
        e.Dump();
    }
    log->SetRawLevel(saved);
    const std::string text = _out->GetString();
    const std::string expected =
        std::string(" error 'default'] \n\nException: no answer in 5 s\nType: ") +
        typeid(TimeoutException).name() + "\nBacktrace:\n";
    EXPECT_NE(text.find(expected), std::string::npos) << text;
    EXPECT_GT(text.size(), text.find(expected) + expected.size() + 1); // the stack follows
}

TEST(LoggerDeathTest, PanicsReachTheLogWriters) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // The child runs this body again with an id of its own: the name is fixed.
    const std::string path = testing::TempDir() + "tessera-panic-record.log";
    std::remove(path.c_str());
    EXPECT_DEATH(
        {
            Ref<Writer> file;
            System::GetSystemFactory()->CreateRolloverLogWriter(
                testing::TempDir(), "tessera-panic-record", 1 << 20, 2, true, file);
            LogManager::AddWriter("file", file, Logger::MASK_TRIVIA);
            PanicExit("cannot go on: 100% of 3 disks full");
        },
        "PANIC: cannot go on: 100% of 3 disks full\n");
    std::FILE* in = std::fopen(path.c_str(), "r");
    ASSERT_NE(in, nullptr);
    char line[512] = {0};
    ASSERT_NE(std::fgets(line, sizeof(line), in), nullptr);
    std::fclose(in);
    std::remove(path.c_str());
    EXPECT_NE(
        std::string(line).find(" panic 'default'] PANIC: cannot go on: 100% of 3 disks full\n"),
        std::string::npos)
        << line;
}
