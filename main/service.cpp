// The start-up sequence of the library's services.

#include <tessera/census.h>
#include <tessera/exception.h>
#include <tessera/service.h>

#include <atomic>

namespace Tessera {
namespace Service {
namespace {

std::atomic<bool> sInitialized{false};

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

} // namespace

void Initialize(const Config::View& config) {
    if (sInitialized.exchange(true)) {
        throw AlreadyInitializedException("The library's services are already initialized");
    }
    // Every setting is read and checked before anything starts, so a bad
    // configuration leaves nothing half set up and the call may be repeated.
    boost::unordered_set<std::string> trackedClasses;
    try {
        trackedClasses = RefTrackerClassNames(config);
    } catch (...) {
        sInitialized.store(false);
        throw;
    }
    if (config.Has("refTracker")) {
        CreateRefTracker(trackedClasses);
    }
}

} // namespace Service
} // namespace Tessera
