#include "zarn_runs.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "engine_link.h"
#include "phones.h"
#include "proc_usage.h"
#include "settings_scope.h"
#include "stamp.h"

namespace bench {

namespace {

// The monitor's marks of this call: its statistics lines, codec and transport.
void drainMonitor(ZarnRun& r) {
    zarn_timeline_drain(
        [](void* ctx, long long, unsigned long, const char* event) {
            if (!event) return;
            ZarnRun& run = *static_cast<ZarnRun*>(ctx);
            bench::StatsLine line;
            const std::string text = event;
            const std::string video = "first video RTP in (";
            if (bench::ParseStats(event, &line)) {
                run.monitor.add(line);
            } else if (text.find("DTLS keys set") != std::string::npos) {
                run.dtls = true;
            } else if (size_t at = text.find(video); at != std::string::npos) {
                run.videoCodec = text.substr(at + video.size());
                run.videoCodec = run.videoCodec.substr(0, run.videoCodec.find(')'));
            }
        },
        &r);
}

}  // namespace

ZarnRun runZarn(const std::string& program, int seconds, const Variant& variant, Monitor& monitor,
                const std::string& domain, const std::string& log, const std::string& frames) {
    ZarnRun r;
    r.variant = variant;
    zarnrtc::testing::editSettings<zarnrtc::testing::MediaSettings>([&](auto& s) {
        s.videoCodecs = {variant.codec};
        s.requireEncryption = variant.dtls;
    });
    zarn_timeline_drain(nullptr, nullptr);
    monitor.sink.take();
    takeCounters();

    bench::PhoneConfig door;
    door.program = program;
    door.registrar = domain;
    door.user = "door";
    door.password = "door123";
    door.displayName = "Front door";
    door.callUri = "sip:monitor@" + domain;
    door.durationS = seconds;
    door.logPath = log;
    door.env = {"ZARNRTC_TEST_PATTERN=stamp", "ZARNRTC_AUDIO_INPUT=clicks", "ZARNRTC_TIMELINE=1",
                "ZARNRTC_MEDIA_VIDEO_CODECS=" + variant.codec,
                std::string("ZARNRTC_MEDIA_REQUIRE_ENCRYPTION=") + (variant.dtls ? "1" : "0")};
    bench::PhoneProcess phone;
    if (!phone.start(door)) {
        r.error = "cannot start " + program;
        return r;
    }

    int callId = -1;
    Clock::time_point answeredAt{}, endedAt{};
    double doorCpuAt = -1, monitorCpuAt = -1, scoringAt = 0;
    auto deadline = Clock::now() + std::chrono::seconds(20);
    while (endedAt == Clock::time_point{}) {
        bench::Event e;
        if (monitor.events.pop(e, std::chrono::milliseconds(20))) {
            if (e.kind == bench::Event::Incoming && callId < 0) {
                callId = e.id;
                monitor.engine->answer(callId);
                monitor.engine->setupRemoteVideo(callId, &monitor.sink);
                answeredAt = Clock::now();
                doorCpuAt = bench::cpuSecondsOf(phone.pid());
                monitorCpuAt = bench::selfCpuSeconds();
                scoringAt = monitor.sink.scoringSeconds();
                // The door hangs up after --seconds from its answered state.
                deadline = answeredAt + std::chrono::seconds(seconds + 30);
            } else if (e.kind == bench::Event::State && e.id == callId && e.a == zarnrtc::kHangup) {
                endedAt = e.at;
                const double s = bench::msBetween(answeredAt, Clock::now()) / 1000;
                const double door = bench::cpuSecondsOf(phone.pid());
                if (doorCpuAt >= 0 && door >= 0 && s > 0)
                    r.doorCpuPct = 100 * (door - doorCpuAt) / s;
                // The engine's share: the stamp check of every frame is the benchmark's.
                const double scoring = monitor.sink.scoringSeconds() - scoringAt;
                if (monitorCpuAt >= 0 && s > 0)
                    r.monitorCpuPct = 100 * (bench::selfCpuSeconds() - monitorCpuAt - scoring) / s;
                r.scoringCpuPct = s > 0 ? 100 * scoring / s : -1;
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
    drainMonitor(r);
    const std::string doorLog = readFile(log);
    std::istringstream lines(doorLog);
    std::string line;
    while (std::getline(lines, line)) {
        bench::StatsLine s;
        if (bench::ParseStats(line, &s)) r.door.add(s);
    }
    r.stamped = doorLog.find("ZARNRTC_TEST_PATTERN=\"stamp\"") == std::string::npos;
    // No video at all is a figure of this rate; video in another codec or transport
    // than the variant's is a run that measured the wrong thing.
    if (r.error.empty() && !r.videoCodec.empty() && r.videoCodec != variant.codec)
        r.error = "video came as " + r.videoCodec + ", not " + variant.codec;
    if (r.error.empty() && r.dtls && !variant.dtls) r.error = "the call used DTLS-SRTP";
    if (r.error.empty() && !r.dtls && variant.dtls && !r.videoCodec.empty())
        r.error = "media came without DTLS-SRTP";
    if (!r.error.empty()) return r;

    r.ok = true;
    r.callS = bench::msBetween(answeredAt, endedAt) / 1000;
    if (r.callS < seconds - 1)
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

}  // namespace bench
