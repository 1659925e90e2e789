// The HTTP service: an HTTP/1.1 server on the thread pool, listening on TCP
// and on local pipes, that hands each request to the handler registered for
// its path.
//
//     HttpServiceSettings settings = HttpServiceSettings::FromConfig(root.GetChild("Http"));
//     Ref<HttpService> service;
//     CreateHttpService(settings, service);
//     service->AddHandler("/api/", true, [](const Ref<Request>& request,
//                                           const Ref<Response>& response) {
//         response->SetHeader("Content-Type", "application/json");
//         response->Send("{\"path\":\"" + request->GetPath() + "\"}");
//     });
//     service->ListenTcp("0.0.0.0", 8080);
//     service->ListenPipe(System::GetLocalPipeName("myservice"));
//     ...
//     service->Shutdown(5 * 1000 * 1000);   // answer what is in flight, at most 5 s
//
// Requests. A handler is chosen by the request's path: an exact registration
// first, then the longest prefix registration that begins the path; none is
// 404. It runs on a pool thread and answers through its Response, then or
// later, from any thread (request.h, response.h). An exception escaping it is
// logged and answered 500 (when nothing was sent yet); a handler that has not
// answered within "handlerTimeoutMs" gets the connection closed under it.
//
// The protocol, strictly (requestParser.h lists what is refused with which
// status; the connection is then closed and no handler sees the request):
// requests on a connection are answered in order, pipelined ones too; HTTP/1.1
// connections stay open unless "Connection: close" (HTTP/1.0 only with
// "keep-alive"); "Expect: 100-continue" is answered "100 Continue" when the
// handler first reads the body; HEAD is answered without a body; a body the
// handler did not read is drained (at most "maxDrainBytes", else the
// connection is closed after the response); a body over "maxBodyBytes" is
// 413.
//
// Limits and time-outs (settings, from the configuration node given to
// FromConfig; every key optional):
//   "headTimeoutMs" (10000)      the head must have arrived within this time
//                                from its first byte (slow clients are cut)
//   "bodyTimeoutMs" (30000)      each read of a request body must progress
//                                within it, and each write of a response
//                                (a whole Send, a streamed piece) must end
//                                within it (a peer that stops reading)
//   "idleTimeoutMs" (60000)      a keep-alive connection waiting for its next
//                                request is closed after it
//   "handlerTimeoutMs" (120000)  from the head to the end of the response
//   "maxConnections" (10000)     beyond it, no connection is accepted until
//                                one ends (clients wait in the listen queue)
//   "maxRequestsPerConnection" (0: no limit) then "Connection: close"
//   "maxBodyBytes" (10485760)    a larger body is 413
//   "maxDrainBytes" (65536)      unread body drained after a response
//   "maxRequestLine" (8192), "maxHeaderBlock" (32768), "maxHeaderFields" (100)
//   "statisticsName" ("Http")    the counter group (empty: none published)
// The time-outs are checked every tenth of their smallest value (at most
// every 100 ms), so they act within that much.
//
// Statistics (counter registry, group "<statisticsName>"): "Requests",
// "Responses1xx" to "Responses5xx", "BytesIn", "BytesOut",
// "OpenConnections", "RefusedRequests" and the meter "RequestTime" (us, from
// the head to the end of the response). An access log, when a logger is set,
// has one line per response at "info": peer, method, target, status, bytes
// and microseconds.
//
// Thread safety: every operation may be called from any thread.
#pragma once

#include <tessera/api.h>
#include <tessera/config.h>
#include <tessera/functor.h>
#include <tessera/logger.h>
#include <tessera/object.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace Tessera {
namespace System {
class ThreadPool;
}
namespace Http {

class Request;
class Response;

struct TESSERA_EXPORT HttpServiceSettings {
    std::int64_t headTimeoutMs = 10000;
    std::int64_t bodyTimeoutMs = 30000;
    std::int64_t idleTimeoutMs = 60000;
    std::int64_t handlerTimeoutMs = 120000;
    std::size_t maxConnections = 10000;
    std::size_t maxRequestsPerConnection = 0;
    std::uint64_t maxBodyBytes = 10u << 20;
    std::uint64_t maxDrainBytes = 64u << 10;
    std::size_t maxRequestLine = 8 * 1024;
    std::size_t maxHeaderBlock = 32 * 1024;
    std::size_t maxHeaderFields = 100;
    std::string statisticsName = "Http";
    Ref<Service::Logger> log; // the service's own messages (null: the default logger)
    Ref<Service::Logger> accessLog; // one line per response (null: none)
    System::ThreadPool* pool = nullptr; // null: the process's pool

    // The settings under `node`, the defaults where a key is absent;
    // InvalidArgumentException for a value out of range (a time-out or a
    // limit of 0 or less).
    static HttpServiceSettings FromConfig(const Service::Config::View& node);
};

// A request's handler: runs on a pool thread; answers through the response.
typedef Functor<void(const Ref<Request>&, const Ref<Response>&)> RequestHandler;

class TESSERA_EXPORT HttpService : public virtual Object {
public:
    // Registers `handler` for `path` exactly, or with `prefix` for every path
    // that begins with it. A path registered twice raises
    // AlreadyExistsException.
    virtual void AddHandler(const std::string& path, bool prefix,
                            const RequestHandler& handler) = 0;

    // Listens on TCP at `address` ("0.0.0.0", "::", "127.0.0.1", a host
    // name) and `port` (0: any free one); returns the port.
    virtual std::uint16_t ListenTcp(const std::string& address, std::uint16_t port) = 0;
    // Listens on the local pipe `name` (System::GetLocalPipeName).
    virtual void ListenPipe(const std::string& name) = 0;

    // Stops accepting, closes idle connections at once, lets the requests in
    // flight be answered, and closes what is left once `deadlineUsec` has
    // passed; returns when every connection is closed. Idempotent.
    virtual void Shutdown(std::int64_t deadlineUsec) = 0;

    // Connections open now.
    virtual std::size_t GetConnectionCount() const = 0;
};

TESSERA_EXPORT void CreateHttpService(const HttpServiceSettings& settings, Ref<HttpService>& out);

} // namespace Http
} // namespace Tessera
