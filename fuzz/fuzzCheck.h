// What the fuzz targets share: a check that stops the run with a report, so
// that libFuzzer keeps the input that broke it.
#pragma once

#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(condition)                                                              \
    do {                                                                                   \
        if (!(condition)) {                                                                \
            std::fprintf(stderr, "FUZZ CHECK FAILED: %s at %s:%d\n", #condition, __FILE__, \
                         __LINE__);                                                        \
            std::abort();                                                                  \
        }                                                                                  \
    } while (false)
