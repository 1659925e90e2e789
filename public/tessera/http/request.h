// A request as the HTTP service hands it to a handler (httpSvc.h): its head,
// and its body, read once, buffered or in pieces.
//
//     void Upload(const Ref<Request>& request, const Ref<Response>& response) {
//         request->ReadBody([response](Request*, const std::string* body, Exception* e) {
//             if (e) return;                        // the service has answered
//             Store(*body);
//             response->Send("stored\n");
//         });
//     }
//
// Thread safety: a handler may keep the request and use it from any thread,
// one call at a time.
#pragma once

#include <tessera/api.h>
#include <tessera/exception.h>
#include <tessera/functor.h>
#include <tessera/object.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace Tessera {
namespace Http {

class TESSERA_EXPORT Request : public virtual Object {
public:
    typedef std::vector<std::pair<std::string, std::string>> Headers;
    // The whole body, or null with the exception.
    typedef Functor<void(Request*, const std::string*, Exception*)> BodyCallback;
    // A piece of the body: the count (0 at its end), or the exception.
    typedef Functor<void(Request*, std::size_t, Exception*)> ReadCallback;

    virtual const std::string& GetMethod() const = 0;
    // The target as received ("/a/b?c=d", "http://host/a", "*").
    virtual const std::string& GetTarget() const = 0;
    // The target's path and query (without "?"), not decoded; for a target
    // in absolute form, those of its URI.
    virtual const std::string& GetPath() const = 0;
    virtual const std::string& GetQuery() const = 0;
    // The query's parameters, decoded (ParseURIQuery of http.h).
    virtual const std::map<std::string, std::string>& GetQueryParameters() const = 0;
    // 0 for HTTP/1.0, 1 for HTTP/1.1.
    virtual int GetMinorVersion() const = 0;
    // The header fields in the order received.
    virtual const Headers& GetHeaders() const = 0;
    // The value of the first field named `name` (without case), or null.
    virtual const std::string* FindHeader(const std::string& name) const = 0;
    // The peer: "127.0.0.1:5000", "[::1]:5000", or the pipe's name.
    virtual const std::string& GetPeerName() const = 0;
    // Whether the request has a body (a Content-Length above 0, or chunked).
    virtual bool HasBody() const = 0;

    // Reads the whole body, at most the service's "maxBodyBytes" (beyond, the
    // service answers 413 and `done` gets a RequestEntityTooLarge-style
    // HttpException). `done` runs on a pool thread.
    virtual void ReadBody(const BodyCallback& done) = 0;
    // Reads the next piece of the body into `buffer`; the count is 0 at its
    // end. One read at a time; not mixed with ReadBody.
    virtual void AsyncRead(char* buffer, std::size_t maxLength, const ReadCallback& done) = 0;
};

} // namespace Http
} // namespace Tessera
