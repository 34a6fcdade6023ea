// Cost as work grows, for the real engines through Kamailio on loopback. The door is
// the one SDK engine in this process; every monitor is a zarnrtc-phone process of
// its own (--auto-answer), so this process's CPU and memory are the door's alone.
//   1. CPU per endpoint during a steady call (idle, door, monitor: % of one core);
//   2. the door ringing N = 1, 2, 4, 8 monitors at once (callForward): time to
//      answered, the door's CPU during set-up and its peak resident memory;
//   3. the door's resident memory idle after registration and after all those calls.
//   bench_load [--phone PATH] [--runs R] [--cpu-seconds S]
// A failed run is left out of every figure and makes the exit status 1.
#include <dirent.h>
#include <malloc.h>
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
#include "settings_scope.h"
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

// One N of the parallel-ringing table.
struct Row {
    int n = 0;
    bench::Samples answered, cpuMs, cpuPct, peakKb;
    long beforeKb = -1;  // VmRSS before the first run of this N
    long afterKb = -1;   // VmRSS, idle, after the last one
};

void printRow(const Row& row) {
    if (row.answered.empty()) {
        std::printf("  %2d  n/a (%d failed)\n", row.n, row.answered.failed());
        return;
    }
    std::printf(
        "  %2d  %7.1f ms (%.1f-%.1f)  %6.1f ms  %5.1f %%  %8ld kB  %+8ld kB  %8ld kB  "
        "%d/%zu\n",
        row.n, row.answered.median(), row.answered.min(), row.answered.max(), row.cpuMs.median(),
        row.cpuPct.median(), long(row.peakKb.max()), long(row.peakKb.max()) - row.beforeKb,
        row.afterKb, row.answered.failed(), row.answered.size() + row.answered.failed());
}

// The door rings N = 1, 2, 4, 8 phones, `runs` times each; the answering phone
// (phones[0]) is always the last target. Returns the number of failed runs.
int ringInParallel(bench::Door& door, std::vector<std::unique_ptr<bench::PhoneProcess>>& phones,
                   int runs, Row (&rows)[4], int& calls) {
    int failed = 0;
    bool fromHwm = true;
    for (int k = 0; k < 4; ++k) {
        Row& row = rows[k];
        row.n = kRinging[k];
        std::vector<bench::PhoneProcess*> targets;
        for (int i = 1; i < row.n; ++i) targets.push_back(phones[i].get());
        targets.push_back(phones[0].get());
        row.beforeKb = bench::selfRssKb();
        for (int run = 0; run < runs; ++run) {
            bench::ForwardResult r = bench::forwardRun(door, targets);
            calls += row.n;
            if (!r.ok) {
                ++failed;
                row.answered.addFailed();
                std::printf("  N=%d run %d FAILED: %s\n", row.n, run + 1, r.error.c_str());
            } else {
                row.answered.add(r.answeredMs);
                row.cpuMs.add(r.setupCpuMs);
                row.cpuPct.add(r.setupCpuPct);
                row.peakKb.add(double(r.peakRssKb));
                if (r.neverRang)
                    std::printf("  N=%d run %d: %d monitor(s) never rang (answered first)\n", row.n,
                                run + 1, r.neverRang);
                fromHwm = fromHwm && r.peakFromHwm;
            }
            std::fflush(stdout);
            drainEvents(door, 300);
        }
        row.afterKb = bench::selfRssKb();
    }
    std::printf(
        "   N  answered (median, min-max)  set-up CPU  %% core  peak RSS (%s)  "
        "peak-before  RSS after  failed/runs\n",
        fromHwm ? "VmHWM" : "sampled VmRSS");
    for (const Row& row : rows) printRow(row);
    return failed;
}

// Resident memory at rest, as the allocator left it and after it gave back what it
// keeps free (malloc_trim): the difference is freed memory, not a leak.
// Threads and descriptors say whether whole sessions were left behind.
struct Rss {
    long kb = -1, trimmedKb = -1, threads = -1;
    int fds = -1;
};
Rss idleRss() {
    Rss r;
    r.kb = bench::selfRssKb();
    malloc_trim(0);
    r.trimmedKb = bench::selfRssKb();
    r.threads = bench::statusKb("self", "Threads:");
    if (DIR* d = opendir("/proc/self/fd")) {
        r.fds = -1;  // the directory stream itself
        while (dirent* e = readdir(d)) r.fds += e->d_name[0] != '.';
        closedir(d);
    }
    return r;
}

void printSetup(const bench::Door& door) {
    zarnrtc::CallParams params;  // its getters are not const
    std::printf(
        "bench_load: door = SDK engine in this process (pid %d); monitors = %d "
        "zarnrtc-phone processes (--auto-answer), Kamailio %s\n",
        int(getpid()), kMonitors, door.domain.c_str());
    std::printf("SETUP video=%s size=%dx%d fps=%d audio=%s trickle=no\n",
                params.getVideoCodec().c_str(), params.getVideoWidth(), params.getVideoHeight(),
                params.getVideoFps(), params.getAudioCodec().c_str());
    std::fflush(stdout);
}

// 1: idle, then one steady call. False when the call failed.
bool cpuPerEndpoint(bench::Door& door, bench::PhoneProcess& monitor, double seconds,
                    bench::CpuShare& idle, bench::SteadyResult& steady) {
    drainEvents(door, 1000);
    idle = bench::measureIdle(monitor, 5);
    std::printf("1. CPU per endpoint (/proc/<pid>/stat, %% of one core)\n");
    std::printf(
        "  idle, registered, no call (5 s): door process %.1f %%, monitor process %.1f %%\n",
        idle.doorPct, idle.monitorPct);
    std::fflush(stdout);
    steady = bench::steadyCall(door, monitor, seconds);
    if (steady.ok)
        std::printf(
            "  steady call door -> monitor (%.0f s after both sides' first frames): "
            "door %.1f %%, monitor %.1f %%; received fps door %.1f, monitor %ld\n",
            seconds, steady.cpu.doorPct, steady.cpu.monitorPct, steady.doorFps, steady.monitorFps);
    else
        std::printf("  steady call FAILED: %s\n", steady.error.c_str());
    std::fflush(stdout);
    return steady.ok;
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    if (!parseOptions(argc, argv, o)) {
        std::fprintf(stderr,
                     "usage: bench_load [--phone PATH] [--runs 1..100] [--cpu-seconds 1..600]\n");
        return 2;
    }
    // Everything on loopback; no sound card unless one was asked for. The phones are
    // processes of their own, told the same through their environment (phones.cpp).
    zarnrtc::testing::bindSipToLoopback();
    zarnrtc::testing::editSettings<zarnrtc::testing::MediaSettings>([](auto& s) {
        s.addresses = {"127.0.0.1"};
        if (s.audioOutput == zarnrtc::settings::AudioOutput::kProbe)
            s.audioOutput = zarnrtc::settings::AudioOutput::kNone;
    });
    char tmpl[] = "/tmp/zarnrtc-bench-load-XXXXXX";
    const char* made = mkdtemp(tmpl);
    if (!made) return 1;
    const std::string dir = made;

    siptest::KamailioServer server;
    std::vector<std::unique_ptr<bench::PhoneProcess>> phones;
    bench::Door door;
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
    printSetup(door);
    const long idleRssKb = bench::selfRssKb();

    bench::CpuShare idle;
    bench::SteadyResult steady;
    int failed = cpuPerEndpoint(door, *phones[0], o.cpuSeconds, idle, steady) ? 0 : 1;
    // The first call loads the media plugins and codecs once: the idle figure after
    // it is the one later calls must not grow.
    drainEvents(door, 1000);
    const Rss warm = idleRss();

    std::printf(
        "2. the door rings N monitors at once (callForward), %d runs each; the "
        "answering monitor is the last of the N, the others ring until cancelled\n",
        o.runs);
    std::fflush(stdout);
    Row rows[4];
    int calls = 1;
    failed += ringInParallel(door, phones, o.runs, rows, calls);

    drainEvents(door, 1000);
    const Rss after = idleRss();
    std::printf("3. door process, idle: after registration VmRSS %ld kB\n", idleRssKb);
    std::printf(
        "  after the first call: VmRSS %ld kB (%ld kB after malloc_trim), %ld threads, "
        "%d fds\n",
        warm.kb, warm.trimmedKb, warm.threads, warm.fds);
    std::printf("  after %d calls: VmRSS %ld kB (%ld kB after malloc_trim), %ld threads, %d fds\n",
                calls, after.kb, after.trimmedKb, after.threads, after.fds);
    std::printf(
        "  growth since the first call: VmRSS %+ld kB (%+ld kB trimmed), threads %+ld, "
        "fds %+d\n",
        after.kb - warm.kb, after.trimmedKb - warm.trimmedKb, after.threads - warm.threads,
        after.fds - warm.fds);
    if (after.threads > warm.threads || after.fds > warm.fds) {
        // Threads and sockets of a call still alive: see whether they go later.
        drainEvents(door, 10000);
        const Rss later = idleRss();
        std::printf("  sessions left behind: 10 s later %ld threads, %d fds (VmRSS %ld kB)\n",
                    later.threads, later.fds, later.kb);
    }
    std::printf("RESULT idle_pct=%.1f door_pct=%.1f monitor_pct=%.1f", idle.doorPct,
                steady.cpu.doorPct, steady.cpu.monitorPct);
    for (const Row& row : rows)
        std::printf(" answered_ms_%d=%.1f peak_kb_%d=%ld", row.n, row.answered.median(), row.n,
                    long(row.peakKb.max()));
    std::printf(" rss_idle_kb=%ld rss_warm_kb=%ld rss_after_kb=%ld failed=%d\n", idleRssKb, warm.kb,
                after.kb, failed);
    finish(failed ? 1 : 0);
}
