// The response a handler of the HTTP service fills: its status and fields,
// checked so that nothing a handler passes can split the response, and its
// body, handed to the connection.

#include "http/serverConnection.h"

#include "http/textTables.h"

namespace Tessera {
namespace Http {

namespace {

void RequireValueText(const std::string& text, const char* what) {
    for (char c : text) {
        if (!Text::IsFieldValueChar(c)) {
            throw InvalidArgumentException(
                std::string(what) + " holds a control character: it would split the response");
        }
    }
}

} // namespace

void ServerResponse::Clear() {
    _status = 200;
    _phrase.clear();
    _headerCount = 0;
    _started = false;
    _ended = false;
}

void ServerResponse::SetStatus(int code, const std::string& phrase) {
    if (code < 100 || code > 599) {
        throw InvalidArgumentException("Invalid argument : status " + std::to_string(code) +
                                       " is not between 100 and 599");
    }
    RequireValueText(phrase, "The reason phrase");
    std::lock_guard<std::mutex> hold(_connection->_lock);
    if (_started) throw InvalidStateException("The response has been sent");
    _status = code;
    _phrase = phrase;
}

void ServerResponse::SetHeader(const std::string& name, const std::string& value) {
    if (name.empty()) throw InvalidArgumentException("Invalid argument : an empty field name");
    for (char c : name) {
        if (!Text::IsToken(c)) {
            throw InvalidArgumentException("Invalid argument : field name '" + name +
                                           "' is not a token");
        }
    }
    for (const char* framing : {"content-length", "transfer-encoding", "connection", "date"}) {
        if (Text::EqualsNoCase(name, framing)) {
            throw InvalidArgumentException("Invalid argument : " + name + " is set by the service");
        }
    }
    RequireValueText(value, "The field value");
    std::lock_guard<std::mutex> hold(_connection->_lock);
    if (_started) throw InvalidStateException("The response has been sent");
    if (_headerCount < _headers.size()) {
        _headers[_headerCount].first = name;
        _headers[_headerCount].second = value;
    } else {
        _headers.emplace_back(name, value);
    }
    ++_headerCount;
}

void ServerResponse::Send(const std::string& body) { _connection->SendResponse(this, body); }

void ServerResponse::BeginStream() { _connection->BeginStream(this); }

void ServerResponse::Write(const char* data, std::size_t size, const WriteCallback& done) {
    _connection->WriteStream(this, data, size, done);
}

void ServerResponse::End() { _connection->EndStream(this); }

bool ServerResponse::IsStarted() const {
    std::lock_guard<std::mutex> hold(_connection->_lock);
    return _started;
}

} // namespace Http
} // namespace Tessera
