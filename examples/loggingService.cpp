// Logging configured from an XML file, built against the installed library:
//   1. the configuration is read from service.xml (or the file named by the
//      first argument) with Service::LoadConfigFile;
//   2. System::Init and Service::Initialize set up the system layer and the
//      rolling log files it asks for (4,096 bytes a file, 3 files kept);
//   3. enough records are logged to roll the files over more than once;
//   4. the files left in the log directory are listed with their sizes and
//      the first line of the current one is shown;
//   5. the service's counters (the request times it sampled, the records the
//      log manager wrote per level) are printed as Prometheus text.
//   6. a child command ("uname -sr") runs with a 10-second time-out, its
//      output and exit code logged.
// The log directory is emptied first, so each run leaves the same files.
// Exits 0 when the files are those the configuration asks for, 1 otherwise.

#include <tessera/config.h>
#include <tessera/exception.h>
#include <tessera/logger.h>
#include <tessera/perfCounter/accumulators.h>
#include <tessera/perfCounter/exposition.h>
#include <tessera/service.h>
#include <tessera/system/sysCommand.h>
#include <tessera/system/system.h>
#include <tessera/system/thread.h>
#include <tessera/xmlParser.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

namespace fs = std::filesystem;
using Tessera::Service::Logger;

int main(int argc, char** argv) {
    const std::string configPath = argc > 1 ? argv[1] : "service.xml";
    try {
        Tessera::Ref<Tessera::Service::Config> config;
        Tessera::Service::LoadConfigFile(configPath, config);
        Tessera::Service::Config::View root = config->GetView();

        const fs::path directory = fs::u8path(root.GetString("log/directory", "."));
        fs::remove_all(directory);
        fs::create_directories(directory);

        Tessera::System::Init(&root);
        Tessera::Service::Initialize(root, "loggingService");

        Tessera::Ref<Logger> worker;
        Tessera::Service::DefaultLogger()->CreateLogger("worker", Logger::LOG_INFO, worker);
        TESSERA_LOG(Tessera::Service::DefaultLogger(), Logger::LOG_INFO,
                    "Configuration read from %1", configPath);
        Tessera::Ref<Tessera::PerfCounter::MeterAccumulator> requestTime(
            new Tessera::PerfCounter::MeterAccumulator(nullptr, "Example/RequestTime"));
        requestTime->Publish();
        for (int i = 1; i <= 120; ++i) {
            TESSERA_LOG(worker, Logger::LOG_INFO, "Request %1 served in %2 ms", i, 3 + i % 7);
            requestTime->Sample(3 + i % 7);
        }
        TESSERA_LOG(worker, Logger::LOG_VERBOSE, "Not written: the level is info");

        std::set<std::string> names;
        std::printf("Files in %s:\n", directory.u8string().c_str());
        for (const fs::directory_entry& entry : fs::directory_iterator(directory)) {
            names.insert(entry.path().filename().u8string());
        }
        for (const std::string& name : names) {
            std::printf("  %-22s %6ju bytes\n", name.c_str(),
                        static_cast<std::uintmax_t>(fs::file_size(directory / name)));
        }
        std::ifstream current(directory / "loggingService.log");
        std::string line;
        std::getline(current, line);
        std::printf("First line of loggingService.log:\n  %s\n", line.c_str());

        Tessera::System::SysCommandSpec spec;
        Tessera::System::ParseRawCommand("uname -sr", spec);
        Tessera::Ref<Tessera::System::SysCommand> child;
        Tessera::System::GetSystemFactory()->CreateSysCommand(spec, child);
        child->Invoke();
        try {
            child->WaitForExit(10);
        } catch (const Tessera::TimeoutException&) {
            child->KillTree(1); // the child and whatever it started
            child->WaitForExit(Tessera::System::SYSCOMMAND_WAIT_INFINITE);
        }
        const std::string output = child->ReadAll(Tessera::System::SC_STDOUT);
        TESSERA_LOG(worker, Logger::LOG_INFO, "'%1' exited with %2: %3", "uname -sr",
                    child->GetExitCode(), output);
        std::printf("Child command: uname -sr -> %d: %s", child->GetExitCode(), output.c_str());

        Tessera::PerfCounter::CounterValues values;
        Tessera::PerfCounter::GetCounterRegistry()->QueryPattern(
            "Example/.*|LogManager/RecordsWritten/(info|warning)", values);
        std::string exposition;
        Tessera::PerfCounter::WritePrometheusText(values, exposition);
        std::printf("Counters:\n%s", exposition.c_str());
        requestTime->Unpublish();
        if (requestTime->GetNumSamples() != 120) {
            std::printf("FAILED: expected 120 request times\n");
            return 1;
        }

        const std::set<std::string> expected = {"loggingService.log", "loggingService-1.log",
                                                "loggingService-2.log"};
        if (names != expected) {
            std::printf("FAILED: expected the current file and two rolled ones\n");
            return 1;
        }
        return 0;
    } catch (const Tessera::Exception& e) {
        std::fprintf(stderr, "FAILED: %s\n", e.what());
        return 1;
    }
}
