// Soak: consecutive calls between two SDK engines in one process, through Kamailio
// on loopback (call, answered, media until the first remote frame and at least
// 300 ms, hang-up, the callee's end). Prints resident memory and open descriptors
// after call 20 and after the last call, and the growth between them.
//   bench_soak [--calls N]   (default 200)
// Exit status 1 when calls failed; the growth itself is a figure, not a verdict.
#include <dirent.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "sdk_pair.h"

namespace {

long vmRssKb() {
    FILE* f = std::fopen("/proc/self/status", "r");
    if (!f) return -1;
    char line[256];
    long kb = -1;
    while (std::fgets(line, sizeof line, f)) {
        if (std::strncmp(line, "VmRSS:", 6) == 0) {
            kb = std::strtol(line + 6, nullptr, 10);
            break;
        }
    }
    std::fclose(f);
    return kb;
}

int openFds() {
    DIR* d = opendir("/proc/self/fd");
    if (!d) return -1;
    int n = 0;
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] != '.') ++n;
    }
    closedir(d);
    return n - 1;  // the directory stream itself
}

struct Sample {
    int call = 0;
    long rssKb = -1;
    int fds = -1;
};

}  // namespace

int main(int argc, char** argv) {
    int calls = 200;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--calls") && i + 1 < argc) {
            calls = std::atoi(argv[++i]);
        } else {
            std::fprintf(stderr, "usage: bench_soak [--calls N]\n");
            return 2;
        }
    }
    if (calls < 1 || calls > 100000) {
        std::fprintf(stderr, "bench_soak: --calls must be 1..100000\n");
        return 2;
    }
    const int early = calls >= 40 ? 20 : (calls + 1) / 2;

    bench::SdkPair pair;
    if (!pair.start()) {
        pair.stop();
        std::_Exit(1);
    }
#ifdef ZARNRTC_BENCH_FAKE_MEDIA
    std::printf("bench_soak: FAKE media engine (structure check only)\n");
#endif
    std::printf("bench_soak: %d calls door -> monitor through Kamailio %s\n", calls,
                pair.calleeUri().c_str());
    std::fflush(stdout);

    bench::CallPlan plan;
    plan.minMedia = std::chrono::milliseconds(300);
    Sample first, last;
    int failed = 0, consecutiveFailures = 0;
    const auto start = bench::Clock::now();
    for (int i = 1; i <= calls; ++i) {
        bench::CallResult r = bench::runCall(pair, plan);
        if (!r.ok) {
            ++failed;
            ++consecutiveFailures;
            std::printf("  call %d FAILED: %s\n", i, r.error.c_str());
        } else {
            consecutiveFailures = 0;
        }
        // Let the caller's media close (released when the SIP engine confirms the end)
        // so a sample sees a quiet process.
        bench::Event e;
        const auto until = bench::Clock::now() + std::chrono::milliseconds(100);
        while (bench::Clock::now() < until) pair.events.pop(e, std::chrono::milliseconds(20));

        if (i == early || i == calls) {
            Sample s{i, vmRssKb(), openFds()};
            (i == early ? first : last) = s;
            std::printf("  after call %d: VmRSS %ld kB, open fds %d\n", s.call, s.rssKb, s.fds);
        } else if (i % 20 == 0) {
            std::printf("  call %d: %ld kB, %d fds\n", i, vmRssKb(), openFds());
        }
        std::fflush(stdout);
        if (consecutiveFailures >= 5) {
            std::printf("  stopping: 5 calls in a row failed\n");
            last = Sample{i, vmRssKb(), openFds()};
            break;
        }
    }
    const double seconds = bench::msBetween(start, bench::Clock::now()) / 1000;

    std::printf("ZarnRtc soak: %d calls in %.0f s, %d failed\n", last.call, seconds, failed);
    if (last.call > first.call) {
        std::printf(
            "  VmRSS   after call %d: %ld kB, after call %d: %ld kB, growth %+ld kB "
            "(%+.1f kB per call)\n",
            first.call, first.rssKb, last.call, last.rssKb, last.rssKb - first.rssKb,
            double(last.rssKb - first.rssKb) / (last.call - first.call));
        std::printf("  open fds after call %d: %d, after call %d: %d, growth %+d\n", first.call,
                    first.fds, last.call, last.fds, last.fds - first.fds);
    }
    std::printf(
        "RESULT calls=%d failed=%d rss_kb_early=%ld rss_kb_late=%ld fds_early=%d "
        "fds_late=%d\n",
        last.call, failed, first.rssKb, last.rssKb, first.fds, last.fds);
    std::fflush(stdout);
    pair.stop();
    std::_Exit(failed ? 1 : 0);
}
