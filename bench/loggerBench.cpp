// Logging: a record whose level is off, and records written to rolling log
// files (10 MiB files, 10 kept, about 100 bytes a line, several roll-overs per
// run) by the library and by its peers: spdlog's rotating_file_sink_mt flushed
// after every record, and POCO's FileChannel rotating by size with
// purgeCount 10 and flush on. Each writes one line per record with a date,
// time, thread, level and logger name before the message, as the library
// does. The file rows report lines per second (items_per_second).

#include <tessera/logger.h>
#include <tessera/system/system.h>

#include <Poco/AutoPtr.h>
#include <Poco/FileChannel.h>
#include <Poco/FormattingChannel.h>
#include <Poco/Logger.h>
#include <Poco/PatternFormatter.h>
#include <benchmark/benchmark.h>

#if __has_include(<spdlog/sinks/rotating_file_sink.h>)
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>
#define TESSERA_BENCH_SPDLOG 1
#endif

#include <filesystem>
#include <string>

namespace {

namespace fs = std::filesystem;
using Tessera::Service::Logger;

constexpr std::int64_t kFileSize = 10 * 1024 * 1024;
constexpr int kFiles = 10;
// About 100 bytes a line with the prefix; 500,000 lines cross 4 roll-overs.
constexpr int kRecords = 500000;
const std::string kPeer = "10.20.30.40:52344";

fs::path FreshDirectory(const char* name) {
    const fs::path dir = fs::temp_directory_path() / (std::string("tessera-bench-") + name);
    fs::remove_all(dir);
    fs::create_directories(dir);
    return dir;
}

void BM_LogDisabledRecord(benchmark::State& state) {
    Tessera::Ref<Logger> log(new Logger("bench", Logger::MASK_WARNING));
    int i = 0;
    for (auto _ : state) {
        TESSERA_LOG(log, Logger::LOG_INFO, "Request %1 from %2", ++i, kPeer);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_LogDisabledRecord);

void BM_LogRollingFile_Tessera(benchmark::State& state) {
    const fs::path dir = FreshDirectory("tessera");
    Tessera::Ref<Tessera::Writer> file;
    Tessera::System::GetSystemFactory()->CreateRolloverLogWriter(dir.string(), "bench", kFileSize,
                                                                 kFiles, true, file);
    Tessera::Service::LogManager::AddWriter("bench", file, Logger::MASK_TRIVIA);
    Tessera::Ref<Logger> log(new Logger("bench", Logger::MASK_INFO));
    int i = 0;
    for (auto _ : state) {
        ++i;
        TESSERA_LOG(log, Logger::LOG_INFO, "Request %1 took %2 ms from %3 status %4", i, 3.25,
                    kPeer, 200);
    }
    Tessera::Service::LogManager::RemoveWriter("bench");
    state.SetItemsProcessed(state.iterations());
    fs::remove_all(dir);
}
BENCHMARK(BM_LogRollingFile_Tessera)
    ->Iterations(kRecords)
    ->Repetitions(3)
    ->ReportAggregatesOnly(true)
    ->UseRealTime();

#ifdef TESSERA_BENCH_SPDLOG
void BM_LogRollingFile_Spdlog(benchmark::State& state) {
    const fs::path dir = FreshDirectory("spdlog");
    auto sink = std::make_shared<spdlog::sinks::rotating_file_sink_mt>(
        (dir / "bench.log").string(), static_cast<std::size_t>(kFileSize), kFiles - 1);
    auto log = std::make_shared<spdlog::logger>("bench", sink);
    log->set_pattern("%Y-%m-%dT%H:%M:%S.%e%z [%t %l '%n'] %v");
    log->flush_on(spdlog::level::trace);
    int i = 0;
    for (auto _ : state) {
        ++i;
        log->info("Request {} took {} ms from {} status {}", i, 3.25, kPeer, 200);
    }
    state.SetItemsProcessed(state.iterations());
    log.reset();
    sink.reset();
    fs::remove_all(dir);
}
BENCHMARK(BM_LogRollingFile_Spdlog)
    ->Iterations(kRecords)
    ->Repetitions(3)
    ->ReportAggregatesOnly(true)
    ->UseRealTime();
#endif

void BM_LogRollingFile_Poco(benchmark::State& state) {
    const fs::path dir = FreshDirectory("poco");
    Poco::AutoPtr<Poco::FileChannel> file(new Poco::FileChannel((dir / "bench.log").string()));
    file->setProperty("rotation", "10 M");
    file->setProperty("archive", "number");
    file->setProperty("purgeCount", "10");
    file->setProperty("flush", "true");
    Poco::AutoPtr<Poco::PatternFormatter> pattern(
        new Poco::PatternFormatter("%Y-%m-%dT%H:%M:%S.%i%z [%I %p '%s'] %t"));
    pattern->setProperty("times", "local");
    Poco::AutoPtr<Poco::FormattingChannel> channel(new Poco::FormattingChannel(pattern, file));
    Poco::Logger& log = Poco::Logger::create("bench", channel, Poco::Message::PRIO_INFORMATION);
    int i = 0;
    for (auto _ : state) {
        ++i;
        log.information("Request %d took %.2f ms from %s status %d", i, 3.25, kPeer, 200);
    }
    state.SetItemsProcessed(state.iterations());
    Poco::Logger::destroy("bench");
    channel->close();
    fs::remove_all(dir);
}
BENCHMARK(BM_LogRollingFile_Poco)
    ->Iterations(kRecords)
    ->Repetitions(3)
    ->ReportAggregatesOnly(true)
    ->UseRealTime();

} // namespace
