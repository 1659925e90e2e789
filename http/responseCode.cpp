// Status codes, their phrases, and the lock-free map from code to constant.

#include <tessera/exception.h>
#include <tessera/http/responseCode.h>

#include <string>

namespace Tessera {
namespace Http {

const ResponseCode::Info ResponseCode::Continue{100, "Continue"};
const ResponseCode::Info ResponseCode::SwitchingProtocols{101, "Switching Protocols"};
const ResponseCode::Info ResponseCode::Ok{200, "OK"};
const ResponseCode::Info ResponseCode::Created{201, "Created"};
const ResponseCode::Info ResponseCode::Accepted{202, "Accepted"};
const ResponseCode::Info ResponseCode::NonAuthoritativeInformation{203,
                                                                   "Non-Authoritative Information"};
const ResponseCode::Info ResponseCode::NoContent{204, "No Content"};
const ResponseCode::Info ResponseCode::ResetContent{205, "Reset Content"};
const ResponseCode::Info ResponseCode::PartialContent{206, "Partial Content"};
const ResponseCode::Info ResponseCode::MultipleChoices{300, "Multiple Choices"};
const ResponseCode::Info ResponseCode::MovedPermanently{301, "Moved Permanently"};
const ResponseCode::Info ResponseCode::Found{302, "Found"};
const ResponseCode::Info ResponseCode::SeeOther{303, "See Other"};
const ResponseCode::Info ResponseCode::NotModified{304, "Not Modified"};
const ResponseCode::Info ResponseCode::UseProxy{305, "Use Proxy"};
const ResponseCode::Info ResponseCode::TemporaryRedirect{307, "Temporary Redirect"};
const ResponseCode::Info ResponseCode::BadRequest{400, "Bad Request"};
const ResponseCode::Info ResponseCode::Unauthorized{401, "Unauthorized"};
const ResponseCode::Info ResponseCode::PaymentRequired{402, "Payment Required"};
const ResponseCode::Info ResponseCode::Forbidden{403, "Forbidden"};
const ResponseCode::Info ResponseCode::NotFound{404, "Not Found"};
const ResponseCode::Info ResponseCode::MethodNotAllowed{405, "Method Not Allowed"};
const ResponseCode::Info ResponseCode::NotAcceptable{406, "Not Acceptable"};
const ResponseCode::Info ResponseCode::ProxyAuthorizationRequired{407,
                                                                  "Proxy Authorization Required"};
const ResponseCode::Info ResponseCode::RequestTimeout{408, "Request Timeout"};
const ResponseCode::Info ResponseCode::Conflict{409, "Conflict"};
const ResponseCode::Info ResponseCode::Gone{410, "Gone"};
const ResponseCode::Info ResponseCode::LengthRequired{411, "Length Required"};
const ResponseCode::Info ResponseCode::PreconditionFailed{412, "Precondition Failed"};
const ResponseCode::Info ResponseCode::RequestEntityTooLarge{413, "Request Entity Too Large"};
const ResponseCode::Info ResponseCode::RequestURITooLong{414, "Request URI Too Long"};
const ResponseCode::Info ResponseCode::UnsupportedMediaType{415, "Unsuppored Media Type"};
const ResponseCode::Info ResponseCode::RequestedRangeNotSatisfiable{
    416, "Requested Range Not Satisfiable"};
const ResponseCode::Info ResponseCode::ExpectationFailed{417, "Expectation Failed"};
const ResponseCode::Info ResponseCode::InternalServerError{500, "Internal Server Error"};
const ResponseCode::Info ResponseCode::NotImplemented{501, "Not Implemented"};
const ResponseCode::Info ResponseCode::BadGateway{502, "Bad Gateway"};
const ResponseCode::Info ResponseCode::ServiceUnavailable{503, "Service Unavailable"};
const ResponseCode::Info ResponseCode::GatewayTimeout{504, "Gateway Timeout"};
const ResponseCode::Info ResponseCode::HttpVersionNotSupported{505, "HTTP Version Not Supported"};

namespace {

std::atomic<std::size_t> sLiveMaps{0};

// The process-wide map; published once, never freed.
std::atomic<const ResponseCode::StatusCodeMap*> sProcessMap{nullptr};

}  // namespace

ResponseCode::StatusCodeMap::StatusCodeMap() {
    static const Info* const all[] = {&Continue,
                                      &SwitchingProtocols,
                                      &Ok,
                                      &Created,
                                      &Accepted,
                                      &NonAuthoritativeInformation,
                                      &NoContent,
                                      &ResetContent,
                                      &PartialContent,
                                      &MultipleChoices,
                                      &MovedPermanently,
                                      &Found,
                                      &SeeOther,
                                      &NotModified,
                                      &UseProxy,
                                      &TemporaryRedirect,
                                      &BadRequest,
                                      &Unauthorized,
                                      &PaymentRequired,
                                      &Forbidden,
                                      &NotFound,
                                      &MethodNotAllowed,
                                      &NotAcceptable,
                                      &ProxyAuthorizationRequired,
                                      &RequestTimeout,
                                      &Conflict,
                                      &Gone,
                                      &LengthRequired,
                                      &PreconditionFailed,
                                      &RequestEntityTooLarge,
                                      &RequestURITooLong,
                                      &UnsupportedMediaType,
                                      &RequestedRangeNotSatisfiable,
                                      &ExpectationFailed,
                                      &InternalServerError,
                                      &NotImplemented,
                                      &BadGateway,
                                      &ServiceUnavailable,
                                      &GatewayTimeout,
                                      &HttpVersionNotSupported};
    for (const Info* info : all) {
        _map.emplace(info->code, info);
    }
    sLiveMaps.fetch_add(1, std::memory_order_relaxed);
}

ResponseCode::StatusCodeMap::~StatusCodeMap() {
    sLiveMaps.fetch_sub(1, std::memory_order_relaxed);
}

std::size_t ResponseCode::StatusCodeMap::LiveMaps() noexcept {
    return sLiveMaps.load(std::memory_order_relaxed);
}

const ResponseCode::Info* ResponseCode::StatusCodeMap::Find(int code) const noexcept {
    const auto it = _map.find(code);
    return it == _map.end() ? nullptr : it->second;
}

const ResponseCode::StatusCodeMap* ResponseCode::StatusCodeMap::Publish(
    std::atomic<const StatusCodeMap*>& slot) {
    const StatusCodeMap* published = slot.load(std::memory_order_acquire);
    if (published != nullptr) {
        return published;
    }
    const StatusCodeMap* mine = new StatusCodeMap;
    if (slot.compare_exchange_strong(published, mine, std::memory_order_acq_rel,
                                     std::memory_order_acquire)) {
        return mine;
    }
    // Another thread published first; `published` now holds its map.
    delete mine;
    return published;
}

const ResponseCode::Info& ResponseCode::StatusCodeMap::GetResponseCodeInfo(int code) {
    const Info* info = Publish(sProcessMap)->Find(code);
    if (info == nullptr) {
        throw NotFoundException(
            "Tessera::Http::ResponseCode::StatusCodeMap::GetResponseCodeInfo: code = " +
            std::to_string(code));
    }
    return *info;
}

void ResponseCode::Formatter::Format(Writer* w, const FormatValue& value, const char*) {
    const Info* info = static_cast<const Info*>(value._pointer);
    MessageFormatter::Print(w, "HTTP Status:%1 '%2'", static_cast<int>(info->code), info->phrase);
}

}  // namespace Http
}  // namespace Tessera
