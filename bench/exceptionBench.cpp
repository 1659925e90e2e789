// Throwing and catching an exception of the tree, which captures the stack of
// the thread that builds it, against std::runtime_error.
//
// The argument is how many extra frames lie below the function that catches:
// the throw unwinds only up to the handler, but the backtrace walks the stack
// to its root, so deeper stacks cost the tree more.

#include <tessera/exception.h>
#include <tessera/system/stacktrace.h>
#include <tessera/system/system.h>

#include <benchmark/benchmark.h>

#include <exception>
#include <stdexcept>
#include <string>

namespace TesseraBench {
namespace {

const std::string kMessage = "operation timed out";

[[gnu::noinline]] void ThrowTessera(const std::string& message) {
    throw Tessera::TimeoutException(message);
}

[[gnu::noinline]] void ThrowStd(const std::string& message) { throw std::runtime_error(message); }

// Throws from `thrower` and catches in the caller of the throwing function,
// `depth` frames above the benchmark body.
template <void (*thrower)(const std::string&)>
[[gnu::noinline]] int ThrowAndCatch(int depth) {
    if (depth > 0) {
        const int caught = ThrowAndCatch<thrower>(depth - 1);
        benchmark::DoNotOptimize(caught); // keeps the frame: no tail call
        return caught;
    }
    try {
        thrower(kMessage);
    } catch (const std::exception& e) {
        benchmark::DoNotOptimize(e.what());
        return 1;
    }
    return 0;
}

// How many frames the backtrace of an exception thrown at `depth` holds.
[[gnu::noinline]] int BacktraceFrames(int depth) {
    if (depth > 0) {
        const int frames = BacktraceFrames(depth - 1);
        benchmark::DoNotOptimize(frames);
        return frames;
    }
    try {
        ThrowTessera(kMessage);
    } catch (const Tessera::Exception& e) {
        return e.GetBacktrace()->GetStacktrace().GetNumStackFrames();
    }
    return 0;
}

void Throw_TesseraTimeout(benchmark::State& state) {
    const int depth = static_cast<int>(state.range(0));
    // Outside the timing: the system factory comes to exist, and the stack is measured.
    state.counters["frames"] = BacktraceFrames(depth);
    for (auto _ : state) {
        benchmark::DoNotOptimize(ThrowAndCatch<ThrowTessera>(depth));
    }
}

void Throw_StdRuntimeError(benchmark::State& state) {
    const int depth = static_cast<int>(state.range(0));
    for (auto _ : state) {
        benchmark::DoNotOptimize(ThrowAndCatch<ThrowStd>(depth));
    }
}

// ---- for the analysis: the parts of the cost ----

// Building and destroying the exception, not throwing it.
void Construct_TesseraTimeout(benchmark::State& state) {
    for (auto _ : state) {
        Tessera::TimeoutException e(kMessage);
        benchmark::DoNotOptimize(e);
    }
}

// As a stream builds its routine failures (a reset, a time-out).
void Construct_TesseraTimeoutWithoutBacktrace(benchmark::State& state) {
    for (auto _ : state) {
        Tessera::TimeoutException e(kMessage, Tessera::kWithoutBacktrace);
        benchmark::DoNotOptimize(e);
    }
}

void Construct_StdRuntimeError(benchmark::State& state) {
    for (auto _ : state) {
        std::runtime_error e(kMessage);
        benchmark::DoNotOptimize(e);
    }
}

// The stack capture alone, as the exception's backtrace does it.
void Capture_Stacktrace(benchmark::State& state) {
    int frames = 0;
    for (auto _ : state) {
        Tessera::System::Stacktrace trace;
        trace.Capture();
        benchmark::DoNotOptimize(trace);
        frames = trace.GetNumStackFrames();
    }
    state.counters["frames"] = frames;
}

BENCHMARK(Throw_TesseraTimeout)->Arg(0)->Arg(32);
BENCHMARK(Throw_StdRuntimeError)->Arg(0)->Arg(32);
BENCHMARK(Construct_TesseraTimeout);
BENCHMARK(Construct_TesseraTimeoutWithoutBacktrace);
BENCHMARK(Construct_StdRuntimeError);
BENCHMARK(Capture_Stacktrace);

} // namespace
} // namespace TesseraBench
