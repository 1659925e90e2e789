#include <tessera/exception.h>
#include <tessera/http/charBuffer.h>

#include "tests/http/httpTestSupport.h"
#include "tests/system/syncTestSupport.h"

#include <gtest/gtest.h>

#include <future>
#include <string>
#include <vector>

using namespace Tessera;
using namespace Tessera::Http;
using HttpTest::OneThreadPool;

namespace {

std::string Letters(std::size_t n) {
    std::string s;
    for (std::size_t i = 0; i < n; ++i) s += static_cast<char>('a' + i % 26);
    return s;
}

std::string Drain(CharBuffer& b) {
    std::string out(b.Limit() - b.Position(), '\0');
    EXPECT_EQ(out.size(), b.Get(&out[0], out.size()));
    return out;
}

struct Segments {
    std::vector<std::string> seen;
    CharBuffer::WriteFunction Writer() {
        return [this](const char* data, int len) { seen.emplace_back(data, len); };
    }
};

} // namespace

// ---- cursors: fill, prepend, flip, drain ----

TEST(CharBuffer, FixedTakesWhatFitsAndDrainsPrependedFirst) {
    Ref<FixedCharBuffer> b(new FixedCharBuffer(10, 4));
    EXPECT_EQ(6u, b->Append("0123456789", 10));
    EXPECT_EQ(10u, b->Position());
    EXPECT_EQ(4u, b->Prepend("ABCDEF", 6));
    EXPECT_EQ(0u, b->Prepend("Z", 1));
    b->Flip();
    EXPECT_EQ(0u, b->Position());
    EXPECT_EQ(10u, b->Limit());
    char out[3];
    EXPECT_EQ(3u, b->Get(out, 3));
    EXPECT_EQ(3u, b->PrependPosition());
    EXPECT_EQ("D012345", Drain(*b));
    EXPECT_EQ(0u, b->Get(out, 0));
    // Compact moves what is left down to the reserve.
    b->Clear();
    b->Append("abcdef", 6);
    b->Flip();
    b->Get(out, 3); // "abc"
    b->Compact();
    EXPECT_EQ(4u, b->PrependPosition());
    EXPECT_EQ(7u, b->Position());
    EXPECT_EQ(10u, b->Limit());
    EXPECT_EQ(2u, b->Prepend("xy", 2));
    b->Flip();
    EXPECT_EQ("xydef", Drain(*b));
    // A buffer of nothing is allowed.
    Ref<FixedCharBuffer> empty(new FixedCharBuffer(0, 0));
    EXPECT_EQ(0u, empty->Append("a", 1));
}

TEST(CharBuffer, DynamicGrowsByChunksAndWritesSegments) {
    Ref<DynamicCharBuffer> b(new DynamicCharBuffer(8, 0));
    EXPECT_EQ(8u, b->Limit());
    const std::string data = Letters(20);
    EXPECT_EQ(20u, b->Append(data.data(), 20));
    EXPECT_EQ(3u, b->ChunkCount());
    EXPECT_EQ(24u, b->Capacity());
    b->Flip();
    Segments s;
    b->Write(s.Writer());
    EXPECT_EQ((std::vector<std::string>{data.substr(0, 8), data.substr(8, 8), data.substr(16)}),
              s.seen);
    EXPECT_EQ(20u, b->Position());
    EXPECT_EQ(20u, b->PrependPosition());

    // The same segments for a gathered write, from a position inside a chunk.
    b->Clear();
    b->Append(data.data(), 20);
    b->Flip();
    char first[3];
    b->Get(first, 3);
    std::vector<System::ConstBuffer> segments;
    b->GetSegments(segments);
    std::string gathered;
    for (const System::ConstBuffer& g : segments) gathered.append(g.data, g.size);
    EXPECT_EQ(3u, segments.size());
    EXPECT_EQ(data.substr(3), gathered);
    EXPECT_EQ(3u, b->Position());
    b->MarkWritten();
    EXPECT_EQ(20u, b->Position());
    EXPECT_EQ(20u, b->PrependPosition());
    b->Clear();
    EXPECT_EQ(1u, b->ChunkCount());
    EXPECT_EQ(8u, b->Limit());
    EXPECT_EQ(0u, b->Position());

    // Get with nothing asked still moves the prepend position up.
    b->Append("abcdef", 6);
    EXPECT_EQ(0u, b->PrependPosition());
    char c;
    EXPECT_EQ(0u, b->Get(&c, 0));
    EXPECT_EQ(6u, b->PrependPosition());
}

TEST(CharBuffer, DynamicCompactFreesWholeChunksOnly) {
    // The reserve must still fit in front once a chunk goes.
    Ref<DynamicCharBuffer> b(new DynamicCharBuffer(8, 6));
    const std::string data = Letters(30);
    b->Append(data.data(), 30); // bytes 6..35: chunks 0-4
    EXPECT_EQ(5u, b->ChunkCount());
    b->Flip();
    std::string got(4, '\0');
    b->Get(&got[0], 4); // position 10, inside chunk 1
    b->Compact(); // 10 < 8 + 6: nothing freed
    EXPECT_EQ(5u, b->ChunkCount());
    EXPECT_EQ(10u, b->PrependPosition());
    EXPECT_EQ(36u, b->Position());
    EXPECT_EQ(40u, b->Limit());
    // The prepended bytes cross from chunk 0 into chunk 1.
    EXPECT_EQ(5u, b->Prepend("VWXYZ", 5));
    b->Flip();
    EXPECT_EQ("VWXYZ" + data.substr(4), Drain(*b));

    b->Clear();
    b->Append(data.data(), 30);
    b->Flip();
    got.assign(15, '\0');
    b->Get(&got[0], 15); // position 21, in chunk 2
    b->Compact(); // chunk 0 goes (21 >= 14); then 13 < 14 keeps chunk 1
    EXPECT_EQ(4u, b->ChunkCount());
    EXPECT_EQ(13u, b->PrependPosition());
    EXPECT_EQ(28u, b->Position());
    EXPECT_EQ(6u, b->Prepend("012345", 6));
    b->Append("!", 1);
    b->Flip();
    EXPECT_EQ("012345" + data.substr(15) + "!", Drain(*b));

    // With a position inside the first chunk nothing goes.
    b->Clear();
    b->Append(data.data(), 20);
    b->Flip();
    b->Get(&got[0], 1);
    b->Compact();
    EXPECT_EQ(4u, b->ChunkCount());
}

TEST(CharBuffer, ConstructorsRefuseBadSizes) {
    auto message = [](auto make) {
        try {
            make();
        } catch (const InvalidArgumentException& e) {
            return std::string(e.what());
        }
        return std::string("no exception");
    };
    EXPECT_EQ("Invalid argument : Prepend reserve exceeds allocation size",
              message([] { Ref<CharBuffer> b(new DynamicCharBuffer(8, 9)); }));
    EXPECT_EQ("Invalid argument : Prepend reserve exceeds allocation size",
              message([] { Ref<CharBuffer> b(new DynamicCharBuffer(0, 1)); }));
    EXPECT_EQ("Invalid argument : Allocation size must be non-zero",
              message([] { Ref<CharBuffer> b(new DynamicCharBuffer(0, 0)); }));
    EXPECT_EQ("Invalid argument : Prepend reserve exceeds capacity",
              message([] { Ref<CharBuffer> b(new FixedCharBuffer(3, 4)); }));
    Ref<FixedCharBuffer> fixed(new FixedCharBuffer(4, 0));
    EXPECT_THROW(fixed->Write(CharBuffer::WriteFunction()), boost::bad_function_call);
}

// ---- asynchronous drain ----

namespace {

// Writes each segment on the pool's thread, into `sink`, failing the segment
// that starts at byte `failAt` of the sink.
struct PoolWriter {
    OneThreadPool* pool;
    std::string* sink;
    std::size_t failAt = std::string::npos;
    std::thread::id* writerThread = nullptr;

    void operator()(const char* data, int len, const CharBuffer::Callback& done) const {
        const PoolWriter self = *this;
        const std::string bytes(data, len);
        pool->QueueWorkItem(
            [self, bytes, done]() {
                if (self.writerThread) *self.writerThread = std::this_thread::get_id();
                if (self.sink->size() == self.failAt) {
                    IOException failure("write failed half-way");
                    done(nullptr, &failure);
                    return;
                }
                self.sink->append(bytes);
                done(nullptr, nullptr);
            },
            System::ThreadPool::WORK_IO);
    }
};

struct Outcome {
    std::promise<std::string> result;
    CharBuffer::Callback Callback() {
        return [this](System::Stream* stream, Exception* e) {
            EXPECT_EQ(nullptr, stream);
            result.set_value(e ? e->what() : "ok");
        };
    }
};

} // namespace

TEST(CharBufferAsync, DynamicWritesEverySegmentFromThePool) {
    Ref<OneThreadPool> pool(new OneThreadPool);
    Ref<DynamicCharBuffer> b(new DynamicCharBuffer(8, 4, pool.Get()));
    const std::string data = Letters(30);
    b->Append(data.data(), data.size());
    b->Prepend("HEAD", 4);
    b->Flip();
    std::string sink;
    std::thread::id writerThread;
    Outcome outcome;
    auto future = outcome.result.get_future();
    b->AsyncWrite(PoolWriter{pool.Get(), &sink, std::string::npos, &writerThread},
                  outcome.Callback());
    EXPECT_EQ("ok", future.get());
    EXPECT_EQ("HEAD" + data, sink);
    EXPECT_NE(std::this_thread::get_id(), writerThread);
    EXPECT_EQ(34u, b->Position());
    EXPECT_EQ(34u, b->PrependPosition());
}

TEST(CharBufferAsync, FailureHalfWayKeepsTheUnwrittenBytes) {
    Ref<OneThreadPool> pool(new OneThreadPool);
    Ref<DynamicCharBuffer> b(new DynamicCharBuffer(8, 0, pool.Get()));
    const std::string data = Letters(20);
    b->Append(data.data(), data.size());
    b->Flip();
    std::string sink;
    Outcome failed;
    auto future = failed.result.get_future();
    b->AsyncWrite(PoolWriter{pool.Get(), &sink, 8}, failed.Callback());
    EXPECT_EQ("write failed half-way", future.get());
    EXPECT_EQ(data.substr(0, 8), sink);
    EXPECT_EQ(8u, b->Position());
    EXPECT_EQ(20u, b->Limit());
    // The rest goes out with the next write.
    Outcome retried;
    auto again = retried.result.get_future();
    b->AsyncWrite(PoolWriter{pool.Get(), &sink}, retried.Callback());
    EXPECT_EQ("ok", again.get());
    EXPECT_EQ(data, sink);

    // The fixed buffer keeps its cursors on failure and moves them on success.
    Ref<FixedCharBuffer> f(new FixedCharBuffer(16, 2));
    f->Append("payload", 7);
    f->Flip();
    std::string fixedSink;
    Outcome fixedFailed;
    auto fixedFuture = fixedFailed.result.get_future();
    f->AsyncWrite(PoolWriter{pool.Get(), &fixedSink, 0}, fixedFailed.Callback());
    EXPECT_EQ("write failed half-way", fixedFuture.get());
    EXPECT_EQ(2u, f->Position());
    Outcome fixedOk;
    auto fixedDone = fixedOk.result.get_future();
    f->AsyncWrite(PoolWriter{pool.Get(), &fixedSink}, fixedOk.Callback());
    EXPECT_EQ("ok", fixedDone.get());
    EXPECT_EQ("payload", fixedSink);
    EXPECT_EQ(9u, f->Position());
    EXPECT_EQ(9u, f->PrependPosition());
}

TEST(CharBufferAsync, NothingToWriteCompletesAfterAsyncWriteReturns) {
    Ref<OneThreadPool> pool(new OneThreadPool);
    Ref<DynamicCharBuffer> b(new DynamicCharBuffer(8, 0, pool.Get()));
    b->Flip();
    auto never = [](const char*, int, const CharBuffer::Callback&) { ADD_FAILURE(); };
    // Started by a handler on the pool, as writes usually are: the callback
    // waits until that handler has returned.
    bool inside = false;
    std::promise<bool> ranInside;
    pool->QueueWorkItem(
        [&] {
            inside = true;
            b->AsyncWrite(never, [&](System::Stream*, Exception* e) {
                EXPECT_EQ(nullptr, e);
                ranInside.set_value(inside);
            });
            inside = false;
        },
        System::ThreadPool::WORK_TASK);
    EXPECT_FALSE(ranInside.get_future().get());
    // Started elsewhere: the callback runs on the pool, never on the caller's
    // stack.
    std::promise<std::thread::id> ranOn;
    b->AsyncWrite(
        never, [&](System::Stream*, Exception*) { ranOn.set_value(std::this_thread::get_id()); });
    EXPECT_NE(std::this_thread::get_id(), ranOn.get_future().get());
    EXPECT_EQ(2, pool->Defers());

    // Without a pool of its own, the process-wide pool runs it.
    Ref<DynamicCharBuffer> plain(new DynamicCharBuffer(8, 0));
    plain->Flip();
    std::promise<bool> onPool;
    plain->AsyncWrite(never, [&](System::Stream*, Exception* e) {
        EXPECT_EQ(nullptr, e);
        onPool.set_value(System::IsEnlisted());
    });
    EXPECT_TRUE(onPool.get_future().get());
}

TEST(CharBufferAsync, CallbackMayStartTheNextWrite) {
    // A writer that completes inside its own call: one nested call per segment.
    auto inline_ = [](const char*, int, const CharBuffer::Callback& done) {
        done(nullptr, nullptr);
    };
    Ref<FixedCharBuffer> f(new FixedCharBuffer(8, 0));
    int rounds = 0;
    CharBuffer::Callback again;
    again = [&](System::Stream*, Exception* e) {
        EXPECT_EQ(nullptr, e);
        if (++rounds < 3) {
            f->Clear();
            f->Append("x", 1);
            f->Flip();
            f->AsyncWrite(inline_, again);
        }
    };
    f->Append("x", 1);
    f->Flip();
    f->AsyncWrite(inline_, again);
    EXPECT_EQ(3, rounds);
    EXPECT_EQ(1u, f->Position());

    // A writer that refuses at once leaves nothing pending behind.
    auto refuse = [](const char*, int, const CharBuffer::Callback&) {
        throw IOException("refused");
    };
    Ref<DynamicCharBuffer> d(new DynamicCharBuffer(8, 0));
    d->Append("abc", 3);
    d->Flip();
    EXPECT_THROW(d->AsyncWrite(refuse, again), IOException);
    EXPECT_THROW(f->AsyncWrite(refuse, again), IOException);
    std::string written;
    d->AsyncWrite(
        [&](const char* data, int len, const CharBuffer::Callback& done) {
            written.append(data, len);
            done(nullptr, nullptr);
        },
        [](System::Stream*, Exception* e) { EXPECT_EQ(nullptr, e); });
    EXPECT_EQ("abc", written);
}

TEST(CharBufferDeathTest, AsyncWritePreconditionsStop) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto report = [](const char* condition, const char* source) {
        return SyncTest::AssertionReport(condition, source);
    };
    auto pending = [](const char*, int, const CharBuffer::Callback&) {}; // never completes
    auto callback = [](System::Stream*, Exception*) {};
    EXPECT_DEATH(
        {
            Ref<DynamicCharBuffer> b(new DynamicCharBuffer(8, 0));
            b->AsyncWrite(CharBuffer::AsyncWriteFunction(), callback);
        },
        report("fun != 0", "http/DynamicCharBuffer"));
    EXPECT_DEATH(
        {
            Ref<FixedCharBuffer> b(new FixedCharBuffer(8, 0));
            b->Append("a", 1);
            b->Flip();
            b->AsyncWrite(pending, callback);
            b->AsyncWrite(pending, callback);
        },
        report("_callback.IsNull()", "http/FixedCharBuffer"));
    EXPECT_DEATH(
        {
            Ref<DynamicCharBuffer> b(new DynamicCharBuffer(8, 0));
            b->Append("a", 1);
            b->Flip();
            b->AsyncWrite(pending, callback);
            b->AsyncWrite(pending, callback);
        },
        report("_callback.IsNull()", "http/DynamicCharBuffer"));
}
