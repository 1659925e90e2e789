// The request a handler of the HTTP service gets: the head's text, copied
// into strings that keep their storage from one request to the next, and the
// body, read through the connection.

#include "http/serverConnection.h"

#include <tessera/http/http.h>

#include "http/textTables.h"

namespace Tessera {
namespace Http {

namespace {

constexpr std::size_t kBodyStep = 16 * 1024;

} // namespace

void ServerRequest::Assign(const RequestHead& head, const std::string& peer) {
    _method.assign(head.method.data(), head.method.size());
    _target.assign(head.target.data(), head.target.size());
    _minorVersion = head.minorVersion;
    _hasBody = head.framing != BodyFraming::None;
    if (_peer != peer) _peer = peer;
    _queryParsed = false;
    if (_target[0] == '/') {
        const std::size_t question = _target.find('?');
        if (question == std::string::npos) {
            _path = _target;
            _query.clear();
        } else {
            _path.assign(_target, 0, question);
            _query.assign(_target, question + 1, std::string::npos);
        }
    } else if (_target == "*") {
        _path = _target;
        _query.clear();
    } else {
        std::string scheme, authority, fragment;
        if (!ParseURI(_target, scheme, authority, _path, _query, fragment)) _path.clear();
        if (_path.empty()) _path = "/";
    }
    _headers.resize(head.fieldCount);
    for (std::size_t i = 0; i < head.fieldCount; ++i) {
        _headers[i].first.assign(head.fields[i].name.data(), head.fields[i].name.size());
        _headers[i].second.assign(head.fields[i].value.data(), head.fields[i].value.size());
    }
}

const std::map<std::string, std::string>& ServerRequest::GetQueryParameters() const {
    if (!_queryParsed) {
        _parameters.clear();
        ParseURIQuery(_query, _parameters);
        _queryParsed = true;
    }
    return _parameters;
}

const std::string* ServerRequest::FindHeader(const std::string& name) const {
    for (const auto& field : _headers) {
        if (Text::EqualsNoCase(field.first, name)) return &field.second;
    }
    return nullptr;
}

void ServerRequest::AsyncRead(char* buffer, std::size_t maxLength, const ReadCallback& done) {
    _connection->ReadBody(buffer, maxLength, done);
}

void ServerRequest::ReadBody(const BodyCallback& done) {
    _body.clear();
    ReadMoreBody(done);
}

void ServerRequest::ReadMoreBody(const BodyCallback& done) {
    const std::size_t old = _body.size();
    _body.resize(old + kBodyStep);
    Ref<ServerRequest> self(this);
    AsyncRead(&_body[old], kBodyStep, [self, old, done](Request*, std::size_t n, Exception* e) {
        self->_body.resize(old + n);
        if (e != nullptr) {
            done(self.Get(), nullptr, e);
        } else if (n == 0) {
            done(self.Get(), &self->_body, nullptr);
        } else {
            self->ReadMoreBody(done);
        }
    });
}

} // namespace Http
} // namespace Tessera
