#include <tessera/exception.h>
#include <tessera/formatter.h>
#include <tessera/http/responseCode.h>

#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <utility>

using namespace Tessera;
using Tessera::Http::ResponseCode;

// ---- every code answers with its own constant and its phrase as sent ----

TEST(ResponseCode, EveryCodeMapsToItsConstantAndPhrase) {
    const std::pair<const ResponseCode::Info*, const char*> table[] = {
        {&ResponseCode::Continue, "100 Continue"},
        {&ResponseCode::SwitchingProtocols, "101 Switching Protocols"},
        {&ResponseCode::Ok, "200 OK"},
        {&ResponseCode::Created, "201 Created"},
        {&ResponseCode::Accepted, "202 Accepted"},
        {&ResponseCode::NonAuthoritativeInformation, "203 Non-Authoritative Information"},
        {&ResponseCode::NoContent, "204 No Content"},
        {&ResponseCode::ResetContent, "205 Reset Content"},
        {&ResponseCode::PartialContent, "206 Partial Content"},
        {&ResponseCode::MultipleChoices, "300 Multiple Choices"},
        {&ResponseCode::MovedPermanently, "301 Moved Permanently"},
        {&ResponseCode::Found, "302 Found"},
        {&ResponseCode::SeeOther, "303 See Other"},
        {&ResponseCode::NotModified, "304 Not Modified"},
        {&ResponseCode::UseProxy, "305 Use Proxy"},
        {&ResponseCode::TemporaryRedirect, "307 Temporary Redirect"},
        {&ResponseCode::BadRequest, "400 Bad Request"},
        {&ResponseCode::Unauthorized, "401 Unauthorized"},
        {&ResponseCode::PaymentRequired, "402 Payment Required"},
        {&ResponseCode::Forbidden, "403 Forbidden"},
        {&ResponseCode::NotFound, "404 Not Found"},
        {&ResponseCode::MethodNotAllowed, "405 Method Not Allowed"},
        {&ResponseCode::NotAcceptable, "406 Not Acceptable"},
        {&ResponseCode::ProxyAuthorizationRequired, "407 Proxy Authorization Required"},
        {&ResponseCode::RequestTimeout, "408 Request Timeout"},
        {&ResponseCode::Conflict, "409 Conflict"},
        {&ResponseCode::Gone, "410 Gone"},
        {&ResponseCode::LengthRequired, "411 Length Required"},
        {&ResponseCode::PreconditionFailed, "412 Precondition Failed"},
        {&ResponseCode::RequestEntityTooLarge, "413 Request Entity Too Large"},
        {&ResponseCode::RequestURITooLong, "414 Request URI Too Long"},
        {&ResponseCode::UnsupportedMediaType, "415 Unsuppored Media Type"},
        {&ResponseCode::RequestedRangeNotSatisfiable, "416 Requested Range Not Satisfiable"},
        {&ResponseCode::ExpectationFailed, "417 Expectation Failed"},
        {&ResponseCode::InternalServerError, "500 Internal Server Error"},
        {&ResponseCode::NotImplemented, "501 Not Implemented"},
        {&ResponseCode::BadGateway, "502 Bad Gateway"},
        {&ResponseCode::ServiceUnavailable, "503 Service Unavailable"},
        {&ResponseCode::GatewayTimeout, "504 Gateway Timeout"},
        {&ResponseCode::HttpVersionNotSupported, "505 HTTP Version Not Supported"},
    };
    std::set<int> codes;
    for (const auto& [info, text] : table) {
        EXPECT_EQ(text, std::to_string(info->code) + " " + info->phrase);
        EXPECT_EQ(info, &ResponseCode::StatusCodeMap::GetResponseCodeInfo(info->code));
        codes.insert(info->code);
    }
    EXPECT_EQ(40u, codes.size());
    ResponseCode::StatusCodeMap map;
    EXPECT_EQ(40u, map.Size());
}

TEST(ResponseCode, UnknownCodesThrowNotFoundNamingTheCode) {
    for (int code : {306, 418, 0, -1, 99, 506, 600}) {
        try {
            ResponseCode::StatusCodeMap::GetResponseCodeInfo(code);
            ADD_FAILURE() << code << " was found";
        } catch (const NotFoundException& e) {
            EXPECT_EQ(
                "Object not found: Tessera::Http::ResponseCode::StatusCodeMap::"
                "GetResponseCodeInfo: code = " +
                    std::to_string(code),
                e.what());
        }
    }
}

TEST(ResponseCode, FormatterPrintsCodeAndPhraseIgnoringOptions) {
    EXPECT_EQ("HTTP Status:404 'Not Found'",
              MessageFormatter::ASPrint("%1", ResponseCode::Formatter(ResponseCode::NotFound)));
    EXPECT_EQ("got HTTP Status:415 'Unsuppored Media Type'.",
              MessageFormatter::ASPrint(
                  "got %1.", ResponseCode::Formatter(ResponseCode::UnsupportedMediaType, "%08x")));
}

// ---- the first lookup: racing threads share one published map ----

TEST(ResponseCodeStress, RacingFirstLookupsShareOneMap) {
    for (int round = 0; round < 100; ++round) {
        std::atomic<const ResponseCode::StatusCodeMap*> slot{nullptr};
        const std::size_t before = ResponseCode::StatusCodeMap::LiveMaps();
        std::atomic<int> ready{0};
        const ResponseCode::StatusCodeMap* seen[2] = {nullptr, nullptr};
        auto racer = [&](int i) {
            ready.fetch_add(1);
            while (ready.load() < 2) {
            }
            seen[i] = ResponseCode::StatusCodeMap::Publish(slot);
        };
        std::thread a(racer, 0);
        std::thread b(racer, 1);
        a.join();
        b.join();
        ASSERT_NE(nullptr, seen[0]);
        ASSERT_EQ(seen[0], seen[1]);
        ASSERT_EQ(seen[0], slot.load());
        ASSERT_EQ(before + 1, ResponseCode::StatusCodeMap::LiveMaps());
        ASSERT_EQ(&ResponseCode::Gone, seen[0]->Find(410));
        delete seen[0];
    }
}
