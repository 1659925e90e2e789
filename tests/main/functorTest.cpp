// Functor: null state, calls with arguments, and copies of a large callable
// sharing it instead of copying it.

#include <tessera/functor.h>

#include <gtest/gtest.h>
#include <boost/bind/bind.hpp>
#include <boost/function.hpp>

#include <string>

using namespace Tessera;

namespace {

struct Counted {
    static int copies;
    std::string padding = std::string(64, 'p'); // too large for the small buffer
    int* calls;
    explicit Counted(int* c) : calls(c) {}
    Counted(const Counted& other) : padding(other.padding), calls(other.calls) { ++copies; }
    int operator()(int a, int b) const {
        ++*calls;
        return a + b;
    }
};
int Counted::copies = 0;

int Add(int a, int b) { return a + b; }

} // namespace

TEST(Functor, NullStateAndCalls) {
    Functor<int(int, int)> empty;
    EXPECT_TRUE(empty.IsNull());
    EXPECT_FALSE(empty);
    EXPECT_THROW(empty(1, 2), boost::bad_function_call);
    EXPECT_TRUE(Functor<void()>(boost::function<void()>()).IsNull());
    EXPECT_TRUE(Functor<void()>(nullptr).IsNull());

    Functor<int(int, int)> add(&Add);
    EXPECT_FALSE(add.IsNull());
    EXPECT_EQ(add(2, 3), 5);
    Functor<int(int)> bound(boost::bind(&Add, 10, boost::placeholders::_1));
    EXPECT_EQ(bound(5), 15);

    Functor<int(int, int)> moved(std::move(add));
    EXPECT_TRUE(add.IsNull());
    EXPECT_EQ(moved(1, 1), 2);
    moved.Clear();
    EXPECT_TRUE(moved.IsNull());
}

TEST(Functor, CopiesShareALargeCallable) {
    int calls = 0;
    Functor<int(int, int)> f{Counted(&calls)};
    const int copiesAfterMaking = Counted::copies;
    Functor<int(int, int)> g = f;
    Functor<int(int, int)> h = g;
    EXPECT_EQ(Counted::copies, copiesAfterMaking); // no copy of the callable
    EXPECT_EQ(f(1, 2) + g(3, 4) + h(5, 6), 21);
    EXPECT_EQ(calls, 3);
}
