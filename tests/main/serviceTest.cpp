#include <tessera/census.h>
#include <tessera/exception.h>
#include <tessera/service.h>
#include <tessera/system/threadPool.h>

#include <gtest/gtest.h>

#include <cstdlib>

using namespace Tessera;
using Service::Config;

namespace {

class Session : public ObjectImpl {};

// A configuration that writes no log files (into the working directory, by
// default).
Xml::Node NoFiles() {
    Xml::Node root("config");
    root.AddChild("log").AddChild("outputToFiles").SetText("false");
    return root;
}

Xml::Node TrackerConfig(const char* className) {
    Xml::Node root = NoFiles();
    Xml::Node& tracker = root.AddChild("refTracker");
    Xml::Node& entry = tracker.AddChild("entry");
    if (className != nullptr) {
        entry.AddChild("className").SetText(className);
    }
    return root;
}

} // namespace

TEST(ServiceDeathTest, InitializeStartsTheRefTrackerOnce) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // Process-wide state: each case runs in a fresh child process.
    EXPECT_EXIT(
        {
            Ref<Config> bad(new Config(TrackerConfig(nullptr)));
            try {
                Service::Initialize(bad->GetView());
                std::exit(10);
            } catch (const InvalidArgumentException&) {}
            if (GetRefTracker() != nullptr) std::exit(11); // nothing half set up

            Ref<Config> good(new Config(TrackerConfig(typeid(Session).name())));
            Service::Initialize(good->GetView());
            if (GetRefTracker() == nullptr) std::exit(12);
            Ref<Session> live(new Session);
            std::string dump;
            GetRefTracker()->Dump(dump);
            if (dump.find(std::string("Trace (") + typeid(Session).name() + ", count:1)") ==
                std::string::npos) {
                std::exit(13);
            }
            try {
                Service::Initialize(good->GetView());
                std::exit(14);
            } catch (const AlreadyInitializedException&) {}
            std::exit(0);
        },
        testing::ExitedWithCode(0), "");

    EXPECT_EXIT(
        {
            Ref<Config> empty(new Config(NoFiles()));
            Service::Initialize(empty->GetView());
            std::exit(GetRefTracker() == nullptr ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST(ServiceDeathTest, InitializeMakesTheThreadPoolFromItsNode) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            Xml::Node badRoot = NoFiles();
            badRoot.AddChild("ThreadPool").AddChild("IoMin").SetText("300");
            Ref<Config> bad(new Config(std::move(badRoot)));
            try {
                Service::Initialize(bad->GetView());
                std::exit(10);
            } catch (const InvalidArgumentException&) {}
            Xml::Node goodRoot = NoFiles();
            goodRoot.AddChild("ThreadPool").AddChild("TaskMax").SetText("17");
            Ref<Config> good(new Config(std::move(goodRoot)));
            Service::Initialize(good->GetView()); // the failed call left nothing behind
            std::vector<System::ThreadPool::Statistic> stats;
            System::GetThreadPool()->GetStatistics(stats);
            int code = 12;
            for (const auto& s : stats) {
                if (s.name == "MaxWorkerThreads") code = s.value == 17 ? 0 : 11;
            }
            // No pool thread is left running into the process's exit.
            System::GetThreadPool()->Shutdown();
            std::exit(code);
        },
        testing::ExitedWithCode(0), "");
}
