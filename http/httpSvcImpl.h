// The HTTP service's implementation: its listeners, its connections, the
// handlers by path, the sweeper of deadlines, and the statistics that the
// connections count into.
#pragma once

#include <tessera/http/httpSvc.h>
#include <tessera/logger.h>
#include <tessera/object.h>
#include <tessera/perfCounter/accumulators.h>
#include <tessera/system/namedPipe.h>
#include <tessera/system/tcp.h>
#include <tessera/system/threadPool.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace Tessera {
namespace Http {

class ServerConnection;

// What the connections count.
struct ServiceStatistics {
    std::atomic<std::uint64_t> requests{0};
    std::atomic<std::uint64_t> responses[5] = {}; // 1xx to 5xx
    std::atomic<std::uint64_t> bytesIn{0};
    std::atomic<std::uint64_t> bytesOut{0};
    std::atomic<std::uint64_t> refused{0};
};

class HttpServiceImpl final : public ObjectImpl, public HttpService {
public:
    explicit HttpServiceImpl(const HttpServiceSettings& settings);
    ~HttpServiceImpl() override;

    // HttpService:
    void AddHandler(const std::string& path, bool prefix, const RequestHandler& handler) override;
    std::uint16_t ListenTcp(const std::string& address, std::uint16_t port) override;
    void ListenPipe(const std::string& name) override;
    void Shutdown(std::int64_t deadlineUsec) override;
    std::size_t GetConnectionCount() const override;

    // For the connections.
    const HttpServiceSettings& Settings() const noexcept { return _settings; }
    System::ThreadPool* Pool() const noexcept { return _pool.Get(); }
    Service::Logger* Log() const noexcept { return _log.Get(); }
    ServiceStatistics& Statistics() noexcept { return _statistics; }
    // The handler for `path`, or null when none is registered. Handlers are
    // never removed: the pointer stays valid as long as the service.
    const RequestHandler* FindHandler(const std::string& path) const;
    void RecordResponse(int status, std::int64_t microseconds);
    bool IsShuttingDown() const noexcept { return _shuttingDown.load(); }
    // A connection has closed: forget it, and accept again below the limit.
    void Closed(ServerConnection* connection);

private:
    struct Listener {
        Ref<System::TCPServerSocket> tcp;
        Ref<System::NamedPipeServer> pipe;
        bool accepting = false; // an accept is pending
    };

    void AcceptLocked(Listener& listener);
    void Accepted(Listener* listener, System::Stream* stream, Exception* error);
    void Sweep();
    void ScheduleSweepLocked();
    void PublishStatistics();

    const HttpServiceSettings _settings;
    Ref<System::ThreadPool> _pool;
    Ref<Service::Logger> _log;
    mutable std::mutex _lock;
    std::condition_variable _changed;
    std::map<std::string, RequestHandler> _exact;
    std::map<std::string, RequestHandler> _prefixes;
    std::vector<std::unique_ptr<Listener>> _listeners;
    std::set<Ref<ServerConnection>> _connections;
    Ref<System::Timer> _sweepTimer;
    std::int64_t _sweepEveryUs = 100000;
    std::atomic<bool> _shuttingDown{false};
    bool _stopped = false;

    ServiceStatistics _statistics;
    Ref<PerfCounter::MeterAccumulator> _requestTime;
    bool _published = false;
};

} // namespace Http
} // namespace Tessera
