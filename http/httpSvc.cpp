// The HTTP service: settings, handlers by path, listeners that accept onto
// connections below the limit, the sweeper of deadlines, statistics, and the
// graceful shutdown.
//
// Lock order: a connection's lock, then the service's. The service never
// calls into a connection under its own lock (it copies the set first).

#include "http/httpSvcImpl.h"

#include "http/serverConnection.h"

#include <tessera/perfCounter/registry.h>
#include <tessera/system/system.h>

#include <algorithm>
#include <chrono>

namespace Tessera {
namespace Http {

namespace {

std::int64_t SteadyMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

std::int64_t Positive(const Service::Config::View& node, const char* key, std::int64_t value) {
    const std::int64_t read = node.GetInt64(key, value);
    if (read <= 0) {
        throw InvalidArgumentException(std::string("Invalid argument : '") + key +
                                       "' must be greater than 0");
    }
    return read;
}

} // namespace

HttpServiceSettings HttpServiceSettings::FromConfig(const Service::Config::View& node) {
    HttpServiceSettings s;
    s.headTimeoutMs = Positive(node, "headTimeoutMs", s.headTimeoutMs);
    s.bodyTimeoutMs = Positive(node, "bodyTimeoutMs", s.bodyTimeoutMs);
    s.idleTimeoutMs = Positive(node, "idleTimeoutMs", s.idleTimeoutMs);
    s.handlerTimeoutMs = Positive(node, "handlerTimeoutMs", s.handlerTimeoutMs);
    s.maxConnections = static_cast<std::size_t>(
        Positive(node, "maxConnections", static_cast<std::int64_t>(s.maxConnections)));
    const std::int64_t perConnection = node.GetInt64("maxRequestsPerConnection", 0);
    if (perConnection < 0) {
        throw InvalidArgumentException(
            "Invalid argument : 'maxRequestsPerConnection' must not be negative");
    }
    s.maxRequestsPerConnection = static_cast<std::size_t>(perConnection);
    s.maxBodyBytes = static_cast<std::uint64_t>(
        Positive(node, "maxBodyBytes", static_cast<std::int64_t>(s.maxBodyBytes)));
    s.maxDrainBytes = static_cast<std::uint64_t>(
        Positive(node, "maxDrainBytes", static_cast<std::int64_t>(s.maxDrainBytes)));
    s.maxRequestLine = static_cast<std::size_t>(
        Positive(node, "maxRequestLine", static_cast<std::int64_t>(s.maxRequestLine)));
    s.maxHeaderBlock = static_cast<std::size_t>(
        Positive(node, "maxHeaderBlock", static_cast<std::int64_t>(s.maxHeaderBlock)));
    s.maxHeaderFields = static_cast<std::size_t>(
        Positive(node, "maxHeaderFields", static_cast<std::int64_t>(s.maxHeaderFields)));
    s.statisticsName = node.GetString("statisticsName", s.statisticsName);
    return s;
}

void CreateHttpService(const HttpServiceSettings& settings, Ref<HttpService>& out) {
    out = new HttpServiceImpl(settings);
}

HttpServiceImpl::HttpServiceImpl(const HttpServiceSettings& settings)
    : _settings(settings),
      _pool(settings.pool != nullptr ? settings.pool : System::GetThreadPool()),
      _log(settings.log) {
    if (_log.IsNull()) Service::GetDefaultLogger(_log);
    const std::int64_t smallest = std::min({_settings.headTimeoutMs, _settings.bodyTimeoutMs,
                                            _settings.idleTimeoutMs, _settings.handlerTimeoutMs});
    _sweepEveryUs = std::max<std::int64_t>(1000, std::min<std::int64_t>(100, smallest / 10) * 1000);
    PublishStatistics();
    std::lock_guard<std::mutex> hold(_lock);
    ScheduleSweepLocked();
}

HttpServiceImpl::~HttpServiceImpl() {
    if (_published) PerfCounter::GetCounterRegistry()->UnpublishGroup(_settings.statisticsName);
}

void HttpServiceImpl::PublishStatistics() {
    if (_settings.statisticsName.empty()) return;
    ServiceStatistics* st = &_statistics;
    auto count = [](std::atomic<std::uint64_t>* value) {
        return [value] { return static_cast<std::int64_t>(value->load()); };
    };
    std::vector<PerfCounter::Registry::Gauge> gauges = {
        {"Requests", count(&st->requests)},
        {"Responses1xx", count(&st->responses[0])},
        {"Responses2xx", count(&st->responses[1])},
        {"Responses3xx", count(&st->responses[2])},
        {"Responses4xx", count(&st->responses[3])},
        {"Responses5xx", count(&st->responses[4])},
        {"BytesIn", count(&st->bytesIn)},
        {"BytesOut", count(&st->bytesOut)},
        {"RefusedRequests", count(&st->refused)},
        {"OpenConnections", [this] { return static_cast<std::int64_t>(GetConnectionCount()); }},
    };
    PerfCounter::Registry* registry = PerfCounter::GetCounterRegistry();
    registry->PublishGauges(_settings.statisticsName, gauges);
    _published = true;
    _requestTime =
        new PerfCounter::MeterAccumulator(registry, _settings.statisticsName + "/RequestTime");
    _requestTime->Publish();
}

void HttpServiceImpl::RecordResponse(int status, std::int64_t microseconds) {
    if (status >= 100 && status <= 599) ++_statistics.responses[status / 100 - 1];
    if (!_requestTime.IsNull()) _requestTime->Sample(microseconds);
}

void HttpServiceImpl::AddHandler(const std::string& path, bool prefix,
                                 const RequestHandler& handler) {
    if (path.empty()) throw InvalidArgumentException("Invalid argument : an empty handler path");
    std::lock_guard<std::mutex> hold(_lock);
    auto& table = prefix ? _prefixes : _exact;
    if (!table.emplace(path, handler).second) {
        throw AlreadyExistsException("A handler is registered for " + path);
    }
}

const RequestHandler* HttpServiceImpl::FindHandler(const std::string& path) const {
    std::lock_guard<std::mutex> hold(_lock);
    const auto exact = _exact.find(path);
    if (exact != _exact.end()) return &exact->second;
    // The longest prefix: the last key not after `path` that begins it (a
    // longer prefix sorts after a shorter one), or a shorter one before that.
    for (auto it = _prefixes.upper_bound(path); it != _prefixes.begin();) {
        --it;
        if (path.compare(0, it->first.size(), it->first) == 0) return &it->second;
        if (it->first[0] != path[0]) break;
    }
    return nullptr;
}

std::uint16_t HttpServiceImpl::ListenTcp(const std::string& address, std::uint16_t port) {
    Ref<System::TCPServerSocket> server;
    System::GetSystemFactory()->CreateTCPServerSocket(_pool.Get(), server);
    server->Listen(address, port, 511, true);
    const std::uint16_t bound = server->GetPort();
    std::lock_guard<std::mutex> hold(_lock);
    if (_stopped) {
        server->Close();
        throw InvalidStateException("The HTTP service is shut down");
    }
    _listeners.emplace_back(new Listener);
    _listeners.back()->tcp = server;
    AcceptLocked(*_listeners.back());
    TESSERA_LOG(_log, Service::Logger::LOG_INFO, "HTTP service listening on %1 port %2", address,
                bound);
    return bound;
}

void HttpServiceImpl::ListenPipe(const std::string& name) {
    Ref<System::NamedPipeServer> server;
    System::GetSystemFactory()->CreateNamedPipeServer(_pool.Get(), name, 0, server);
    std::lock_guard<std::mutex> hold(_lock);
    if (_stopped) {
        server->Close();
        throw InvalidStateException("The HTTP service is shut down");
    }
    _listeners.emplace_back(new Listener);
    _listeners.back()->pipe = server;
    AcceptLocked(*_listeners.back());
    TESSERA_LOG(_log, Service::Logger::LOG_INFO, "HTTP service listening on pipe %1", name);
}

void HttpServiceImpl::AcceptLocked(Listener& listener) {
    if (listener.accepting || _stopped || _connections.size() >= _settings.maxConnections) return;
    listener.accepting = true;
    Ref<HttpServiceImpl> self(this);
    Listener* which = &listener;
    if (!listener.tcp.IsNull()) {
        listener.tcp->AsyncAccept(
            [self, which](System::TCPServerSocket*, System::TCPSocket* s, Exception* e) {
                // Responses go out whole, in one write each: no waiting for
                // the peer's acknowledgement of the last segment.
                if (s != nullptr) {
                    try {
                        s->SetNoDelay(true);
                    } catch (const Exception&) {
                        // The peer is gone already; the first read says so.
                    }
                }
                self->Accepted(which, s, e);
            });
    } else {
        listener.pipe->AsyncAccept([self, which](System::NamedPipeServer*, System::Stream* s,
                                                 Exception* e) { self->Accepted(which, s, e); });
    }
}

void HttpServiceImpl::Accepted(Listener* listener, System::Stream* stream, Exception* error) {
    Ref<ServerConnection> connection;
    {
        std::lock_guard<std::mutex> hold(_lock);
        listener->accepting = false;
        if (_stopped) {
            if (stream != nullptr) stream->Close();
            return;
        }
        if (error != nullptr) {
            // A failed accept (out of descriptors, say) is logged and tried
            // again; it does not stop the service.
            TESSERA_LOG(_log, Service::Logger::LOG_WARNING, "HTTP service: accept failed: %1",
                        error->what());
        } else {
            connection = new ServerConnection(this, stream);
            _connections.insert(connection);
        }
        AcceptLocked(*listener);
    }
    if (!connection.IsNull()) connection->Start();
}

void HttpServiceImpl::Closed(ServerConnection* connection) {
    std::lock_guard<std::mutex> hold(_lock);
    _connections.erase(Ref<ServerConnection>(connection));
    for (auto& listener : _listeners) AcceptLocked(*listener);
    _changed.notify_all();
}

std::size_t HttpServiceImpl::GetConnectionCount() const {
    std::lock_guard<std::mutex> hold(_lock);
    return _connections.size();
}

void HttpServiceImpl::ScheduleSweepLocked() {
    // On until the last connection is gone: a shutdown waits for them.
    if (_stopped && _connections.empty()) return;
    Ref<HttpServiceImpl> self(this);
    _pool->ScheduleTimer(
        _sweepEveryUs, [self] { self->Sweep(); }, _sweepTimer);
}

void HttpServiceImpl::Sweep() {
    std::vector<Ref<ServerConnection>> connections;
    {
        std::lock_guard<std::mutex> hold(_lock);
        if (_stopped && _connections.empty()) return;
        connections.assign(_connections.begin(), _connections.end());
        ScheduleSweepLocked();
    }
    const std::int64_t now = SteadyMs();
    for (const auto& connection : connections) connection->Expired(now);
}

void HttpServiceImpl::Shutdown(std::int64_t deadlineUsec) {
    std::vector<Ref<ServerConnection>> connections;
    std::vector<Ref<System::TCPServerSocket>> tcp;
    std::vector<Ref<System::NamedPipeServer>> pipes;
    {
        // The listeners stay, closed: a pending accept's completion still
        // comes to its listener.
        std::lock_guard<std::mutex> hold(_lock);
        if (_stopped) return;
        _stopped = true;
        _shuttingDown = true;
        for (const auto& listener : _listeners) {
            if (!listener->tcp.IsNull()) tcp.push_back(listener->tcp);
            if (!listener->pipe.IsNull()) pipes.push_back(listener->pipe);
        }
        connections.assign(_connections.begin(), _connections.end());
    }
    for (const auto& server : tcp) server->Close();
    for (const auto& server : pipes) server->Close();
    for (const auto& connection : connections) connection->CloseWhenIdle();
    std::unique_lock<std::mutex> hold(_lock);
    const auto until = std::chrono::steady_clock::now() + std::chrono::microseconds(deadlineUsec);
    _changed.wait_until(hold, until, [this] { return _connections.empty(); });
    connections.assign(_connections.begin(), _connections.end());
    hold.unlock();
    for (const auto& connection : connections) connection->Close();
    hold.lock();
    _changed.wait(hold, [this] { return _connections.empty(); });
    if (!_sweepTimer.IsNull()) _sweepTimer->Cancel();
    TESSERA_LOG(_log, Service::Logger::LOG_INFO, "HTTP service shut down");
}

} // namespace Http
} // namespace Tessera
