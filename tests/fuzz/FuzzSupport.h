#pragma once
// Shared by the fuzz targets: quiet logging, and a check that stops the run.

#include <cstdio>
#include <cstdlib>

#include "platform/Logger.h"

// The logger rejects every line before formatting it: the targets exercise the
// text logic, not the logger.
#define SKORVA_FUZZ_QUIET                                                        \
    extern "C" int LLVMFuzzerInitialize(int*, char***) {                         \
        ::skorva::Logger::instance().setLevel(::skorva::LogLevel::Emerg);        \
        return 0;                                                                \
    }

// A property that failed: libFuzzer keeps the input as a crash.
#define FUZZ_CHECK(cond)                                                         \
    do {                                                                         \
        if (!(cond)) {                                                           \
            std::fprintf(stderr, "property failed: %s (%s:%d)\n", #cond, __FILE__, __LINE__); \
            std::abort();                                                        \
        }                                                                        \
    } while (0)
