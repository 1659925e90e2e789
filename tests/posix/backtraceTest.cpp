// Where the platform can name functions, backtraces do.

#include <tessera/exception.h>

#include <gtest/gtest.h>

#include <string>

namespace {
void ThrowFromANamedFunction() { throw Tessera::TimeoutException("t"); }
void (*volatile sThrow)() = &ThrowFromANamedFunction;
} // namespace

TEST(BacktraceText, NamesTheThrowingFunction) {
    try {
        sThrow();
        FAIL() << "did not throw";
    } catch (const Tessera::Exception& e) {
        const std::string where = e.Where();
        EXPECT_NE(where.find("ThrowFromANamedFunction"), std::string::npos) << where;
    }
}
