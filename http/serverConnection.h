// One connection of the HTTP service: reads heads, hands each request to its
// handler, writes the responses in order, and reads or drains the bodies, on
// the pool, never blocking a thread on the peer. The request and response
// objects a handler gets are views of the connection's current exchange.
//
// Everything is under the connection's lock, but for calls out: the
// handler, stream operations' completions, the user's callbacks. Time-outs
// are deadlines that the service's sweeper checks (Expired).
#pragma once

#include <tessera/exception.h>
#include <tessera/http/charBuffer.h>
#include <tessera/http/chunkedDecoder.h>
#include <tessera/http/request.h>
#include <tessera/http/requestParser.h>
#include <tessera/http/response.h>
#include <tessera/object.h>
#include <tessera/system/stream.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Tessera {
namespace Http {

class HttpServiceImpl;
class ServerConnection;

class ServerRequest final : public ObjectImpl, public Request {
public:
    explicit ServerRequest(ServerConnection* connection) : _connection(connection) {}

    const std::string& GetMethod() const override { return _method; }
    const std::string& GetTarget() const override { return _target; }
    const std::string& GetPath() const override { return _path; }
    const std::string& GetQuery() const override { return _query; }
    const std::map<std::string, std::string>& GetQueryParameters() const override;
    int GetMinorVersion() const override { return _minorVersion; }
    const Headers& GetHeaders() const override { return _headers; }
    const std::string* FindHeader(const std::string& name) const override;
    const std::string& GetPeerName() const override { return _peer; }
    bool HasBody() const override { return _hasBody; }
    void ReadBody(const BodyCallback& done) override;
    void AsyncRead(char* buffer, std::size_t maxLength, const ReadCallback& done) override;

private:
    friend class ServerConnection;
    void ReadMoreBody(const BodyCallback& done);
    // Takes the head's text (copied: the views point into the connection's
    // buffer, which the next read reuses).
    void Assign(const RequestHead& head, const std::string& peer);

    Ref<ServerConnection> _connection;
    std::string _method, _target, _path, _query, _peer;
    int _minorVersion = 1;
    Headers _headers;
    bool _hasBody = false;
    mutable bool _queryParsed = false;
    mutable std::map<std::string, std::string> _parameters;
    std::string _body; // for ReadBody
};

class ServerResponse final : public ObjectImpl, public Response {
public:
    explicit ServerResponse(ServerConnection* connection) : _connection(connection) {}

    void SetStatus(int code, const std::string& phrase = std::string()) override;
    void SetHeader(const std::string& name, const std::string& value) override;
    void Send(const std::string& body) override;
    void BeginStream() override;
    void Write(const char* data, std::size_t size, const WriteCallback& done) override;
    void End() override;
    bool IsStarted() const override;

private:
    friend class ServerConnection;
    void Clear();

    Ref<ServerConnection> _connection;
    int _status = 200;
    std::string _phrase; // empty: the code's own
    std::vector<std::pair<std::string, std::string>> _headers;
    std::size_t _headerCount = 0;
    bool _started = false;
    bool _ended = false;
};

class ServerConnection final : public ObjectImpl {
public:
    friend class ServerResponse;
    ServerConnection(HttpServiceImpl* service, System::Stream* stream);

    void Start();
    // Closes the connection when its deadline has passed (`nowMs`, steady).
    void Expired(std::int64_t nowMs);
    // Closes it at once when it waits for a request; otherwise after the
    // response in progress (Connection: close).
    void CloseWhenIdle();
    void Close();

    // For the request and response objects, under no lock of theirs.
    void ReadBody(char* buffer, std::size_t maxLength, const Request::ReadCallback& done);
    // `response` must be the current exchange's (InvalidStateException
    // otherwise: that one has been answered).
    void SendResponse(ServerResponse* response, const std::string& body);
    void BeginStream(ServerResponse* response);
    void WriteStream(ServerResponse* response, const char* data, std::size_t size,
                     const Response::WriteCallback& done);
    void EndStream(ServerResponse* response);

private:
    enum class Phase {
        Idle, // waiting for the first byte of a head
        Head, // a head has begun
        Handling, // the handler has the request
        Closing, // the last response is out: waiting for the peer to close
        Closed,
    };
    // A write of the response's bytes. Jobs stay in place in their deque
    // (which never moves its elements), so buffers may point into them.
    struct WriteJob {
        std::vector<System::ConstBuffer> buffers;
        std::string hold; // bytes the job owns
        char line[24]; // a chunk's size line
        bool final = false; // the response is complete once this is written
        Functor<void(Exception*)> done; // the handler's, for a streamed piece
    };

    std::int64_t Now() const;
    void SetDeadline(std::int64_t ms) { _deadline.store(Now() + ms, std::memory_order_relaxed); }

    // Under the lock.
    void ReadMoreLocked();
    void Received(std::size_t count, Exception* error);
    void ParseHeadLocked(std::unique_lock<std::mutex>& hold);
    void DispatchLocked(std::unique_lock<std::mutex>& hold);
    void FailRequestLocked(int status, const char* text);
    void WriteHeadLocked(std::size_t contentLength, bool streamed, bool withBody);
    // A new job at the end of the queue.
    WriteJob& NewJobLocked();
    void WriteNextLocked();
    void Written(Exception* error);
    void ResponseDoneLocked(std::unique_lock<std::mutex>& hold);
    void NextRequestLocked(std::unique_lock<std::mutex>& hold);
    void CloseLocked();
    // False when `response` is not the current exchange's, or the
    // connection is closed; throws when it was answered already.
    bool CurrentLocked(const ServerResponse* response, bool mustBeStreaming);
    // The next piece of the body into the pending read's buffer, from what
    // is buffered, or a read when nothing is.
    void ContinueBodyLocked();
    void CompleteBodyReadLocked(std::size_t count, std::unique_ptr<Exception> error);
    void DrainLocked(std::unique_lock<std::mutex>& hold);

    HttpServiceImpl* const _service; // outlives its connections
    Ref<System::Stream> _stream;
    const std::string _peer;
    std::mutex _lock;
    Phase _phase = Phase::Idle;
    std::atomic<std::int64_t> _deadline{0}; // of the phase (steady ms)
    std::atomic<std::int64_t> _writeDeadline{0}; // of the write under way; 0: none
    bool _reading = false; // a read of the stream is pending
    bool _closeAfterResponse = false;

    std::vector<char> _in; // received bytes [_inStart, _inEnd)
    std::size_t _inStart = 0;
    std::size_t _inEnd = 0;
    RequestParser _parser;
    ChunkedDecoder _decoder;
    std::size_t _requests = 0;

    Ref<ServerRequest> _request;
    Ref<ServerResponse> _response;
    bool _head = false; // a HEAD request: no body in the response
    int _minorVersion = 1; // of the request being answered
    bool _keepAlive = true;
    std::int64_t _startUs = 0;

    // The request's body.
    BodyFraming _framing = BodyFraming::None;
    std::uint64_t _bodyLeft = 0; // Length: bytes still to come
    bool _bodyDone = true;
    bool _continueDue = false; // "100 Continue" owed before the first body read
    std::uint64_t _bodyRead = 0;
    std::string_view _piece; // decoded bytes not yet handed out (in _in)
    char* _readBuffer = nullptr; // the pending body read's
    std::size_t _readMax = 0;
    Request::ReadCallback _readDone;
    bool _draining = false;
    std::uint64_t _drained = 0;

    // The response.
    Ref<DynamicCharBuffer> _headBuffer; // the response's head, staged
    std::deque<WriteJob> _writes;
    std::vector<System::ConstBuffer> _spareBuffers; // a finished job's, for the next
    bool _writing = false;
    bool _streaming = false;
    std::uint64_t _bytesOut = 0;
    char _date[29] = {};
    std::int64_t _dateSecond = -1;
};

} // namespace Http
} // namespace Tessera
