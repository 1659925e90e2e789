#include <tessera/exception.h>
#include <tessera/logger.h>
#include <tessera/service.h>
#include <tessera/system/runtime.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

using namespace Tessera;
using Service::Config;
using Service::Logger;
namespace fs = std::filesystem;

namespace {

std::string Read(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// The message of what Initialize throws for one bad setting, or "" when it
// accepts it.
std::string Refusal(const std::string& key, const std::string& value, const fs::path& dir) {
    Xml::Node root("config");
    if (key == "logLevel") root.AddChild(key).SetText(value);
    Xml::Node& log = root.AddChild("log");
    log.AddChild("directory").SetText(dir.u8string());
    if (key != "logLevel") log.AddChild(key).SetText(value);
    Ref<Config> config(new Config(root));
    try {
        Service::Initialize(config->GetView(), "svc");
    } catch (const InvalidArgumentException& e) {
        return e.what();
    }
    return "";
}

} // namespace

TEST(ServiceLoggingDeathTest, ConfigurationSetsUpTheLog) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // Process-wide state: the case runs in a child process.
    EXPECT_EXIT(
        {
            const fs::path dir = fs::temp_directory_path() /
                                 ("tessera-service-log-" + std::to_string(System::GetThreadId()));
            fs::remove_all(dir);
            int failed = 0;
            auto check = [&failed](bool ok, const char* what) {
                if (!ok) {
                    std::fprintf(stderr, "failed: %s\n", what);
                    ++failed;
                }
            };
            check(Refusal("logLevel", "loud", dir) ==
                      "Invalid argument : Bad log level in configuration.",
                  "log level");
            check(Refusal("fileLevel", "all", dir) ==
                      "Invalid argument : Bad log level in configuration.",
                  "file level");
            check(Refusal("rolloverFailureAction", "retry", dir) ==
                      "Invalid argument : Bad failure action string",
                  "failure action");
            check(
                Refusal("fileMode", "truncate", dir).find("Bad log file mode") != std::string::npos,
                "file mode");
            check(Refusal("maxFileNum", "1", dir) ==
                      "Invalid argument : At least two log files required. 1 specified",
                  "file count");
            check(!fs::exists(dir), "nothing started by a refused configuration");

            Xml::Node root("config");
            root.AddChild("logLevel").SetText("verbose");
            Xml::Node& files = root.AddChild("log");
            files.AddChild("directory").SetText(dir.u8string());
            files.AddChild("maxFileSize").SetText("4096");
            files.AddChild("maxFileNum").SetText("3");
            files.AddChild("fileLevel").SetText("info");
            root.AddChild("alert")
                .AddChild("log")
                .AddChild("directory")
                .SetText((dir / "alert").u8string());
            Ref<Config> config(new Config(root));
            Service::Initialize(config->GetView(), "svc");

            Logger* log = Service::DefaultLogger();
            check(log->GetLevelMask() == Logger::MASK_VERBOSE, "default level");
            TESSERA_LOG(log, Logger::LOG_VERBOSE, "verbose record");
            TESSERA_LOG(log, Logger::LOG_INFO, "info record");
            TESSERA_LOG(log, Logger::LOG_ERROR, "error record");
            for (int i = 0; i < 100; ++i) TESSERA_LOG(log, Logger::LOG_INFO, "filler %1", i);

            const std::string oldest = Read(dir / "svc-2.log") + Read(dir / "svc-1.log");
            check(oldest.find("info 'default'] info record\n") != std::string::npos, "info");
            check(oldest.find("verbose record") == std::string::npos, "file level");
            check(Read(dir / "svc.log").find("filler 99\n") != std::string::npos, "newest");
            check(!fs::exists(dir / "svc-3.log"), "file count");
            const std::string alert = Read(dir / "alert" / "svc-alert.log");
            check(alert.find("error 'default'] error record\n") != std::string::npos &&
                      alert.find("info record") == std::string::npos,
                  "alert");
            Service::LogManager::RemoveAllWriters();
            fs::remove_all(dir);
            std::exit(failed);
        },
        testing::ExitedWithCode(0), "");
}
