// The HTTP service's connection: heads in, handlers called, responses out in
// order, bodies read for the handler or drained after it.

#include "http/serverConnection.h"

#include <tessera/http/http.h>
#include <tessera/http/responseCode.h>
#include <tessera/logger.h>
#include <tessera/system/dateTime.h>
#include <tessera/system/threadPool.h>

#include "http/httpSvcImpl.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>

namespace Tessera {
namespace Http {

namespace {

constexpr std::size_t kFirstBuffer = 4 * 1024;
constexpr std::size_t kMinRoom = 2 * 1024;
const char kContinue[] = "HTTP/1.1 100 Continue\r\n\r\n";
const char kCrLf[] = "\r\n";
const char kLastChunk[] = "0\r\n\r\n";

std::int64_t MonotonicUs() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void Append(DynamicCharBuffer& buffer, const char* text) { buffer.Append(text, std::strlen(text)); }
void Append(DynamicCharBuffer& buffer, const std::string& text) {
    buffer.Append(text.data(), text.size());
}

// Appends the decimal digits of `value` (snprintf costs more than the rest of
// a head).
void AppendNumber(DynamicCharBuffer& buffer, std::uint64_t value) {
    char digits[20];
    std::size_t at = sizeof digits;
    do {
        digits[--at] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    buffer.Append(digits + at, sizeof digits - at);
}

// The exception a body read gets when the connection ends under it.
std::unique_ptr<Exception> Closed() {
    return std::unique_ptr<Exception>(
        new InvalidStateException("The connection of the request is closed", kWithoutBacktrace));
}

} // namespace

ServerConnection::ServerConnection(HttpServiceImpl* service, System::Stream* stream)
    : _service(service),
      _stream(stream),
      _peer(stream->GetPeerName()),
      _parser(RequestLimits{service->Settings().maxRequestLine, service->Settings().maxHeaderBlock,
                            service->Settings().maxHeaderFields}),
      _headBuffer(new DynamicCharBuffer(4096, 0, service->Pool())) {
    _in.resize(kFirstBuffer);
}

std::int64_t ServerConnection::Now() const { return MonotonicUs() / 1000; }

void ServerConnection::Start() {
    std::lock_guard<std::mutex> hold(_lock);
    // A new connection must bring its first head in time: a client that
    // connects and sends nothing is cut as a slow one is.
    SetDeadline(_service->Settings().headTimeoutMs);
    ReadMoreLocked();
}

void ServerConnection::Expired(std::int64_t nowMs) {
    std::lock_guard<std::mutex> hold(_lock);
    if (_phase == Phase::Closed) return;
    // A response must go out within the body time-out: a peer that stops
    // reading does not keep the connection (and its response) for ever.
    const std::int64_t writeDeadline = _writeDeadline.load(std::memory_order_relaxed);
    if (nowMs <= _deadline.load(std::memory_order_relaxed) &&
        (writeDeadline == 0 || nowMs <= writeDeadline)) {
        return;
    }
    TESSERA_LOG(_service->Log(), Service::Logger::LOG_VERBOSE, "Closing %1: timed out (%2)", _peer,
                _phase == Phase::Handling ? "request" : "waiting for the peer");
    CloseLocked();
}

void ServerConnection::CloseWhenIdle() {
    std::lock_guard<std::mutex> hold(_lock);
    if (_phase == Phase::Idle || _phase == Phase::Closing) {
        CloseLocked();
    } else {
        _closeAfterResponse = true;
    }
}

void ServerConnection::Close() {
    std::lock_guard<std::mutex> hold(_lock);
    CloseLocked();
}

void ServerConnection::CloseLocked() {
    if (_phase == Phase::Closed) return;
    _phase = Phase::Closed;
    try {
        _stream->Close();
    } catch (const std::exception&) {
        // Closing cannot fail in a way that matters here.
    }
    if (_readDone) CompleteBodyReadLocked(0, Closed());
    // Queued writes that never started: their callbacks learn it.
    while (_writes.size() > (_writing ? 1u : 0u)) {
        WriteJob& job = _writes.back();
        if (job.done) {
            std::shared_ptr<Exception> error(Closed());
            Functor<void(Exception*)> done = job.done;
            _service->Pool()->Defer([done, error] { done(error.get()); });
        }
        _writes.pop_back();
    }
    _request = nullptr;
    _response = nullptr;
    _service->Closed(this);
}

void ServerConnection::ReadMoreLocked() {
    if (_reading || _phase == Phase::Closed) return;
    if (_piece.empty()) {
        if (_inStart == _inEnd) _inStart = _inEnd = 0;
        if (_in.size() - _inEnd < kMinRoom && _inStart > 0) {
            std::memmove(_in.data(), _in.data() + _inStart, _inEnd - _inStart);
            _inEnd -= _inStart;
            _inStart = 0;
        }
        const HttpServiceSettings& s = _service->Settings();
        const std::size_t most = s.maxRequestLine + s.maxHeaderBlock + 4 * kMinRoom;
        if (_in.size() - _inEnd < kMinRoom && _in.size() < most) {
            _in.resize(std::min(most, _in.size() * 2));
        }
    }
    if (_inEnd == _in.size()) { // cannot happen below the parser's limits
        CloseLocked();
        return;
    }
    _reading = true;
    Ref<ServerConnection> self(this);
    _stream->AsyncRead(
        _in.data() + _inEnd, _in.size() - _inEnd,
        [self](System::Stream*, std::size_t n, Exception* e) { self->Received(n, e); });
}

void ServerConnection::Received(std::size_t count, Exception* error) {
    std::unique_lock<std::mutex> hold(_lock);
    _reading = false;
    if (_phase == Phase::Closed) return;
    if (error != nullptr || count == 0) {
        // The peer went away (or the stream was closed under the read).
        CloseLocked();
        return;
    }
    _inEnd += count;
    _service->Statistics().bytesIn += count;
    switch (_phase) {
    case Phase::Idle:
        _phase = Phase::Head;
        SetDeadline(_service->Settings().headTimeoutMs);
        ParseHeadLocked(hold);
        return;
    case Phase::Head: ParseHeadLocked(hold); return;
    case Phase::Handling:
        if (_readDone) {
            ContinueBodyLocked();
        } else if (_draining) {
            DrainLocked(hold);
        }
        return;
    case Phase::Closing: // what the peer still sends is dropped
        _inStart = _inEnd = 0;
        ReadMoreLocked();
        return;
    case Phase::Closed: return;
    }
}

void ServerConnection::ParseHeadLocked(std::unique_lock<std::mutex>& hold) {
    const RequestParser::Result result = _parser.Parse(_in.data() + _inStart, _inEnd - _inStart);
    if (result == RequestParser::NeedMore) {
        ReadMoreLocked();
        return;
    }
    if (result == RequestParser::Error) {
        ++_service->Statistics().refused;
        FailRequestLocked(_parser.ErrorStatus(), _parser.ErrorText());
        return;
    }
    const RequestHead& head = _parser.Head();
    // The objects of the last exchange are reused when nobody kept them.
    if (_request.IsNull() || _request->GetRefCount() > 1) _request = new ServerRequest(this);
    if (_response.IsNull() || _response->GetRefCount() > 1) _response = new ServerResponse(this);
    _request->Assign(head, _peer);
    _minorVersion = head.minorVersion;
    _response->Clear();
    const HttpServiceSettings& s = _service->Settings();
    _head = head.method == "HEAD";
    _keepAlive = head.keepAlive && !_service->IsShuttingDown() &&
                 (s.maxRequestsPerConnection == 0 || _requests + 1 < s.maxRequestsPerConnection);
    _framing = head.framing;
    _bodyLeft = head.contentLength;
    _bodyDone = head.framing == BodyFraming::None;
    _continueDue = head.expectContinue && !_bodyDone;
    _bodyRead = 0;
    _drained = 0;
    _decoder.Reset();
    _inStart += _parser.HeadLength();
    _phase = Phase::Handling;
    _startUs = MonotonicUs();
    ++_service->Statistics().requests;
    SetDeadline(s.handlerTimeoutMs);
    if (_framing == BodyFraming::Length && _bodyLeft > s.maxBodyBytes) {
        FailRequestLocked(413, "Request body too large");
        return;
    }
    DispatchLocked(hold);
}

void ServerConnection::DispatchLocked(std::unique_lock<std::mutex>& hold) {
    Ref<ServerRequest> request = _request;
    Ref<ServerResponse> response = _response;
    const RequestHandler* handler = _service->FindHandler(request->GetPath());
    hold.unlock();
    try {
        if (handler == nullptr) {
            response->SetStatus(404);
            response->Send("Not Found\n");
            return;
        }
        (*handler)(request, response);
    } catch (const std::exception& e) {
        TESSERA_LOG(_service->Log(), Service::Logger::LOG_ERROR,
                    "The handler of %1 %2 from %3 failed: %4", request->GetMethod(),
                    request->GetTarget(), _peer, e.what());
        try {
            if (!response->IsStarted()) {
                response->SetStatus(500);
                response->Send("Internal Server Error\n");
            }
        } catch (const std::exception&) {
            // The connection is gone.
        }
    }
}

void ServerConnection::FailRequestLocked(int status, const char* text) {
    if (_response.IsNull() || _response->GetRefCount() > 1) _response = new ServerResponse(this);
    _response->Clear();
    _response->_status = status;
    _response->_headers.resize(1);
    _response->_headers[0] = {"Content-Type", "text/plain"};
    _response->_headerCount = 1;
    _response->_started = _response->_ended = true;
    _head = false;
    _minorVersion = 1;
    _keepAlive = false;
    _closeAfterResponse = true;
    _bodyDone = true;
    _readDone = nullptr;
    _phase = Phase::Handling;
    if (_startUs == 0) _startUs = MonotonicUs();
    std::string body = std::string(text) + "\n";
    WriteHeadLocked(body.size(), false, true);
    WriteJob& job = NewJobLocked();
    job.hold = std::move(body);
    _headBuffer->GetSegments(job.buffers);
    job.buffers.push_back({job.hold.data(), job.hold.size()});
    job.final = true;
    WriteNextLocked();
}

void ServerConnection::WriteHeadLocked(std::size_t contentLength, bool streamed, bool withBody) {
    const ServerResponse& response = *_response;
    const int status = response._status;
    DynamicCharBuffer& out = *_headBuffer;
    out.Clear();
    const std::string* phrase = &response._phrase;
    if (phrase->empty()) {
        static ResponseCode::StatusCodeMap* const map = new ResponseCode::StatusCodeMap();
        if (const ResponseCode::Info* info = map->Find(status)) phrase = &info->phrase;
    }
    out.Append("HTTP/1.1 ", 9);
    AppendNumber(out, static_cast<std::uint64_t>(status));
    out.Append(" ", 1);
    Append(out, *phrase);
    Append(out, kCrLf);
    for (std::size_t i = 0; i < response._headerCount; ++i) {
        Append(out, response._headers[i].first);
        out.Append(": ", 2);
        Append(out, response._headers[i].second);
        Append(out, kCrLf);
    }
    const std::int64_t second = MonotonicUs() / 1000000;
    if (second != _dateSecond) {
        const System::DateTime now = System::GetUtcDateTime();
        FormatHttpDate(now, _date);
        _dateSecond = second;
    }
    out.Append("Date: ", 6);
    out.Append(_date, sizeof _date);
    Append(out, kCrLf);
    const bool bodyless = status < 200 || status == 204 || status == 304;
    if (!bodyless && withBody) {
        if (!streamed) {
            out.Append("Content-Length: ", 16);
            AppendNumber(out, contentLength);
            Append(out, kCrLf);
        } else if (_minorVersion == 1) {
            Append(out, "Transfer-Encoding: chunked\r\n");
        } else {
            _keepAlive = false; // the body ends with the connection
        }
    }
    // A body left unread is drained after the response when it is short
    // and its length known; otherwise the connection ends with the response.
    if (!_bodyDone && (_readDone || _framing == BodyFraming::Chunked ||
                       _bodyLeft > _service->Settings().maxDrainBytes)) {
        _keepAlive = false;
    }
    if (_service->IsShuttingDown()) _keepAlive = false;
    if (!_keepAlive || _closeAfterResponse) {
        _closeAfterResponse = true;
        Append(out, "Connection: close\r\n");
    } else if (_minorVersion == 0) {
        Append(out, "Connection: keep-alive\r\n");
    }
    Append(out, kCrLf);
    out.Flip();
}

ServerConnection::WriteJob& ServerConnection::NewJobLocked() {
    _writes.emplace_back();
    WriteJob& job = _writes.back();
    job.buffers.swap(_spareBuffers); // storage of an earlier job, kept
    job.buffers.clear();
    return job;
}

void ServerConnection::WriteNextLocked() {
    if (_writing || _writes.empty() || _phase == Phase::Closed) return;
    _writing = true;
    _writeDeadline.store(Now() + _service->Settings().bodyTimeoutMs, std::memory_order_relaxed);
    WriteJob& job = _writes.front();
    Ref<ServerConnection> self(this);
    _stream->AsyncWriteBuffers(job.buffers.data(), job.buffers.size(),
                               [self](System::Stream*, Exception* e) { self->Written(e); });
}

void ServerConnection::Written(Exception* error) {
    std::unique_lock<std::mutex> hold(_lock);
    _writing = false;
    _writeDeadline.store(0, std::memory_order_relaxed);
    if (_writes.empty()) return; // closed meanwhile
    WriteJob job = std::move(_writes.front());
    _writes.pop_front();
    std::size_t bytes = 0;
    for (const System::ConstBuffer& b : job.buffers) bytes += b.size;
    _spareBuffers.swap(job.buffers);
    _service->Statistics().bytesOut += error ? 0 : bytes;
    _bytesOut += error ? 0 : bytes;
    if (error != nullptr) {
        CloseLocked();
    } else if (job.final) {
        _headBuffer->MarkWritten();
        ResponseDoneLocked(hold);
    } else {
        WriteNextLocked();
    }
    if (hold.owns_lock()) hold.unlock();
    if (job.done) job.done(error);
}

void ServerConnection::ResponseDoneLocked(std::unique_lock<std::mutex>& hold) {
    const int status = _response.IsNull() ? 0 : _response->_status;
    const std::int64_t micros = MonotonicUs() - _startUs;
    _service->RecordResponse(status, micros);
    if (Service::Logger* access = _service->Settings().accessLog.Get()) {
        TESSERA_LOG(access, Service::Logger::LOG_INFO, "%1 \"%2 %3\" %4 %5 %6", _peer,
                    _request.IsNull() ? std::string("-") : _request->GetMethod(),
                    _request.IsNull() ? std::string("-") : _request->GetTarget(), status, _bytesOut,
                    micros);
    }
    _bytesOut = 0;
    _startUs = 0;
    ++_requests;
    if (_closeAfterResponse) {
        if (_bodyDone && _inStart == _inEnd && !_reading) {
            // The request was read whole and nothing came after it: the end
            // follows the response at once, as the peer expects.
            CloseLocked();
            return;
        }
        // Otherwise the peer may still be sending: what it sends is read and
        // dropped until it closes, so that no reset of the connection
        // destroys the response in its receive buffer.
        _phase = Phase::Closing;
        SetDeadline(std::min<std::int64_t>(2000, _service->Settings().idleTimeoutMs));
        try {
            _stream->ShutdownWrite();
        } catch (const std::exception&) {
            CloseLocked(); // no half close here (Windows pipes)
            return;
        }
        _inStart = _inEnd = 0;
        _piece = std::string_view();
        ReadMoreLocked();
        return;
    }
    if (!_bodyDone) {
        _draining = true;
        DrainLocked(hold);
        return;
    }
    NextRequestLocked(hold);
}

void ServerConnection::NextRequestLocked(std::unique_lock<std::mutex>& hold) {
    _phase = Phase::Idle;
    _parser.Reset();
    _piece = std::string_view();
    _draining = false;
    if (_service->IsShuttingDown()) {
        CloseLocked();
        return;
    }
    if (_inStart < _inEnd) { // a pipelined request is here already
        _phase = Phase::Head;
        SetDeadline(_service->Settings().headTimeoutMs);
        ParseHeadLocked(hold);
        return;
    }
    SetDeadline(_service->Settings().idleTimeoutMs);
    ReadMoreLocked();
}

void ServerConnection::DrainLocked(std::unique_lock<std::mutex>& hold) {
    // Only bodies of a known, short length get here (WriteHeadLocked).
    const std::size_t buffered = _inEnd - _inStart;
    const std::size_t take = static_cast<std::size_t>(std::min<std::uint64_t>(buffered, _bodyLeft));
    _inStart += take;
    _bodyLeft -= take;
    _drained += take;
    if (_bodyLeft == 0) {
        _bodyDone = true;
        NextRequestLocked(hold);
        return;
    }
    SetDeadline(_service->Settings().bodyTimeoutMs);
    ReadMoreLocked();
}

// ---- the body, for the handler ----

void ServerConnection::ReadBody(char* buffer, std::size_t maxLength,
                                const Request::ReadCallback& done) {
    std::lock_guard<std::mutex> hold(_lock);
    if (_readDone) throw InvalidStateException("A read of the request body is pending");
    _readDone = done;
    _readBuffer = buffer;
    _readMax = maxLength;
    if (_phase == Phase::Closed) {
        CompleteBodyReadLocked(0, Closed());
        return;
    }
    if (_bodyDone || maxLength == 0) {
        CompleteBodyReadLocked(0, nullptr);
        return;
    }
    if (_continueDue) {
        _continueDue = false;
        if (_inStart == _inEnd && !_response->_started) {
            NewJobLocked().buffers.push_back({kContinue, sizeof kContinue - 1});
            WriteNextLocked();
        }
    }
    SetDeadline(
        std::min(_service->Settings().bodyTimeoutMs, _service->Settings().handlerTimeoutMs));
    ContinueBodyLocked();
}

void ServerConnection::ContinueBodyLocked() {
    const HttpServiceSettings& s = _service->Settings();
    if (_framing == BodyFraming::Length) {
        const std::size_t buffered = _inEnd - _inStart;
        if (buffered == 0) {
            // Straight into the handler's buffer.
            const std::size_t ask =
                static_cast<std::size_t>(std::min<std::uint64_t>(_readMax, _bodyLeft));
            _reading = true;
            Ref<ServerConnection> self(this);
            _stream->AsyncRead(_readBuffer, ask,
                               [self](System::Stream*, std::size_t n, Exception* e) {
                                   std::lock_guard<std::mutex> again(self->_lock);
                                   self->_reading = false;
                                   if (self->_phase == Phase::Closed) return;
                                   if (e != nullptr || n == 0) {
                                       self->CompleteBodyReadLocked(0, Closed());
                                       self->CloseLocked();
                                       return;
                                   }
                                   self->_service->Statistics().bytesIn += n;
                                   self->_bodyLeft -= n;
                                   self->_bodyRead += n;
                                   if (self->_bodyLeft == 0) self->_bodyDone = true;
                                   self->CompleteBodyReadLocked(n, nullptr);
                               });
            return;
        }
        const std::size_t n = static_cast<std::size_t>(
            std::min<std::uint64_t>(std::min<std::uint64_t>(buffered, _readMax), _bodyLeft));
        std::memcpy(_readBuffer, _in.data() + _inStart, n);
        _inStart += n;
        _bodyLeft -= n;
        _bodyRead += n;
        if (_bodyLeft == 0) _bodyDone = true;
        CompleteBodyReadLocked(n, nullptr);
        return;
    }
    // Chunked.
    for (;;) {
        if (!_piece.empty()) {
            const std::size_t n = std::min(_piece.size(), _readMax);
            std::memcpy(_readBuffer, _piece.data(), n);
            _piece.remove_prefix(n);
            CompleteBodyReadLocked(n, nullptr);
            return;
        }
        std::size_t used = 0;
        std::string_view piece;
        const ChunkedDecoder::Result result =
            _decoder.Decode(_in.data() + _inStart, _inEnd - _inStart, used, piece);
        _inStart += used;
        switch (result) {
        case ChunkedDecoder::Data:
            _bodyRead += piece.size();
            if (_bodyRead > s.maxBodyBytes) {
                CompleteBodyReadLocked(0, std::unique_ptr<Exception>(new HttpException(
                                              "Request body too large", kWithoutBacktrace)));
                if (!_response->_started) {
                    FailRequestLocked(413, "Request body too large");
                } else {
                    CloseLocked();
                }
                return;
            }
            _piece = piece;
            continue;
        case ChunkedDecoder::Done:
            _bodyDone = true;
            CompleteBodyReadLocked(0, nullptr);
            return;
        case ChunkedDecoder::NeedMore: ReadMoreLocked(); return;
        case ChunkedDecoder::Error: {
            const char* text = _decoder.ErrorText();
            CompleteBodyReadLocked(0, std::unique_ptr<Exception>(
                                          new MalformedHeaderException(text, kWithoutBacktrace)));
            ++_service->Statistics().refused;
            if (!_response->_started) {
                FailRequestLocked(400, text);
            } else {
                CloseLocked();
            }
            return;
        }
        }
    }
}

void ServerConnection::CompleteBodyReadLocked(std::size_t count, std::unique_ptr<Exception> error) {
    if (!_readDone) return;
    Request::ReadCallback done = _readDone;
    _readDone = nullptr;
    _readBuffer = nullptr;
    if (_phase == Phase::Handling) SetDeadline(_service->Settings().handlerTimeoutMs);
    Ref<ServerRequest> request = _request;
    std::shared_ptr<Exception> shared(std::move(error));
    // Never inside the call that asked for it, and never under the lock.
    _service->Pool()->PostCompletion(
        [done, request, count, shared] { done(request.Get(), count, shared.get()); });
}

// ---- the response, for the handler ----

bool ServerConnection::CurrentLocked(const ServerResponse* response, bool mustBeStreaming) {
    if (_phase == Phase::Closed || response != _response.Get()) {
        // Answered, then the connection moved on or closed: a late call.
        if (response->_ended) throw InvalidStateException("The response has been sent");
        return false; // the peer is gone
    }
    if (mustBeStreaming ? (!_streaming || response->_ended) : response->_started) {
        throw InvalidStateException(mustBeStreaming ? "The response is not being streamed"
                                                    : "The response has been sent");
    }
    return true;
}

void ServerConnection::SendResponse(ServerResponse* response, const std::string& body) {
    std::lock_guard<std::mutex> hold(_lock);
    if (!CurrentLocked(response, false)) return;
    _response->_started = _response->_ended = true;
    WriteHeadLocked(body.size(), false, true);
    WriteJob& job = NewJobLocked();
    _headBuffer->GetSegments(job.buffers);
    const int status = _response->_status;
    const bool bodyless = status < 200 || status == 204 || status == 304;
    if (!_head && !bodyless && !body.empty()) {
        job.hold = body;
        job.buffers.push_back({job.hold.data(), job.hold.size()});
    }
    job.final = true;
    WriteNextLocked();
}

void ServerConnection::BeginStream(ServerResponse* response) {
    std::lock_guard<std::mutex> hold(_lock);
    if (!CurrentLocked(response, false)) return;
    _response->_started = true;
    _streaming = true;
    WriteHeadLocked(0, true, true);
    _headBuffer->GetSegments(NewJobLocked().buffers);
    WriteNextLocked();
}

void ServerConnection::WriteStream(ServerResponse* response, const char* data, std::size_t size,
                                   const Response::WriteCallback& done) {
    std::lock_guard<std::mutex> hold(_lock);
    Ref<ServerResponse> kept(response);
    Functor<void(Exception*)> finished;
    if (done) finished = [done, kept](Exception* e) { done(kept.Get(), e); };
    if (!CurrentLocked(response, true)) {
        std::shared_ptr<Exception> error(Closed());
        if (finished)
            _service->Pool()->PostCompletion([finished, error] { finished(error.get()); });
        return;
    }
    WriteJob& job = NewJobLocked();
    job.done = finished;
    if (!_head && size > 0) {
        if (_minorVersion == 1) {
            std::snprintf(job.line, sizeof job.line, "%zx\r\n", size);
            job.buffers.push_back({job.line, std::strlen(job.line)});
            job.buffers.push_back({data, size});
            job.buffers.push_back({kCrLf, 2});
        } else {
            job.buffers.push_back({data, size});
        }
    }
    WriteNextLocked();
}

void ServerConnection::EndStream(ServerResponse* response) {
    std::lock_guard<std::mutex> hold(_lock);
    if (!CurrentLocked(response, true)) return;
    _response->_ended = true;
    _streaming = false;
    WriteJob& job = NewJobLocked();
    if (!_head && _minorVersion == 1) {
        job.buffers.push_back({kLastChunk, sizeof kLastChunk - 1});
    }
    job.final = true;
    WriteNextLocked();
}

} // namespace Http
} // namespace Tessera
