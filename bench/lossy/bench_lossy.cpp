// Media on a lossy network: a door calls a monitor through Kamailio while nftables
// drops a share of every UDP datagram, and Chromium talking to itself under the same
// loss, side by side. Everything runs in this process's private network namespace
// (bench/lossy/run.sh starts it under `unshare -n`); it refuses to touch a namespace
// that has more than loopback.
//   bench_lossy --phone PATH [--rates 0,2,5,10,20] [--seconds 15] [--chromium SCRIPT]
//               [--logs DIR]
// The door is a zarnrtc-phone process showing the stamped test picture and sending
// clicks; the monitor is this program's own SDK engine, which answers and reads every
// frame's stamp at its VideoSink (engines/media/stamp.h). Per rate: one call of
// --seconds from the answer, then Chromium (chromium_pair.js: H264, then VP8).
// Prints a table and "RESULT ..." lines; a run that fails (no call, not answered, a
// process that died, Chromium that did not run) is left out and makes the exit
// status 1.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
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
#include "lossy_figures.h"
#include "phones.h"
#include "sdk_pair.h"
#include "settings_scope.h"
#include "stamp.h"
#include "stats.h"

namespace {

using bench::Clock;

struct Options {
    std::string phone;
    std::vector<double> rates = {0, 2, 5, 10, 20};  // percent of UDP datagrams dropped
    int seconds = 15;
    std::string chromium;  // chromium_pair.js; empty: no Chromium rows
    std::string logs;      // empty: a temporary folder, removed at the end
};

void usage() {
    std::fprintf(stderr,
                 "usage: bench_lossy --phone PATH [--rates 0,2,5,10,20] [--seconds 15] "
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

std::string readFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

// Output of a shell command (nft, chromium --version).
std::string capture(const std::string& command) {
    std::string out;
    if (FILE* p = popen(command.c_str(), "r")) {
        char buf[512];
        while (size_t n = fread(buf, 1, sizeof buf, p)) out.append(buf, n);
        pclose(p);
    }
    return out;
}

// ------------------------------------------------------------ the namespace --

// Loss is made with nftables, so this must be a namespace of our own: one with
// loopback only, not the machine's.
std::string notPrivate() {
    if (geteuid() != 0) return "needs root (nftables)";
    char self[64] = {}, init[64] = {};
    if (readlink("/proc/self/ns/net", self, sizeof self - 1) > 0 &&
        readlink("/proc/1/ns/net", init, sizeof init - 1) > 0 && !std::strcmp(self, init))
        return "runs in the machine's network namespace; start it with bench/lossy/run.sh "
               "(unshare -n)";
    std::ifstream dev("/proc/net/dev");
    std::string line;
    for (int n = 0; std::getline(dev, line); ++n) {
        if (n < 2) continue;  // headers
        std::string name = line.substr(0, line.find(':'));
        name.erase(0, name.find_first_not_of(' '));
        if (name != "lo")
            return "the network namespace has a device other than loopback (" + name + ")";
    }
    return "";
}

// Drops `percent` of every UDP datagram that arrives, counting all and the dropped.
bool setLoss(double percent) {
    siptest::runCommand("nft delete table inet lossy >/dev/null 2>&1");
    const int permille = int(std::lround(percent * 10));
    std::string rules =
        "nft add table inet lossy && "
        "nft add chain inet lossy in '{ type filter hook input priority 0; }' && "
        "nft add rule inet lossy in meta l4proto udp counter";
    if (permille > 0)
        rules += " && nft add rule inet lossy in meta l4proto udp numgen random mod 1000 '<' " +
                 std::to_string(permille) + " counter drop";
    return siptest::runCommand(rules) == 0;
}

// UDP datagrams seen and dropped since the last call (the counters are reset).
struct Datagrams {
    long seen = -1, dropped = 0;
};
Datagrams takeCounters() {
    Datagrams d;
    std::string text = capture("nft list chain inet lossy in 2>/dev/null");
    siptest::runCommand("nft reset counters table inet lossy >/dev/null 2>&1");
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        size_t at = line.find("counter packets ");
        if (at == std::string::npos) continue;
        long n = std::atol(line.c_str() + at + 16);
        if (line.find("drop") != std::string::npos)
            d.dropped = n;
        else
            d.seen = n;
    }
    return d;
}

// ------------------------------------------------------------------ ZarnRtc --

struct ZarnRun {
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
};

// The monitor's marks of this call: its statistics lines.
void drainMonitorStats(bench::SideStats& out) {
    zarn_timeline_drain(
        [](void* ctx, long long, unsigned long, const char* event) {
            bench::StatsLine line;
            if (event && bench::ParseStats(event, &line))
                static_cast<bench::SideStats*>(ctx)->add(line);
        },
        &out);
}

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

// `log`: the door's output; `frames`: one line per frame the monitor was shown.
ZarnRun runZarn(const Options& o, Monitor& monitor, const std::string& domain,
                const std::string& log, const std::string& frames) {
    ZarnRun r;
    zarn_timeline_drain(nullptr, nullptr);
    monitor.sink.take();
    takeCounters();

    bench::PhoneConfig door;
    door.program = o.phone;
    door.registrar = domain;
    door.user = "door";
    door.password = "door123";
    door.displayName = "Front door";
    door.callUri = "sip:monitor@" + domain;
    door.durationS = o.seconds;
    door.logPath = log;
    door.env = {"ZARNRTC_TEST_PATTERN=stamp", "ZARNRTC_AUDIO_INPUT=clicks", "ZARNRTC_TIMELINE=1"};
    bench::PhoneProcess phone;
    if (!phone.start(door)) {
        r.error = "cannot start " + o.phone;
        return r;
    }

    int callId = -1;
    Clock::time_point answeredAt{}, endedAt{};
    auto deadline = Clock::now() + std::chrono::seconds(20);
    while (endedAt == Clock::time_point{}) {
        bench::Event e;
        if (monitor.events.pop(e, std::chrono::milliseconds(20))) {
            if (e.kind == bench::Event::Incoming && callId < 0) {
                callId = e.id;
                monitor.engine->answer(callId);
                monitor.engine->setupRemoteVideo(callId, &monitor.sink);
                answeredAt = Clock::now();
                // The door hangs up after --seconds from its answered state.
                deadline = answeredAt + std::chrono::seconds(o.seconds + 30);
            } else if (e.kind == bench::Event::State && e.id == callId && e.a == zarnrtc::kHangup) {
                endedAt = e.at;
            }
            continue;
        }
        if (Clock::now() > deadline) {
            r.error = callId < 0 ? "no call arrived from the door" : "the call did not end";
            break;
        }
        if (!phone.running() && callId < 0) {
            r.error = "the door exited (status " + std::to_string(phone.exitCode()) +
                      ") before its call arrived";
            break;
        }
    }
    if (callId >= 0 && endedAt == Clock::time_point{}) monitor.engine->hangup(callId);
    for (int i = 0; i < 500 && phone.running(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const bool stillRunning = phone.running();
    phone.stop();
    r.doorExit = phone.exitCode();
    r.udp = takeCounters();
    if (r.error.empty() && stillRunning) r.error = "the door did not exit after its call";
    // 0: the call went as planned; 5: answered, but the door got no video (a figure of
    // the monitor's media, not a failed run). Anything else is a door that failed.
    if (r.error.empty() && r.doorExit != 0 && r.doorExit != 5)
        r.error = r.doorExit < 0 ? "the door died (signal " + std::to_string(-r.doorExit) + ")"
                                 : "the door exited with status " + std::to_string(r.doorExit);

    // Give the monitor's engine a moment to write its last statistics.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    drainMonitorStats(r.monitor);
    const std::string doorLog = readFile(log);
    std::istringstream lines(doorLog);
    std::string line;
    while (std::getline(lines, line)) {
        bench::StatsLine s;
        if (bench::ParseStats(line, &s)) r.door.add(s);
    }
    r.stamped = doorLog.find("ZARNRTC_TEST_PATTERN=\"stamp\"") == std::string::npos;
    if (!r.error.empty()) return r;

    r.ok = true;
    r.callS = bench::msBetween(answeredAt, endedAt) / 1000;
    if (r.callS < o.seconds - 1)
        r.note = "the call ended after " + std::to_string(int(r.callS)) + " s";
    const int64_t answeredUs =
        std::chrono::duration_cast<std::chrono::microseconds>(answeredAt.time_since_epoch())
            .count();
    const int64_t endedUs =
        std::chrono::duration_cast<std::chrono::microseconds>(endedAt.time_since_epoch()).count();
    std::vector<double> arrivals;
    FILE* list = std::fopen(frames.c_str(), "w");
    if (list) std::fprintf(list, "# ms from the answer, stamp read, frame, capture us, PSNR dB\n");
    for (const bench::FrameRecord& f : monitor.sink.take()) {
        ++r.frames;
        arrivals.push_back((f.arrivalUs - answeredUs) / 1000.0);
        if (list)
            std::fprintf(list, "%.1f %d %u %llu %.1f\n", arrivals.back(), f.readable ? 1 : 0,
                         f.frame, static_cast<unsigned long long>(f.captureUs), f.psnr);
        if (!f.readable) {
            ++r.unreadable;
            continue;
        }
        const double g2gMs = (f.arrivalUs - int64_t(f.captureUs)) / 1000.0;
        if (g2gMs < 0 || g2gMs > 10000) {
            ++r.badStamps;
            continue;
        }
        r.g2g.add(g2gMs);
        if (f.psnr >= zarnrtc::stamp::kDamagedBelowDb)
            ++r.clean;
        else
            ++r.damaged;
    }
    if (list) std::fclose(list);
    // Without the stamped picture nothing can be judged: no clean or damaged count.
    if (!r.stamped) {
        r.note += std::string(r.note.empty() ? "" : "; ") +
                  "the door has no stamped picture: stamps unreadable";
    } else {
        r.damaged += r.unreadable + r.badStamps;
    }
    if (!arrivals.empty()) {
        r.videoStartMs = arrivals.front();
        r.freeze = bench::FrozenTime(arrivals, (endedUs - answeredUs) / 1000.0, 1000.0 / 15);
    }
    return r;
}

// ----------------------------------------------------------------- Chromium --

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

// Runs chromium_pair.js for every codec; stops it (SIGTERM, then SIGKILL) when it
// overruns. It dies with this process.
std::vector<ChromiumRun> runChromium(const Options& o, const std::string& log, std::string* version,
                                     Datagrams* udp) {
    const char* codecs[] = {"H264", "VP8"};
    std::vector<ChromiumRun> runs;
    takeCounters();
    std::vector<std::string> args = {"node",     o.chromium, "--seconds", std::to_string(o.seconds),
                                     "--codecs", "H264,VP8"};
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    const pid_t parent = getpid();
    pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);  // node closes its Chromium on SIGTERM
        if (getppid() != parent) _exit(127);
        FILE* out = std::fopen(log.c_str(), "w");
        if (out) {
            dup2(fileno(out), 1);
            dup2(fileno(out), 2);
        }
        execvp("node", argv.data());
        _exit(127);
    }
    int status = 0;
    bool done = pid < 0;
    const auto deadline = Clock::now() + std::chrono::seconds(2 * o.seconds + 90);
    while (!done && Clock::now() < deadline) {
        if (waitpid(pid, &status, WNOHANG) == pid)
            done = true;
        else
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    if (!done) {
        kill(pid, SIGTERM);
        for (int i = 0; i < 100 && !done; ++i) {
            if (waitpid(pid, &status, WNOHANG) == pid)
                done = true;
            else
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        if (!done) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
        }
    }
    *udp = takeCounters();
    const std::string text = readFile(log);
    std::istringstream lines(text);
    std::string line;
    std::map<std::string, std::map<std::string, std::string>> byCodec;
    while (std::getline(lines, line)) {
        if (line.rfind("CHROMIUM ", 0) == 0) *version = line.substr(9);
        auto r = bench::ParseResult(line);
        if (r.count("codec")) byCodec[r["codec"]] = r;
    }
    for (const char* c : codecs) {
        ChromiumRun run;
        run.codec = c;
        auto it = byCodec.find(c);
        if (it == byCodec.end()) {
            run.why = pid < 0 ? "cannot start node" : "no figures (see " + log + ")";
        } else {
            run.f = it->second;
            run.ok = run.f["ok"] == "1";
            run.why = run.f.count("why") ? run.f["why"] : "";
        }
        runs.push_back(run);
    }
    return runs;
}

// ------------------------------------------------------------------- output --

std::string num(double v, int decimals = 0) {
    if (v < 0 || !std::isfinite(v)) return "n/a";
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.*f", decimals, v);
    return buf;
}

std::string pair(double a, double b) {
    return a < 0 ? "n/a" : num(a) + " / " + num(b);
}

std::string lossText(const Datagrams& d) {
    if (d.seen <= 0) return "no UDP seen";
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.1f %% of %ld", 100.0 * d.dropped / d.seen, d.seen);
    return buf;
}

struct Rate {
    double percent;
    ZarnRun zarn;
    std::vector<ChromiumRun> chromium;
    Datagrams chromiumUdp;
};

const char* kRowFormat = "%-6s %-15s %-13s %-8s %-8s %-6s %-6s %-6s %-9s %-14s %-7s\n";

void printRows(const Rate& rate, int expected) {
    const ZarnRun& z = rate.zarn;
    char loss[16];
    std::snprintf(loss, sizeof loss, "%g %%", rate.percent);
    if (!z.ok) {
        std::printf("%-6s %-15s FAILED: %s\n", loss, "ZarnRtc H264", z.error.c_str());
    } else {
        std::string clean = z.stamped ? std::to_string(z.clean) + "/" + std::to_string(expected)
                                      : std::to_string(z.frames) + " shown";
        std::string damaged = z.stamped ? std::to_string(z.damaged) : "n/a";
        std::printf(
            kRowFormat, loss, "ZarnRtc H264", clean.c_str(), damaged.c_str(),
            num(z.freeze.excessS, 2).c_str(), num(z.monitor.get("video", "nacks_sent")).c_str(),
            num(z.monitor.get("video", "plis_sent")).c_str(),
            num(z.door.get("video", "key_frames_sent")).c_str(), num(z.videoStartMs).c_str(),
            pair(z.g2g.median(), z.g2g.percentile(0.95)).c_str(),
            num(z.monitor.mouthToEarMs.median()).c_str());
    }
    for (const ChromiumRun& c : rate.chromium) {
        std::string who = "Chromium " + c.codec;
        if (!c.ok) {
            std::printf("%-6s %-15s FAILED: %s\n", "", who.c_str(), c.why.c_str());
            continue;
        }
        std::string decoded =
            num(c.num("frames_decoded")) + "/" + std::to_string(expected) + " dec";
        std::printf(kRowFormat, "", who.c_str(), decoded.c_str(), "n/a",
                    num(c.num("frozen_s"), 2).c_str(), num(c.num("nacks_sent")).c_str(),
                    num(c.num("plis_sent")).c_str(), num(c.num("key_frames_encoded")).c_str(),
                    num(c.num("video_start_ms")).c_str(),
                    pair(c.num("g2g_median_ms"), c.num("g2g_p95_ms")).c_str(), "n/a");
    }
}

void printResults(const Rate& rate, int expected) {
    const ZarnRun& z = rate.zarn;
    std::printf("RESULT side=zarnrtc codec=H264 loss=%g ok=%d", rate.percent, z.ok ? 1 : 0);
    if (z.ok) {
        std::printf(
            " expected=%d frames=%d clean=%d damaged=%d unreadable=%d stamped=%d frozen_s=%.3f "
            "frozen_whole_s=%.3f freezes=%d nacks_sent=%s plis_sent=%s key_frames_sent=%s "
            "nacks_received=%s retransmitted=%s lost_packets=%s video_start_ms=%s "
            "g2g_median_ms=%s g2g_p95_ms=%s m2e_median_ms=%s clicks_heard=%d call_s=%.1f "
            "udp_seen=%ld udp_dropped=%ld",
            expected, z.frames, z.clean, z.damaged, z.unreadable, z.stamped ? 1 : 0,
            z.freeze.excessS, z.freeze.wholeS, z.freeze.count,
            num(z.monitor.get("video", "nacks_sent")).c_str(),
            num(z.monitor.get("video", "plis_sent")).c_str(),
            num(z.door.get("video", "key_frames_sent")).c_str(),
            num(z.door.get("video", "nacks_received")).c_str(),
            num(z.door.get("video", "retransmitted")).c_str(),
            num(z.monitor.get("video", "lost_packets")).c_str(), num(z.videoStartMs, 1).c_str(),
            num(z.g2g.median(), 1).c_str(), num(z.g2g.percentile(0.95), 1).c_str(),
            num(z.monitor.mouthToEarMs.median(), 1).c_str(), z.monitor.clicks, z.callS, z.udp.seen,
            z.udp.dropped);
    } else {
        std::string why = z.error;
        std::replace(why.begin(), why.end(), ' ', '_');
        std::printf(" why=%s", why.c_str());
    }
    std::printf("\n");
    for (const ChromiumRun& c : rate.chromium) {
        std::printf("RESULT side=chromium codec=%s loss=%g", c.codec.c_str(), rate.percent);
        if (c.f.empty()) std::printf(" ok=0 why=%s", c.why.empty() ? "none" : c.why.c_str());
        for (const auto& kv : c.f)
            if (kv.first != "codec") std::printf(" %s=%s", kv.first.c_str(), kv.second.c_str());
        std::printf(" udp_seen=%ld udp_dropped=%ld\n", rate.chromiumUdp.seen,
                    rate.chromiumUdp.dropped);
    }
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
    int failed = 0;
    for (double percent : o.rates) {
        Rate rate;
        rate.percent = percent;
        char tag[32];
        std::snprintf(tag, sizeof tag, "%g", percent);
        if (!setLoss(percent)) {
            std::fprintf(stderr, "bench_lossy: nft could not set %g %% loss\n", percent);
            failed++;
            break;
        }
        rate.zarn = runZarn(o, monitor, domain, o.logs + "/door-" + tag + ".log",
                            o.logs + "/frames-" + tag + ".txt");
        failed += rate.zarn.ok ? 0 : 1;
        std::printf(
            "  %g %%: ZarnRtc %s%s%s (UDP dropped: %s)\n", percent,
            rate.zarn.ok ? "measured" : "FAILED: ", rate.zarn.ok ? "" : rate.zarn.error.c_str(),
            rate.zarn.note.empty() ? "" : (", " + rate.zarn.note).c_str(),
            lossText(rate.zarn.udp).c_str());
        std::fflush(stdout);
        if (!o.chromium.empty()) {
            rate.chromium = runChromium(o, o.logs + "/chromium-" + tag + ".log", &chromiumVersion,
                                        &rate.chromiumUdp);
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
        "TCP and is not dropped. Each rate: one call of %d s, then Chromium for %d s per codec.\n"
        "ZarnRtc: door (zarnrtc-phone, stamped test picture, clicks) -> monitor (this program's\n"
        "  SDK engine) through Kamailio; %s %dx%d at %d fps + %s, plain RTP with ICE (the SDK's\n"
        "  defaults). Frames at the monitor's VideoSink: clean = stamp read and PSNR >= %.0f dB\n"
        "  against the picture its frame number must show; damaged = shown but not clean;\n"
        "  NACKs and PLIs sent by the monitor, key frames sent by the door (the engines'\n"
        "  statistics); glass-to-glass = arrival at the sink - capture time in the stamp;\n"
        "  mouth-to-ear = a click heard at the monitor - the time it was made.\n"
        "Chromium%s%s: two RTCPeerConnections in one page, fake camera 640x480 at 15 fps +\n"
        "  fake microphone (opus), one way; getStats(): framesDecoded, totalFreezesDuration\n"
        "  (whole frozen intervals), nackCount and pliCount sent by the receiver,\n"
        "  keyFramesEncoded; glass-to-glass: requestVideoFrameCallback's presentationTime -\n"
        "  captureTime (the receiver's estimate of the capture time, to the compositor).\n"
        "Frozen: an interval over 3x the running average and over it + 150 ms; ZarnRtc sums the\n"
        "  excess over the average (RESULT frozen_whole_s: whole intervals, as Chromium).\n\n",
        o.seconds, o.seconds, params.getVideoCodec().c_str(), params.getVideoWidth(),
        params.getVideoHeight(), params.getVideoFps(), params.getAudioCodec().c_str(),
        zarnrtc::stamp::kDamagedBelowDb, chromiumVersion.empty() ? "" : " ",
        chromiumVersion.c_str());
    std::printf(kRowFormat, "loss", "", "clean/expect", "damaged", "frozen s", "NACKs", "PLIs",
                "keyfr", "start ms", "g2g med/p95 ms", "m2e ms");
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
    std::printf("RESULT failed=%d\n", failed);
    std::fflush(stdout);

    server.stop();
    if (!keepLogs) siptest::runCommand("rm -rf '" + o.logs + "'");
    if (!server.runDir().empty() && !std::getenv("ZARNRTC_TEST_KEEP_LOGS"))
        siptest::runCommand("rm -rf '" + server.runDir() + "'");
    // The SDK's engine lives as long as the process.
    std::_Exit(failed ? 1 : 0);
}
