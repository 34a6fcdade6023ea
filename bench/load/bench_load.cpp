// Cost as work grows, for the real engines through Kamailio on loopback. The door is
// the one SDK engine in this process; every monitor is a zarnrtc-phone process of
// its own (--auto-answer), so this process's CPU and memory are the door's alone.
//   1. CPU per endpoint during a steady call (idle, door, monitor: % of one core);
//   2. the door ringing N = 1, 2, 4, 8 monitors at once (callForward): time to
//      answered, the door's CPU during set-up and its peak resident memory;
//   3. the door's resident memory idle after registration and after all those calls.
//   bench_load [--phone PATH] [--runs R] [--cpu-seconds S]
// A failed run is left out of every figure and makes the exit status 1.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "callparams.h"
#include "load_runs.h"
#include "proc_usage.h"
#include "stats.h"

namespace {

constexpr int kMonitors = 8;
const int kRinging[] = {1, 2, 4, 8};
// The monitor that answers; the others ring until the door cancels them.
constexpr int kLateAnswerMs = 30000;

struct Options {
    std::string phone = ZARNRTC_BENCH_PHONE;
    int runs = 3;
    double cpuSeconds = 10;
};

bool parseOptions(int argc, char** argv, Options& o) {
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--phone") && i + 1 < argc) {
            o.phone = argv[++i];
        } else if (!std::strcmp(argv[i], "--runs") && i + 1 < argc) {
            o.runs = std::atoi(argv[++i]);
        } else if (!std::strcmp(argv[i], "--cpu-seconds") && i + 1 < argc) {
            o.cpuSeconds = std::atof(argv[++i]);
        } else {
            return false;
        }
    }
    return o.runs >= 1 && o.runs <= 100 && o.cpuSeconds >= 1 && o.cpuSeconds <= 600;
}

std::string monitorUser(int i) {
    return i == 0 ? "monitor" : "monitor" + std::to_string(i + 1);
}

// Kamailio, the monitors and the door, all registered. False with a message.
bool startAll(const Options& o, siptest::KamailioServer& server, const std::string& dir,
              std::vector<std::unique_ptr<bench::PhoneProcess>>& phones, bench::Door& door) {
    if (!siptest::KamailioServer::installed() || !server.start()) {
        std::fprintf(stderr, "bench_load: kamailio did not start\n");
        return false;
    }
    door.domain = server.address();
    for (int i = 0; i < kMonitors; ++i) {
        bench::PhoneConfig c;
        c.program = o.phone;
        c.registrar = door.domain;
        c.user = monitorUser(i);
        c.password = "monitor123";
        c.displayName = "Monitor " + std::to_string(i + 1);
        c.answerDelayMs = i == 0 ? 0 : kLateAnswerMs;
        c.expectCancel = i != 0;
        c.logPath = dir + "/" + c.user + ".log";
        phones.emplace_back(new bench::PhoneProcess);
        if (!phones.back()->start(c)) {
            std::fprintf(stderr, "bench_load: cannot start %s\n", o.phone.c_str());
            return false;
        }
    }
    door.handler.reset(new bench::Handler(bench::kDoor, door.events));
    door.engine = static_cast<zarnrtc::ZarnRtcImpl*>(zarnrtc::ZarnRtc::createZarnRtcEngine());
    door.engine->setZarnRtcEvent(door.handler.get());
    if (door.engine->registerAccount(door.domain.c_str(), "door", "door123", "Front door") < 0) {
        std::fprintf(stderr, "bench_load: the SIP engine refused the door's account\n");
        return false;
    }
    bool doorRegistered = false;
    const auto deadline = bench::Clock::now() + std::chrono::seconds(20);
    for (;;) {
        bench::Event e;
        while (door.events.pop(e, std::chrono::milliseconds(50)))
            if (e.kind == bench::Event::Registration && e.a == 1) doorRegistered = true;
        int ready = 0;
        for (auto& p : phones) ready += p->logHas("registered as") ? 1 : 0;
        if (doorRegistered && ready == kMonitors) return true;
        for (auto& p : phones) {
            if (!p->running()) {
                std::fprintf(stderr, "bench_load: %s exited:\n%s\n", p->config().user.c_str(),
                             p->log().c_str());
                return false;
            }
        }
        if (bench::Clock::now() > deadline) {
            std::fprintf(stderr, "bench_load: registration timed out (door %s, monitors %d/%d)\n",
                         doorRegistered ? "yes" : "no", ready, kMonitors);
            return false;
        }
    }
}

void printForwardRow(int n, const bench::Samples& answered, const bench::Samples& cpuMs,
                     const bench::Samples& cpuPct, const bench::Samples& peakKb, long baseKb) {
    if (answered.empty()) {
        std::printf("  %2d  %s (%d failed)\n", n, "n/a", answered.failed());
        return;
    }
    std::printf("  %2d  %8.1f ms (%.1f-%.1f)  %7.1f ms  %5.1f %%  %8ld kB  %+7ld kB  %d/%zu\n", n,
                answered.median(), answered.min(), answered.max(), cpuMs.median(), cpuPct.median(),
                long(peakKb.max()), long(peakKb.max()) - baseKb, answered.failed(),
                answered.size() + answered.failed());
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    if (!parseOptions(argc, argv, o)) {
        std::fprintf(stderr,
                     "usage: bench_load [--phone PATH] [--runs 1..100] [--cpu-seconds 1..600]\n");
        return 2;
    }
    // Everything on loopback; no sound card.
    setenv("ZARNRTC_SIP_BIND", "127.0.0.1", 1);
    setenv("ZARNRTC_MEDIA_ADDRESSES", "127.0.0.1", 1);
    setenv("ZARNRTC_AUDIO_OUTPUT", "none", 0);
    char tmpl[] = "/tmp/zarnrtc-bench-load-XXXXXX";
    const char* made = mkdtemp(tmpl);
    if (!made) return 1;
    const std::string dir = made;

    siptest::KamailioServer server;
    std::vector<std::unique_ptr<bench::PhoneProcess>> phones;
    bench::Door door;
    int failed = 0;
    auto finish = [&](int code) {
        for (auto& p : phones) p->stop();
        server.stop();
        const char* keep = std::getenv("ZARNRTC_TEST_KEEP_LOGS");
        if (keep && *keep == '1')
            std::printf("bench_load: logs kept in %s\n", dir.c_str());
        else
            siptest::runCommand("rm -rf '" + dir + "' '" + server.runDir() + "'");
        std::fflush(stdout);
        std::_Exit(code);  // the SDK's engine lives as long as the process
    };
    if (!startAll(o, server, dir, phones, door)) {
        for (auto& p : phones)
            std::fprintf(stderr, "--- %s\n%s", p->config().user.c_str(), p->log().c_str());
        finish(1);
    }
    bench::PhoneProcess& monitor = *phones[0];

    zarnrtc::CallParams params;  // its getters are not const
    std::printf(
        "bench_load: door = SDK engine in this process (pid %d); monitors = %d "
        "zarnrtc-phone processes (--auto-answer), Kamailio %s\n",
        int(getpid()), kMonitors, door.domain.c_str());
    std::printf("SETUP video=%s size=%dx%d fps=%d audio=%s trickle=no\n",
                params.getVideoCodec().c_str(), params.getVideoWidth(), params.getVideoHeight(),
                params.getVideoFps(), params.getAudioCodec().c_str());
    std::fflush(stdout);

    drainEvents(door, 1000);
    const long idleRssKb = bench::selfRssKb();
    const bench::CpuShare idle = bench::measureIdle(monitor, 5);

    std::printf("1. CPU per endpoint (/proc/<pid>/stat, %% of one core)\n");
    std::printf(
        "  idle, registered, no call (5 s): door process %.1f %%, monitor process %.1f %%\n",
        idle.doorPct, idle.monitorPct);
    std::fflush(stdout);
    bench::SteadyResult steady = bench::steadyCall(door, monitor, o.cpuSeconds);
    if (steady.ok) {
        std::printf(
            "  steady call door -> monitor (%.0f s after both sides' first frames): "
            "door %.1f %%, monitor %.1f %%; received fps door %.1f, monitor %ld\n",
            o.cpuSeconds, steady.cpu.doorPct, steady.cpu.monitorPct, steady.doorFps,
            steady.monitorFps);
    } else {
        ++failed;
        std::printf("  steady call FAILED: %s\n", steady.error.c_str());
    }
    drainEvents(door, 500);
    std::fflush(stdout);

    // ---- 2. parallel ringing (printed below), 3. memory afterwards ----
    std::printf(
        "2. the door rings N monitors at once (callForward), %d runs each; the "
        "answering monitor is the last of the N, the others ring until cancelled\n",
        o.runs);
    std::fflush(stdout);
    struct Row {
        bench::Samples answered, cpuMs, cpuPct, peakKb;
        long baseKb = -1;
    } rows[4];
    bool fromHwm = true;
    int calls = 1;
    for (int k = 0; k < 4; ++k) {
        const int n = kRinging[k];
        std::vector<bench::PhoneProcess*> targets;
        for (int i = 1; i < n; ++i) targets.push_back(phones[i].get());
        targets.push_back(phones[0].get());
        for (int run = 0; run < o.runs; ++run) {
            bench::ForwardResult r = bench::forwardRun(door, targets);
            calls += n;
            if (!r.ok) {
                ++failed;
                rows[k].answered.addFailed();
                std::printf("  N=%d run %d FAILED: %s\n", n, run + 1, r.error.c_str());
            } else {
                rows[k].answered.add(r.answeredMs);
                rows[k].cpuMs.add(r.setupCpuMs);
                rows[k].cpuPct.add(r.setupCpuPct);
                rows[k].peakKb.add(double(r.peakRssKb));
                if (rows[k].baseKb < 0) rows[k].baseKb = r.rssBeforeKb;
                fromHwm = fromHwm && r.peakFromHwm;
            }
            std::fflush(stdout);
            drainEvents(door, 300);
        }
    }
    std::printf(
        "   N  answered (median, min-max)  set-up CPU   %% core  peak RSS (%s)  over "
        "before  failed/runs\n",
        fromHwm ? "VmHWM" : "sampled VmRSS");
    for (int k = 0; k < 4; ++k)
        printForwardRow(kRinging[k], rows[k].answered, rows[k].cpuMs, rows[k].cpuPct,
                        rows[k].peakKb, rows[k].baseKb);

    drainEvents(door, 1000);
    const long afterRssKb = bench::selfRssKb();
    std::printf(
        "3. door process VmRSS, idle: after registration %ld kB, after %d calls "
        "%ld kB, growth %+ld kB\n",
        idleRssKb, calls, afterRssKb, afterRssKb - idleRssKb);
    std::printf("RESULT idle_pct=%.1f door_pct=%.1f monitor_pct=%.1f", idle.doorPct,
                steady.cpu.doorPct, steady.cpu.monitorPct);
    for (int k = 0; k < 4; ++k)
        std::printf(" answered_ms_%d=%.1f peak_kb_%d=%ld", kRinging[k], rows[k].answered.median(),
                    kRinging[k], long(rows[k].peakKb.max()));
    std::printf(" rss_idle_kb=%ld rss_after_kb=%ld failed=%d\n", idleRssKb, afterRssKb, failed);
    finish(failed ? 1 : 0);
}
