#include <tessera/exception.h>
#include <tessera/formatter.h>
#include <tessera/http/responseCode.h>

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

using namespace Tessera;
using Tessera::Http::ResponseCode;

// ---- a code finds its own constant ----

TEST(ResponseCode, LookupsFindTheConstantOfTheirCode) {
    EXPECT_EQ(&ResponseCode::Continue, &ResponseCode::StatusCodeMap::GetResponseCodeInfo(100));
    EXPECT_EQ(&ResponseCode::NotFound, &ResponseCode::StatusCodeMap::GetResponseCodeInfo(404));
    EXPECT_EQ(&ResponseCode::HttpVersionNotSupported,
              &ResponseCode::StatusCodeMap::GetResponseCodeInfo(505));
    ResponseCode::StatusCodeMap map;
    for (int code = 100; code < 600; ++code) {
        const ResponseCode::Info* info = map.Find(code);
        if (info != nullptr) {
            EXPECT_EQ(code, info->code);
        }
    }
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
            while (ready.load() < 2) {}
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
