// HTTP status codes and their reason phrases.
//
// The set is closed: the 40 constants of ResponseCode are the only codes the
// library knows, and looking up any other number throws NotFoundException.
// Code that sets or compares a status uses the constants:
//
//     if (status == Tessera::Http::ResponseCode::NotFound.code) { ... }
//     const auto& info = Tessera::Http::ResponseCode::StatusCodeMap::GetResponseCodeInfo(status);
//     TESSERA_LOG(log, Logger::LOG_INFO, "Answered %1",
//                 Tessera::Http::ResponseCode::Formatter(info));   // HTTP Status:404 'Not Found'
//
// The phrases are sent on the wire exactly as they stand here, including two
// that differ from the usual ones: 407 is "Proxy Authorization Required" and
// 415 is "Unsuppored Media Type".
//
// Thread safety: everything here may be used from any thread. The map from
// code to constant is built on the first lookup and published with one
// compare-and-swap; later lookups read it without a lock. It is never changed
// or destroyed afterwards.
#pragma once

#include <tessera/api.h>
#include <tessera/formatter.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

namespace Tessera {
namespace Http {

class TESSERA_EXPORT ResponseCode {
public:
    // One status: its number and its reason phrase.
    struct Info {
        std::int32_t code;
        std::string phrase;
    };

    static const Info Continue;                      // 100
    static const Info SwitchingProtocols;            // 101
    static const Info Ok;                            // 200 "OK"
    static const Info Created;                       // 201
    static const Info Accepted;                      // 202
    static const Info NonAuthoritativeInformation;   // 203
    static const Info NoContent;                     // 204
    static const Info ResetContent;                  // 205
    static const Info PartialContent;                // 206
    static const Info MultipleChoices;               // 300
    static const Info MovedPermanently;              // 301
    static const Info Found;                         // 302
    static const Info SeeOther;                      // 303
    static const Info NotModified;                   // 304
    static const Info UseProxy;                      // 305
    static const Info TemporaryRedirect;             // 307
    static const Info BadRequest;                    // 400
    static const Info Unauthorized;                  // 401
    static const Info PaymentRequired;               // 402
    static const Info Forbidden;                     // 403
    static const Info NotFound;                      // 404
    static const Info MethodNotAllowed;              // 405
    static const Info NotAcceptable;                 // 406
    static const Info ProxyAuthorizationRequired;    // 407
    static const Info RequestTimeout;                // 408
    static const Info Conflict;                      // 409
    static const Info Gone;                          // 410
    static const Info LengthRequired;                // 411
    static const Info PreconditionFailed;            // 412
    static const Info RequestEntityTooLarge;         // 413
    static const Info RequestURITooLong;             // 414
    static const Info UnsupportedMediaType;          // 415 "Unsuppored Media Type"
    static const Info RequestedRangeNotSatisfiable;  // 416
    static const Info ExpectationFailed;             // 417
    static const Info InternalServerError;           // 500
    static const Info NotImplemented;                // 501
    static const Info BadGateway;                    // 502
    static const Info ServiceUnavailable;            // 503
    static const Info GatewayTimeout;                // 504
    static const Info HttpVersionNotSupported;       // 505

    // The process's one map from code to constant.
    class TESSERA_EXPORT StatusCodeMap {
    public:
        // The constant for `code`, from the process-wide map (built on the
        // first call). Any code without a constant (306, 418, 0, ...) throws
        // NotFoundException "Object not found: Tessera::Http::ResponseCode::
        // StatusCodeMap::GetResponseCodeInfo: code = <code>" (one line).
        static const Info& GetResponseCodeInfo(int code);

        // The map published in `slot`: when the slot is empty, a complete map
        // is built and offered with a compare-and-swap; a caller that loses
        // the race destroys its own and returns the winner's. The process-wide
        // lookup uses this on its own slot; a slot of the caller's lets a test
        // watch the first lookup as it happens.
        static const StatusCodeMap* Publish(std::atomic<const StatusCodeMap*>& slot);

        // How many maps exist in the process right now.
        static std::size_t LiveMaps() noexcept;

        StatusCodeMap();
        ~StatusCodeMap();
        StatusCodeMap(const StatusCodeMap&) = delete;
        StatusCodeMap& operator=(const StatusCodeMap&) = delete;

        // The constant for `code`; null when there is none.
        const Info* Find(int code) const noexcept;
        std::size_t Size() const noexcept { return _map.size(); }

    private:
        std::map<int, const Info*> _map;
    };

    // Prints an Info as "HTTP Status:%1 '%2'": "HTTP Status:404 'Not Found'".
    // The Info must outlive the print; options are ignored.
    class TESSERA_EXPORT Formatter : public PrintFormatter {
    public:
        explicit Formatter(const Info& info, const char* options = nullptr) noexcept
            : PrintFormatter(ValueOf(info), options, &Format) {}

        static void Format(Writer* w, const FormatValue& value, const char* options);

    private:
        static FormatValue ValueOf(const Info& info) noexcept {
            FormatValue v;
            v._pointer = &info;
            return v;
        }
    };
};

}  // namespace Http
}  // namespace Tessera
