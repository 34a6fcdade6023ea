// The lossy benchmark's output: a table row per run and the RESULT lines.
#ifndef ZARNRTC_BENCH_LOSSY_REPORT_H
#define ZARNRTC_BENCH_LOSSY_REPORT_H

#include <string>
#include <vector>

#include "chromium_runs.h"
#include "zarn_runs.h"

namespace bench {

struct Rate {
    double percent;
    std::vector<ZarnRun> zarn;  // one per variant
    std::vector<ChromiumRun> chromium;
    Datagrams chromiumUdp;
};

extern const char* kRowFormat;

// "n/a" for a negative or unknown figure.
std::string num(double v, int decimals = 0);
void printRows(const Rate& rate, int expected);
void printResults(const Rate& rate, int expected);

}  // namespace bench

#endif
