// Media on a lossy network: a door calls a monitor through Kamailio while nftables
// drops a share of every UDP datagram, and Chromium talking to itself under the same
// loss, side by side. Everything runs in this process's private network namespace
// (bench/lossy/run.sh starts it under `unshare -n`); it refuses to touch a namespace
// that has more than loopback.
//   bench_lossy --phone PATH [--rates 0,2,5,10,20] [--seconds 15]
//               [--variants H264,VP8,H264/dtls,VP8/dtls] [--max-damaged N]
//               [--chromium SCRIPT] [--logs DIR]
// The door is a zarnrtc-phone process showing the stamped test picture and sending
// clicks; the monitor is this program's own SDK engine, which answers and reads every
// frame's stamp at its VideoSink (engines/media/stamp.h). Per rate: one call of
// --seconds from the answer per variant (codec, plain RTP or DTLS-SRTP), then Chromium
// (chromium_pair.js: H264, then VP8). Prints a table and "RESULT ..." lines; a run that
// fails (no call, not answered, a process that died, Chromium that did not run) is
// left out and makes the exit status 1; more damaged frames shown than --max-damaged
// makes it 3.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "callparams.h"
#include "engine_link.h"
#include "lossy_report.h"
#include "lossy_net.h"
#include "phones.h"
#include "proc_usage.h"
#include "sdk_pair.h"
#include "settings_scope.h"
#include "stamp.h"
#include "stats.h"

namespace {

using bench::ChromiumRun;
using bench::Clock;
using bench::Datagrams;
using bench::kRowFormat;
using bench::lossText;
using bench::Monitor;
using bench::notPrivate;
using bench::num;
using bench::printResults;
using bench::printRows;
using bench::Rate;
using bench::readFile;
using bench::runZarn;
using bench::setLoss;
using bench::takeCounters;
using bench::Variant;
using bench::ZarnRun;

bool parseVariants(const std::string& text, std::vector<Variant>& out) {
    out.clear();
    std::stringstream in(text);
    std::string item;
    while (std::getline(in, item, ',')) {
        Variant v;
        const size_t slash = item.find('/');
        v.codec = item.substr(0, slash);
        if (slash != std::string::npos) {
            if (item.substr(slash + 1) != "dtls") return false;
            v.dtls = true;
        }
        if (v.codec != "H264" && v.codec != "VP8") return false;
        out.push_back(v);
    }
    return !out.empty();
}

struct Options {
    std::string phone;
    std::vector<double> rates = {0, 2, 5, 10, 20};  // percent of UDP datagrams dropped
    std::vector<Variant> variants = {
        {"H264", false}, {"VP8", false}, {"H264", true}, {"VP8", true}};
    int seconds = 15;
    int maxDamaged = -1;   // exit status 3 when a call showed more damaged frames; -1: no limit
    std::string chromium;  // chromium_pair.js; empty: no Chromium rows
    std::string logs;      // empty: a temporary folder, removed at the end
};

void usage() {
    std::fprintf(stderr,
                 "usage: bench_lossy --phone PATH [--rates 0,2,5,10,20] [--seconds 15] "
                 "[--variants H264,VP8,H264/dtls,VP8/dtls] [--max-damaged N] "
                 "[--chromium chromium_pair.js] [--logs DIR]\n");
}

bool parseRates(const std::string& text, std::vector<double>& out) {
    out.clear();
    std::stringstream in(text);
    std::string item;
    while (std::getline(in, item, ',')) {
        char* end = nullptr;
        double v = std::strtod(item.c_str(), &end);
        if (item.empty() || *end || !(v >= 0 && v <= 100)) return false;
        out.push_back(v);
    }
    return !out.empty();
}

bool parseOptions(int argc, char** argv, Options& o) {
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (i + 1 >= argc) return false;
        std::string v = argv[++i];
        if (a == "--phone") {
            o.phone = v;
        } else if (a == "--rates") {
            if (!parseRates(v, o.rates)) return false;
        } else if (a == "--seconds") {
            o.seconds = std::atoi(v.c_str());
        } else if (a == "--variants") {
            if (!parseVariants(v, o.variants)) return false;
        } else if (a == "--max-damaged") {
            o.maxDamaged = std::atoi(v.c_str());
        } else if (a == "--chromium") {
            o.chromium = v;
        } else if (a == "--logs") {
            o.logs = v;
        } else {
            return false;
        }
    }
    return !o.phone.empty() && o.seconds >= 2 && o.seconds <= 600;
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    if (!parseOptions(argc, argv, o)) {
        usage();
        return 2;
    }
    const std::string why = notPrivate();
    if (!why.empty()) {
        std::fprintf(stderr, "bench_lossy: %s\n", why.c_str());
        return 2;
    }
    // Ours alone: loopback may be brought up (unshare -n leaves it down).
    siptest::runCommand("ip link set lo up");
    if (access(o.phone.c_str(), X_OK) != 0) {
        std::fprintf(stderr, "bench_lossy: %s is not an executable\n", o.phone.c_str());
        return 2;
    }
    bool keepLogs = !o.logs.empty();
    if (o.logs.empty()) {
        char dir[] = "/tmp/zarnrtc-lossy-XXXXXX";
        if (!mkdtemp(dir)) return 1;
        o.logs = dir;
    } else {
        mkdir(o.logs.c_str(), 0755);
    }
    if (const char* keep = std::getenv("ZARNRTC_BENCH_KEEP_LOGS")) keepLogs = keepLogs || *keep;

    // The monitor's engine keeps its marks: its statistics come as timeline marks.
    zarnrtc::testing::editSettings<zarnrtc::testing::LinkSettings>(
        [](auto& s) { s.timeline = zarnrtc::settings::Timeline::kKeep; });
    zarnrtc::testing::editSettings<zarnrtc::testing::MediaSettings>([](auto& s) {
        s.addresses = {"127.0.0.1"};
        s.audioOutput = zarnrtc::settings::AudioOutput::kNone;
        // Clicks both ways: the monitor's engine reports when it hears the door's.
        s.audioInput = zarnrtc::settings::AudioInput::kClicks;
        // The monitor's stand-in camera as the door's: videotestsrc's default ball
        // alone costs about 3 % of a core to draw, a camera's cost, not the engine's.
        s.testPattern = "stamp";
    });
    zarnrtc::testing::bindSipToLoopback();

    if (!setLoss(0)) {
        std::fprintf(stderr, "bench_lossy: nft failed (Debian package nftables)\n");
        return 1;
    }
    siptest::KamailioServer server;
    if (!siptest::KamailioServer::installed() || !server.start()) {
        std::fprintf(stderr, "bench_lossy: kamailio did not start\n");
        return 1;
    }
    const std::string domain = server.address();
    Monitor monitor;
    if (!monitor.start(domain)) {
        server.stop();
        std::_Exit(1);
    }

    zarnrtc::CallParams params;
    const int expected = o.seconds * params.getVideoFps();
    std::string chromiumVersion = o.chromium.empty() ? "" : "?";
    std::printf("bench_lossy: %zu rates, %d s per call, logs in %s\n", o.rates.size(), o.seconds,
                o.logs.c_str());
    std::fflush(stdout);

    std::vector<Rate> rates;
    int failed = 0, damagedRuns = 0;
    for (double percent : o.rates) {
        Rate rate;
        rate.percent = percent;
        // A rate given twice keeps both runs' logs: "10", then "10-2".
        char tag[48];
        const long seen = std::count(o.rates.begin(), o.rates.begin() + rates.size(), percent);
        if (seen)
            std::snprintf(tag, sizeof tag, "%g-%ld", percent, seen + 1);
        else
            std::snprintf(tag, sizeof tag, "%g", percent);
        if (!setLoss(percent)) {
            std::fprintf(stderr, "bench_lossy: nft could not set %g %% loss\n", percent);
            failed++;
            break;
        }
        for (const Variant& v : o.variants) {
            std::string name = std::string(tag) + "-" + v.codec + (v.dtls ? "-dtls" : "");
            ZarnRun z =
                runZarn(o.phone, o.seconds, v, monitor, domain, o.logs + "/door-" + name + ".log",
                        o.logs + "/frames-" + name + ".txt");
            failed += z.ok ? 0 : 1;
            if (z.ok && o.maxDamaged >= 0 && z.damaged > o.maxDamaged) damagedRuns++;
            std::printf("  %g %%: %s %s%s%s (UDP dropped: %s)\n", percent, v.label().c_str(),
                        z.ok ? "measured" : "FAILED: ", z.ok ? "" : z.error.c_str(),
                        z.note.empty() ? "" : (", " + z.note).c_str(), lossText(z.udp).c_str());
            std::fflush(stdout);
            rate.zarn.push_back(std::move(z));
        }
        if (!o.chromium.empty()) {
            rate.chromium =
                bench::runChromium(o.chromium, o.seconds, o.logs + "/chromium-" + tag + ".log",
                                   &chromiumVersion, &rate.chromiumUdp);
            for (const ChromiumRun& c : rate.chromium) {
                failed += c.ok ? 0 : 1;
                std::printf("  %g %%: Chromium %s %s%s\n", percent, c.codec.c_str(),
                            c.ok ? "measured" : "FAILED: ", c.ok ? "" : c.why.c_str());
            }
            std::printf("  %g %%: Chromium, UDP dropped: %s\n", percent,
                        lossText(rate.chromiumUdp).c_str());
            std::fflush(stdout);
        }
        rates.push_back(rate);
    }
    setLoss(0);

    std::printf(
        "\nMedia under loss: nftables drops the given share of every UDP datagram (media, RTCP,\n"
        "ICE, DTLS) arriving in a private network namespace with loopback only; SIP runs over\n"
        "TCP and is not dropped. Each rate: one call of %d s per ZarnRtc row, then Chromium for\n"
        "%d s per codec.\n"
        "ZarnRtc: door (zarnrtc-phone, stamped test picture, clicks) -> monitor (this program's\n"
        "  SDK engine, the same stand-in camera and clicks) through Kamailio; %dx%d at %d fps + "
        "%s, ICE; the row's video codec, and\n"
        "  plain RTP (the SDK's default) or DTLS-SRTP, both ends set alike (the settings\n"
        "  ZARNRTC_MEDIA_VIDEO_CODECS and ZARNRTC_MEDIA_REQUIRE_ENCRYPTION) and checked in the\n"
        "  monitor's engine. Frames at the monitor's VideoSink: clean = stamp read and PSNR >= "
        "%.0f dB\n"
        "  against the picture its frame number must show; damaged = shown but not clean;\n"
        "  NACKs and PLIs sent by the monitor, key frames sent by the door (the engines'\n"
        "  statistics); glass-to-glass = arrival at the sink - capture time in the stamp;\n"
        "  mouth-to-ear = a click heard at the monitor - the time it was made; CPU: share of one\n"
        "  core, answer to hang-up, of the door process and of this process less the time its\n"
        "  threads spent checking stamps (the monitor's engine alone; the check's share is\n"
        "  printed as scoring_cpu_pct).\n"
        "Chromium%s%s: two RTCPeerConnections in one page, fake camera 640x480 at 15 fps +\n"
        "  fake microphone (opus), one way; getStats(): framesDecoded, totalFreezesDuration\n"
        "  (whole frozen intervals), nackCount and pliCount sent by the receiver,\n"
        "  keyFramesEncoded; glass-to-glass: requestVideoFrameCallback's presentationTime -\n"
        "  captureTime (the receiver's estimate of the capture time, to the compositor).\n"
        "Frozen: an interval over 3x the running average and over it + 150 ms; ZarnRtc sums the\n"
        "  excess over the average (RESULT frozen_whole_s: whole intervals, as Chromium).\n\n",
        o.seconds, o.seconds, params.getVideoWidth(), params.getVideoHeight(), params.getVideoFps(),
        params.getAudioCodec().c_str(), zarnrtc::stamp::kDamagedBelowDb,
        chromiumVersion.empty() ? "" : " ", chromiumVersion.c_str());
    std::printf(kRowFormat, "loss", "", "clean/expect", "damaged", "frozen s", "NACKs", "PLIs",
                "keyfr", "start ms", "g2g med/p95 ms", "m2e ms", "CPU d/m %");
    for (const Rate& rate : rates) printRows(rate, expected);
    if (!o.chromium.empty()) {
        std::printf(
            "\nChromium's delays (averages from getStats(), ms): jitter buffer "
            "(jitterBufferDelay/jitterBufferEmittedCount),\nprocessing from first packet "
            "to decoded (totalProcessingDelay/framesDecoded), encode, audio jitter buffer\n");
        for (const Rate& rate : rates)
            for (const ChromiumRun& c : rate.chromium)
                if (c.ok)
                    std::printf(
                        "  %4g %%  %-5s jitter buffer %s, processing %s, encode %s, audio "
                        "jitter buffer %s\n",
                        rate.percent, c.codec.c_str(), num(c.num("jitter_buffer_ms"), 1).c_str(),
                        num(c.num("processing_ms"), 1).c_str(), num(c.num("encode_ms"), 1).c_str(),
                        num(c.num("audio_jitter_buffer_ms"), 1).c_str());
    }
    std::printf("\n");
    for (const Rate& rate : rates) printResults(rate, expected);
    std::printf("RESULT failed=%d damaged_runs=%d\n", failed, damagedRuns);
    if (damagedRuns)
        std::fprintf(stderr, "bench_lossy: %d call(s) showed more than %d damaged frames\n",
                     damagedRuns, o.maxDamaged);
    std::fflush(stdout);

    server.stop();
    if (!keepLogs) siptest::runCommand("rm -rf '" + o.logs + "'");
    if (!server.runDir().empty() && !std::getenv("ZARNRTC_TEST_KEEP_LOGS"))
        siptest::runCommand("rm -rf '" + server.runDir() + "'");
    // The SDK's engine lives as long as the process.
    std::_Exit(failed ? 1 : damagedRuns ? 3 : 0);
}
