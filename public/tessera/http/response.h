// The answer to a request of the HTTP service (httpSvc.h): a status, header
// fields, and a body sent whole (Send) or streamed (BeginStream, Write, End:
// chunked for HTTP/1.1, to the close for HTTP/1.0).
//
//     response->SetStatus(201);
//     response->SetHeader("Location", "/items/7");
//     response->Send("created\n");
//
// The service adds Date, Content-Length or Transfer-Encoding, and Connection;
// a HEAD request's response carries the head only. Nothing may be changed
// after Send or BeginStream (InvalidStateException), and a handler answers
// once. A field name must be a token and a value must hold no CR, LF or other
// control character but tab (InvalidArgumentException): nothing a handler
// passes can split the response.
//
// Thread safety: a handler may keep the response and answer from any thread,
// one call at a time.
#pragma once

#include <tessera/api.h>
#include <tessera/exception.h>
#include <tessera/functor.h>
#include <tessera/object.h>

#include <cstddef>
#include <string>

namespace Tessera {
namespace Http {

class TESSERA_EXPORT Response : public virtual Object {
public:
    // Completion of a streamed write: null on success.
    typedef Functor<void(Response*, Exception*)> WriteCallback;

    // Any status from 100 to 599 (InvalidArgumentException otherwise). The
    // reason phrase is `phrase`, else the one of ResponseCode for the code,
    // else none. The default is 200.
    virtual void SetStatus(int code, const std::string& phrase = std::string()) = 0;
    // Adds a field (several of one name are allowed).
    virtual void SetHeader(const std::string& name, const std::string& value) = 0;

    // Sends the response with `body` (Content-Length) and completes it.
    virtual void Send(const std::string& body = std::string()) = 0;

    // Sends the head of a streamed response; Write then sends pieces, one at
    // a time (the data must stay valid until `done`), and End completes it.
    virtual void BeginStream() = 0;
    virtual void Write(const char* data, std::size_t size, const WriteCallback& done) = 0;
    virtual void End() = 0;

    // Whether Send or BeginStream has been called.
    virtual bool IsStarted() const = 0;
};

} // namespace Http
} // namespace Tessera
