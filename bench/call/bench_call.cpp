// Call set-up between two SDK engines in one process, through Kamailio on loopback:
// from call() to the INVITE at the callee, to answered (6) at the caller, and to the
// first remote frame in the caller's VideoSink. Prints the median of N calls.
//   bench_call [--calls N]
// The last line ("RESULT ...") is for bench/call/run.sh. Exit status 1 when a call
// could not be measured; the figures themselves never fail the run.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "sdk_pair.h"

namespace {

constexpr double kAnsweredTargetMs = 300;
constexpr double kFrameTargetMs = 1000;

double median(std::vector<double> v) {
    if (v.empty()) return -1;
    std::sort(v.begin(), v.end());
    return v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
}

void row(const char* what, const std::vector<double>& v, double target) {
    if (v.empty()) {
        std::printf("  %-40s %10s\n", what, "n/a");
        return;
    }
    double med = median(v);
    std::printf("  %-40s %8.1f ms  (min %.1f, max %.1f, n=%zu)", what, med,
                *std::min_element(v.begin(), v.end()), *std::max_element(v.begin(), v.end()),
                v.size());
    if (target > 0) std::printf("  target < %.0f ms: %s", target, med < target ? "met" : "MISSED");
    std::printf("\n");
}

}  // namespace

int main(int argc, char** argv) {
    int calls = 5;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--calls") && i + 1 < argc) {
            calls = std::atoi(argv[++i]);
        } else {
            std::fprintf(stderr, "usage: bench_call [--calls N]\n");
            return 2;
        }
    }
    if (calls < 1 || calls > 1000) {
        std::fprintf(stderr, "bench_call: --calls must be 1..1000\n");
        return 2;
    }

    bench::SdkPair pair;
    if (!pair.start()) {
        pair.stop();
        std::_Exit(1);
    }
#ifdef ZARNRTC_BENCH_FAKE_MEDIA
    std::printf("bench_call: FAKE media engine (structure check only, not a measurement)\n");
#endif
    std::printf("bench_call: door -> monitor through Kamailio %s, %d calls\n",
                pair.calleeUri().c_str(), calls);

    bench::CallPlan plan;
    std::vector<double> invite, answered, frame;
    int failed = 0;
    for (int i = 0; i < calls; ++i) {
        bench::CallResult r = bench::runCall(pair, plan);
        std::printf(
            "  call %d: INVITE at callee %.1f ms, answered %.1f ms, remote video ready "
            "%.1f ms, first remote frame %.1f ms (%ld frames)%s%s\n",
            i + 1, r.inviteMs, r.answeredMs, r.remoteVideoMs, r.firstFrameMs, r.remoteFrames,
            r.error.empty() ? "" : "  FAILED: ", r.error.c_str());
        std::fflush(stdout);
        if (r.inviteMs >= 0) invite.push_back(r.inviteMs);
        if (r.answeredMs >= 0) answered.push_back(r.answeredMs);
        if (r.firstFrameMs >= 0) frame.push_back(r.firstFrameMs);
        if (!r.ok) ++failed;
        // Let the caller's media finish closing before the next call.
        bench::Event e;
        auto until = bench::Clock::now() + std::chrono::milliseconds(200);
        while (bench::Clock::now() < until) pair.events.pop(e, std::chrono::milliseconds(20));
    }

    std::printf("ZarnRtc call set-up, median of %d (from call()):\n", calls);
    row("INVITE at callee (through Kamailio)", invite, 0);
    row("answered (6) at caller", answered, kAnsweredTargetMs);
    row("first remote frame at caller's sink", frame, kFrameTargetMs);
    std::printf("RESULT invite_ms=%.1f answered_ms=%.1f frame_ms=%.1f failed=%d\n", median(invite),
                median(answered), median(frame), failed);
    std::fflush(stdout);
    pair.stop();
    std::_Exit(failed ? 1 : 0);
}
