// Call set-up between two SDK engines in one process, through Kamailio on loopback:
// from call() to the INVITE at the callee, to answered (6) at the caller, and to the
// first remote frame in the caller's VideoSink. Prints the median of N calls.
//   bench_call [--calls N] [--fallback]
// --fallback: the monitor takes DTLS-SRTP only; Kamailio refuses the door's plain
// offers (RTP/AVPF, then RTP/AVP) with 488 and the door's SIP engine sends the call
// again in DTLS-SRTP: the set-up a browser gets.
// The "SETUP ..." line says what the calls carry and the last line ("RESULT ...")
// holds the medians; both are for bench/call/run.sh. A failed call is left out of
// every figure and makes the exit status 1; the figures themselves never fail.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "callparams.h"
#include "sdk_pair.h"
#include "settings_scope.h"
#include "stats.h"
#include "timeline.h"

namespace {

constexpr double kAnsweredTargetMs = 300;
constexpr double kFrameTargetMs = 1000;

void row(const char* what, const bench::Samples& v, double target) {
    if (v.empty()) {
        std::printf("  %-40s %10s\n", what, "n/a");
        return;
    }
    double med = v.median();
    std::printf("  %-40s %8.1f ms  (min %.1f, max %.1f, n=%zu)", what, med, v.min(), v.max(),
                v.size());
    if (target > 0) std::printf("  target < %.0f ms: %s", target, med < target ? "met" : "MISSED");
    std::printf("\n");
}

}  // namespace

int main(int argc, char** argv) {
    int calls = 5;
    bool fallback = false;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--calls") && i + 1 < argc) {
            calls = std::atoi(argv[++i]);
        } else if (!std::strcmp(argv[i], "--fallback")) {
            fallback = true;
        } else {
            std::fprintf(stderr, "usage: bench_call [--calls N] [--fallback]\n");
            return 2;
        }
    }
    if (calls < 1 || calls > 1000) {
        std::fprintf(stderr, "bench_call: --calls must be 1..1000\n");
        return 2;
    }

    // The engines keep their set-up marks for the timeline table (read on first use),
    // unless the timeline was asked for otherwise.
    zarnrtc::testing::editSettings<zarnrtc::testing::LinkSettings>([](auto& s) {
        if (s.timeline == zarnrtc::settings::Timeline::kOff)
            s.timeline = zarnrtc::settings::Timeline::kKeep;
    });
    bench::SdkPair pair;
    if (!pair.start(fallback ? "secure" : "monitor")) {
        pair.stop();
        std::_Exit(1);
    }
#ifdef ZARNRTC_BENCH_FAKE_MEDIA
    std::printf("bench_call: FAKE media engine (structure check only, not a measurement)\n");
#endif
    std::printf("bench_call: door -> monitor through Kamailio %s, %d calls\n",
                pair.calleeUri().c_str(), calls);
    // What call() asks for (the SDK's default call parameters). The SDK gathers every
    // candidate before it sends the offer: no trickle ICE.
    zarnrtc::CallParams params;
    std::printf("SETUP video=%s size=%dx%d fps=%d audio=%s trickle=no media=%s\n",
                params.getVideoCodec().c_str(), params.getVideoWidth(), params.getVideoHeight(),
                params.getVideoFps(), params.getAudioCodec().c_str(),
                fallback ? "DTLS-SRTP-after-two-488" : "plain-RTP");

    bench::CallPlan plan;
    bench::Samples invite, answered, frame;
    bench::TimelineTable timeline;
    int failed = 0;
    for (int i = 0; i < calls; ++i) {
        bench::TimelineTable::discard();
        bench::CallResult r = bench::runCall(pair, plan);
        std::printf(
            "  call %d: INVITE at callee %.1f ms, answered %.1f ms, remote video ready "
            "%.1f ms, first remote frame %.1f ms (%ld frames)%s%s\n",
            i + 1, r.inviteMs, r.answeredMs, r.remoteVideoMs, r.firstFrameMs, r.remoteFrames,
            r.error.empty() ? "" : "  FAILED: ", r.error.c_str());
        std::fflush(stdout);
        if (r.ok) {
            invite.add(r.inviteMs);
            answered.add(r.answeredMs);
            frame.add(r.firstFrameMs);
            timeline.addCall(r.t0);
            timeline.addStep("door", "app: answered (6)", r.answeredMs);
            timeline.addStep("door", "app: first remote frame at the sink", r.firstFrameMs);
        } else {
            ++failed;
        }
        // Let the caller's media finish closing before the next call.
        bench::Event e;
        auto until = bench::Clock::now() + std::chrono::milliseconds(200);
        while (bench::Clock::now() < until) pair.events.pop(e, std::chrono::milliseconds(20));
    }

    timeline.print();
    std::printf(
        "ZarnRtc call set-up, median of the %d calls that worked (%d failed), from call():\n",
        calls - failed, failed);
    row("INVITE at callee (through Kamailio)", invite, 0);
    row("answered (6) at caller", answered, kAnsweredTargetMs);
    row("first remote frame at caller's sink", frame, kFrameTargetMs);
    std::printf("RESULT invite_ms=%.1f answered_ms=%.1f frame_ms=%.1f failed=%d\n", invite.median(),
                answered.median(), frame.median(), failed);
    std::fflush(stdout);
    pair.stop();
    std::_Exit(failed ? 1 : 0);
}
