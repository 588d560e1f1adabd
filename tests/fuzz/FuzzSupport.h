#pragma once

// What every fuzz target shares: the readers' debug lines and warnings
// would cost more than the reading and bury libFuzzer's own output.

#include <QtGlobal>

#include <cstdio>
#include <cstdlib>

// Set while the program loads, before libFuzzer's first input.
[[maybe_unused]] static const bool vlumFuzzQuiet = [] {
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
    return true;
}();

// A broken promise of the code under test: ends the run as a finding.
#define VLUM_FUZZ_CHECK(condition)                                                                                     \
    do {                                                                                                               \
        if (!(condition)) {                                                                                            \
            std::fprintf(stderr, "check failed: %s (%s:%d)\n", #condition, __FILE__, __LINE__);                      \
            std::abort();                                                                                              \
        }                                                                                                              \
    } while (false)
