// Message formatting: one log-style message with an int, a double and a
// std::string, built as a std::string by MessageFormatter::ASPrint and by its
// peers: fmt::format, snprintf into a buffer then a std::string,
// std::ostringstream and Poco::format.
//
// Every peer produces the same text, "Request 48213 took 3.14159 ms from
// 10.20.30.40:52344"; the first run of each checks it and stops the benchmark
// with an error if it differs. The double prints as "%g" (six significant
// digits) with the library, snprintf and ostringstream, as the shortest exact
// text with fmt, and as "%.5f" with Poco, whose format has no "%g"; for this
// value all are the same.
//
// Two more rows show the library without the string: Print into a counting
// writer (no allocation at all) and into a reused string writer.

#include <tessera/formatter.h>
#include <tessera/writer.h>

#include <Poco/Format.h>
#include <benchmark/benchmark.h>
#include <fmt/format.h>

#include <cstdio>
#include <sstream>
#include <string>

namespace {

using Tessera::MessageFormatter;

const char kExpected[] = "Request 48213 took 3.14159 ms from 10.20.30.40:52344";

struct Inputs {
    int id = 48213;
    double elapsed = 3.14159;
    std::string peer = "10.20.30.40:52344";
};

// False (and the benchmark marked as failed) when `text` is not the expected one.
bool Check(benchmark::State& state, const std::string& text) {
    if (text != kExpected) {
        state.SkipWithError(("wrong text: " + text).c_str());
        return false;
    }
    return true;
}

void Message_TesseraASPrint(benchmark::State& state) {
    Inputs in;
    if (!Check(state, MessageFormatter::ASPrint("Request %1 took %2 ms from %3", in.id, in.elapsed,
                                                in.peer))) {
        return;
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(in);
        std::string text =
            MessageFormatter::ASPrint("Request %1 took %2 ms from %3", in.id, in.elapsed, in.peer);
        benchmark::DoNotOptimize(text);
    }
}

void Message_FmtFormat(benchmark::State& state) {
    Inputs in;
    if (!Check(state, fmt::format("Request {} took {} ms from {}", in.id, in.elapsed, in.peer))) {
        return;
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(in);
        std::string text = fmt::format("Request {} took {} ms from {}", in.id, in.elapsed, in.peer);
        benchmark::DoNotOptimize(text);
    }
}

std::string Snprintf(const Inputs& in) {
    char buffer[256];
    const int n = std::snprintf(buffer, sizeof(buffer), "Request %d took %g ms from %s", in.id,
                                in.elapsed, in.peer.c_str());
    return std::string(buffer, n < 0 ? 0 : static_cast<std::size_t>(n));
}

void Message_Snprintf(benchmark::State& state) {
    Inputs in;
    if (!Check(state, Snprintf(in))) {
        return;
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(in);
        std::string text = Snprintf(in);
        benchmark::DoNotOptimize(text);
    }
}

std::string Stream(const Inputs& in) {
    std::ostringstream out;
    out << "Request " << in.id << " took " << in.elapsed << " ms from " << in.peer;
    return out.str();
}

void Message_Ostringstream(benchmark::State& state) {
    Inputs in;
    if (!Check(state, Stream(in))) {
        return;
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(in);
        std::string text = Stream(in);
        benchmark::DoNotOptimize(text);
    }
}

void Message_PocoFormat(benchmark::State& state) {
    Inputs in;
    if (!Check(state,
               Poco::format("Request %d took %.5f ms from %s", in.id, in.elapsed, in.peer))) {
        return;
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(in);
        std::string text =
            Poco::format("Request %d took %.5f ms from %s", in.id, in.elapsed, in.peer);
        benchmark::DoNotOptimize(text);
    }
}

void Message_TesseraPrintCounting(benchmark::State& state) {
    Inputs in;
    Tessera::Ref<Tessera::CountingWriter> counting(new Tessera::CountingWriter);
    for (auto _ : state) {
        benchmark::DoNotOptimize(in);
        MessageFormatter::Print(counting.Get(), "Request %1 took %2 ms from %3", in.id, in.elapsed,
                                in.peer);
    }
    benchmark::DoNotOptimize(counting->GetCount());
}

void Message_TesseraPrintStringWriter(benchmark::State& state) {
    Inputs in;
    Tessera::Ref<Tessera::StringWriter> out;
    Tessera::CreateStringWriter(out, 128);
    for (auto _ : state) {
        benchmark::DoNotOptimize(in);
        MessageFormatter::Print(out.Get(), "Request %1 took %2 ms from %3", in.id, in.elapsed,
                                in.peer);
        std::string text = out->TakeString();
        benchmark::DoNotOptimize(text);
    }
}

} // namespace

BENCHMARK(Message_TesseraASPrint);
BENCHMARK(Message_FmtFormat);
BENCHMARK(Message_Snprintf);
BENCHMARK(Message_Ostringstream);
BENCHMARK(Message_PocoFormat);
BENCHMARK(Message_TesseraPrintCounting);
BENCHMARK(Message_TesseraPrintStringWriter);
