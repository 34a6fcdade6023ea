// Chromium talking to itself under the same loss (chromium_pair.js, run by node):
// its figures per codec, as the script's RESULT lines gave them.
#ifndef ZARNRTC_BENCH_LOSSY_CHROMIUM_H
#define ZARNRTC_BENCH_LOSSY_CHROMIUM_H

#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "lossy_net.h"

namespace bench {

struct ChromiumRun {
    std::string codec;
    bool ok = false;
    std::string why;
    std::map<std::string, std::string> f;
    double num(const char* key) const {
        auto it = f.find(key);
        return it == f.end() ? -1 : std::atof(it->second.c_str());
    }
};

// Runs `script` for H264 and VP8, `seconds` each, its output in `log`; stops it
// (SIGTERM, then SIGKILL) when it overruns. It dies with this process.
std::vector<ChromiumRun> runChromium(const std::string& script, int seconds, const std::string& log,
                                     std::string* version, Datagrams* udp);

}  // namespace bench

#endif
