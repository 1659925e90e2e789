// Helpers of the thread pool and stream tests.
#pragma once

#include <tessera/config.h>
#include <tessera/logger.h>
#include <tessera/writer.h>

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace Tessera {
namespace PoolTest {

// A "ThreadPool" view with the given keys and values.
inline Ref<Service::Config> PoolConfig(
    const std::vector<std::pair<std::string, std::string>>& settings) {
    Xml::Node root("config");
    Xml::Node& pool = root.AddChild("ThreadPool");
    for (const auto& s : settings) {
        Xml::Node node(s.first);
        node.SetText(s.second);
        pool.AddChild(std::move(node));
    }
    return Ref<Service::Config>(new Service::Config(std::move(root)));
}

// Collects log lines from any thread.
class CaptureWriter : public ObjectImpl, public Writer {
public:
    void Write(const char* data, int length) override {
        std::lock_guard<std::mutex> hold(_lock);
        _text.append(data, static_cast<std::size_t>(length));
    }
    void Flush() override {}
    std::string Text() const {
        std::lock_guard<std::mutex> hold(_lock);
        return _text;
    }
    bool Contains(const std::string& s) const { return Text().find(s) != std::string::npos; }

private:
    mutable std::mutex _lock;
    std::string _text;
};

// Registers a CaptureWriter for the lifetime of the object, with the default
// logger (and so every pool made meanwhile) at `level`.
class LogCapture {
public:
    explicit LogCapture(Service::Logger::LogLevel level = Service::Logger::LOG_INFO)
        : _writer(new CaptureWriter), _oldLevel(Service::DefaultLogger()->GetRawLevel()) {
        Service::DefaultLogger()->SetLevel(level);
        Service::LogManager::AddWriter("capture", _writer, Service::Logger::MASK_TRIVIA);
    }
    ~LogCapture() {
        Service::LogManager::RemoveWriter("capture");
        Service::DefaultLogger()->SetRawLevel(_oldLevel);
    }
    const CaptureWriter& operator*() const { return *_writer; }
    const CaptureWriter* operator->() const { return _writer.Get(); }

private:
    Ref<CaptureWriter> _writer;
    unsigned _oldLevel;
};

// Polls `condition` every millisecond for at most `seconds`: a bound that only
// a stuck run reaches, however busy the machine.
inline bool WaitFor(const std::function<bool()>& condition, int seconds = 60) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

} // namespace PoolTest
} // namespace Tessera
