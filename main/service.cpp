// The start-up sequence of the library's services.

#include <tessera/census.h>
#include <tessera/exception.h>
#include <tessera/logger.h>
#include <tessera/service.h>
#include <tessera/system/runtime.h>
#include <tessera/system/system.h>
#include <tessera/system/threadPool.h>

#include <atomic>

namespace Tessera {
namespace Service {
namespace {

std::atomic<bool> sInitialized{false};

constexpr std::int64_t kDefaultMaxFileSize = 10 * 1024 * 1024;
constexpr std::int32_t kDefaultMaxFileNum = 10;

// The tracked type names, or an empty set when the node is absent.
boost::unordered_set<std::string> RefTrackerClassNames(const Config::View& config) {
    boost::unordered_set<std::string> classNames;
    const Config::View node = config.GetChild("refTracker");
    if (!node.Exists()) return classNames;
    for (const Config::View& entry : node.GetEntries()) {
        const std::string name = entry.GetString("/className", std::string());
        if (name.empty()) {
            throw InvalidArgumentException("Entry '" + entry.GetPath() +
                                           "' of refTracker names no className");
        }
        classNames.insert(name);
    }
    return classNames;
}

Logger::LogLevel LevelSetting(const Config::View& config, const std::string& key,
                              Logger::LogLevel defaultLevel) {
    if (!config.Has(key)) return defaultLevel;
    Logger::LogLevel level = defaultLevel;
    if (!Logger::ParseLevel(config.GetString(key, std::string()), level)) {
        throw InvalidArgumentException("Bad log level in configuration.");
    }
    return level;
}

void CheckFileCount(std::int32_t count) {
    if (count < 2) {
        throw InvalidArgumentException(
            MessageFormatter::ASPrint("At least two log files required. %1 specified", count));
    }
}

struct FileLog {
    std::string directory;
    std::int64_t maxSize = kDefaultMaxFileSize;
    std::int32_t maxNum = kDefaultMaxFileNum;
};

struct LogSettings {
    bool setLevel = false;
    Logger::LogLevel level = Logger::LOG_INFO;
    std::string failureAction = "continue";
    bool toFiles = true;
    bool append = true;
    Logger::LogLevel fileLevel = Logger::LOG_TRIVIA;
    FileLog files;
    bool alert = false;
    FileLog alertFiles;
};

LogSettings ReadLogSettings(const Config::View& config) {
    LogSettings s;
    s.setLevel = config.Has("/logLevel");
    s.level = LevelSetting(config, "/logLevel", Logger::LOG_INFO);

    s.failureAction = config.GetString("log/rolloverFailureAction", "continue");
    if (s.failureAction != "continue" && s.failureAction != "abort" && s.failureAction != "break") {
        throw InvalidArgumentException("Bad failure action string");
    }
    s.toFiles = config.GetBool("log/outputToFiles", true);
    s.fileLevel = LevelSetting(config, "log/fileLevel", Logger::LOG_TRIVIA);
    const std::string mode = config.GetString("log/fileMode", std::string());
    if (mode == "new") {
        s.append = false;
    } else if (!mode.empty() && mode != "append") {
        throw InvalidArgumentException("Bad log file mode '" + mode +
                                       "' in configuration: \"append\" or \"new\"");
    }
    s.files.maxSize = config.GetInt64("log/maxFileSize", kDefaultMaxFileSize);
    s.files.maxNum = config.GetInt("log/maxFileNum", kDefaultMaxFileNum);
    if (s.toFiles) {
        CheckFileCount(s.files.maxNum);
        s.files.directory = config.GetString("log/directory", std::string());
        if (s.files.directory.empty()) s.files.directory = System::GetCurrentWorkingDirectory();
    }

    s.alertFiles.directory = config.GetString("alert/log/directory", std::string());
    s.alert = !s.alertFiles.directory.empty();
    s.alertFiles.maxSize = config.GetInt64("alert/log/maxFileSize", kDefaultMaxFileSize);
    s.alertFiles.maxNum = config.GetInt("alert/log/maxFileNum", kDefaultMaxFileNum);
    if (s.alert) CheckFileCount(s.alertFiles.maxNum);
    return s;
}

} // namespace

void Initialize(const Config::View& config, const std::string& serviceName) {
    if (sInitialized.exchange(true)) {
        throw AlreadyInitializedException("The library's services are already initialized");
    }
    // Every setting is read and checked, and every file opened, before
    // anything starts, so a bad configuration leaves nothing half set up and
    // the call may be repeated.
    boost::unordered_set<std::string> trackedClasses;
    LogSettings log;
    Ref<Writer> fileWriter;
    Ref<Writer> alertWriter;
    Ref<System::ThreadPool> pool;
    try {
        trackedClasses = RefTrackerClassNames(config);
        log = ReadLogSettings(config);
        System::SystemFactory* factory = System::GetSystemFactory();
        try {
            if (log.toFiles) {
                factory->CreateRolloverLogWriter(log.files.directory, serviceName,
                                                 log.files.maxSize, log.files.maxNum,
                                                 log.failureAction, log.append, fileWriter);
            }
            if (log.alert) {
                factory->CreateRolloverLogWriter(log.alertFiles.directory, serviceName + "-alert",
                                                 log.alertFiles.maxSize, log.alertFiles.maxNum,
                                                 log.failureAction, true, alertWriter);
            }
        } catch (const Exception& e) {
            throw IOException(std::string("Failed to initialize the default log manager: ") +
                              e.what());
        }
        // Last, as it starts threads: bad limits throw before it does.
        const Config::View poolConfig = config.GetChild("ThreadPool");
        factory->CreateThreadPool(&poolConfig, pool);
    } catch (...) {
        sInitialized.store(false);
        throw;
    }

    const bool tracking = config.Has("refTracker");
    if (tracking) {
        CreateRefTracker(trackedClasses);
    }

    Logger* logger = DefaultLogger();
    if (log.setLevel) logger->SetLevel(log.level);
    if (!fileWriter.IsNull()) {
        LogManager::AddWriter("file", fileWriter, Logger::GetMaskFromLevel(log.fileLevel));
    }
    if (!alertWriter.IsNull()) {
        LogManager::AddWriter("alert", alertWriter, Logger::MASK_ERROR);
    }
    if (tracking) {
        TESSERA_LOG(logger, Logger::LOG_INFO, "Initialized RefTracker");
    }
    System::SetThreadPool(pool.Get());
}

} // namespace Service
} // namespace Tessera
