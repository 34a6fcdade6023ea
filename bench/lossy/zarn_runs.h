// One ZarnRtc call of the lossy benchmark: the door is a zarnrtc-phone process, the
// monitor this program's own SDK engine, which reads every frame's stamp at its sink.
#ifndef ZARNRTC_BENCH_LOSSY_ZARN_H
#define ZARNRTC_BENCH_LOSSY_ZARN_H

#include <memory>
#include <string>

#include "lossy_figures.h"
#include "lossy_net.h"
#include "sdk_pair.h"
#include "stats.h"

namespace bench {

// What the door and the monitor are set to use: a video codec, plain RTP or
// DTLS-SRTP. Both ends get the same settings, so the call cannot settle on another.
struct Variant {
    std::string codec = "H264";
    bool dtls = false;
    std::string label() const { return "ZarnRtc " + codec + (dtls ? " DTLS-SRTP" : ""); }
};

struct ZarnRun {
    Variant variant;
    bool ok = false;
    std::string error;
    std::string note;  // measured, but worth saying (ended early, no stamp, ...)
    double callS = -1;
    bool stamped = true;  // the door draws the stamped picture
    int frames = 0, clean = 0, damaged = 0, unreadable = 0;
    double videoStartMs = -1;
    bench::Freeze freeze;
    bench::Samples g2g;
    int badStamps = 0;  // a stamp read with an impossible time (a check that passed by chance)
    bench::SideStats monitor, door;
    Datagrams udp;
    int doorExit = 0;
    // What the monitor's engine says it got: the codec of its first video packet, and
    // whether DTLS gave the keys (the variant asked for, checked).
    std::string videoCodec;
    bool dtls = false;
    double doorCpuPct = -1, monitorCpuPct = -1;  // of one core, answer to hang-up
    double scoringCpuPct = -1;  // the benchmark's stamp check, left out of monitorCpuPct
};

class Monitor {
  public:
    bool start(const std::string& domain) {
        handler_.reset(new bench::Handler(bench::kMonitor, events));
        engine = static_cast<zarnrtc::ZarnRtcImpl*>(zarnrtc::ZarnRtc::createZarnRtcEngine());
        engine->setZarnRtcEvent(handler_.get());
        if (engine->registerAccount(domain.c_str(), "monitor", "monitor123", "Indoor monitor") <
            0) {
            std::fprintf(stderr, "bench_lossy: the SIP engine refused the monitor's account\n");
            return false;
        }
        const auto deadline = Clock::now() + std::chrono::seconds(10);
        while (Clock::now() < deadline) {
            bench::Event e;
            if (!events.pop(e, std::chrono::milliseconds(50))) continue;
            if (e.kind == bench::Event::Registration && e.a == 1) return true;
            if (e.kind == bench::Event::Registration && e.a == 3) break;
        }
        std::fprintf(stderr, "bench_lossy: the monitor did not register\n");
        return false;
    }
    zarnrtc::ZarnRtcImpl* engine = nullptr;
    bench::EventQueue events;
    bench::StampSink sink;

  private:
    std::unique_ptr<bench::Handler> handler_;
};

// One call of `seconds` from the answer, the door `program`, both ends set to
// `variant`. `log`: the
// door's output; `frames`: one line per frame the monitor was shown.
ZarnRun runZarn(const std::string& program, int seconds, const Variant& variant, Monitor& monitor,
                const std::string& domain, const std::string& log, const std::string& frames);

}  // namespace bench

#endif
