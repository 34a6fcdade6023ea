#include "lossy_report.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace bench {

std::string num(double v, int decimals) {
    if (v < 0 || !std::isfinite(v)) return "n/a";
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.*f", decimals, v);
    return buf;
}

namespace {

std::string pair(double a, double b) {
    return a < 0 ? "n/a" : num(a) + " / " + num(b);
}

}  // namespace

const char* kRowFormat = "%-6s %-22s %-13s %-8s %-8s %-6s %-6s %-6s %-9s %-14s %-7s %-9s\n";

void printRows(const Rate& rate, int expected) {
    char loss[16];
    std::snprintf(loss, sizeof loss, "%g %%", rate.percent);
    for (const ZarnRun& z : rate.zarn) {
        const std::string who = z.variant.label();
        const char* first = &z == &rate.zarn.front() ? loss : "";
        if (!z.ok) {
            std::printf("%-6s %-22s FAILED: %s\n", first, who.c_str(), z.error.c_str());
            continue;
        }
        std::string clean = z.stamped ? std::to_string(z.clean) + "/" + std::to_string(expected)
                                      : std::to_string(z.frames) + " shown";
        std::string damaged = z.stamped ? std::to_string(z.damaged) : "n/a";
        std::printf(
            kRowFormat, first, who.c_str(), clean.c_str(), damaged.c_str(),
            num(z.freeze.excessS, 2).c_str(), num(z.monitor.get("video", "nacks_sent")).c_str(),
            num(z.monitor.get("video", "plis_sent")).c_str(),
            num(z.door.get("video", "key_frames_sent")).c_str(), num(z.videoStartMs).c_str(),
            pair(z.g2g.median(), z.g2g.percentile(0.95)).c_str(),
            num(z.monitor.mouthToEarMs.median()).c_str(),
            pair(z.doorCpuPct, z.monitorCpuPct).c_str());
    }
    for (const ChromiumRun& c : rate.chromium) {
        std::string who = "Chromium " + c.codec;
        if (!c.ok) {
            std::printf("%-6s %-22s FAILED: %s\n", "", who.c_str(), c.why.c_str());
            continue;
        }
        std::string decoded =
            num(c.num("frames_decoded")) + "/" + std::to_string(expected) + " dec";
        std::printf(kRowFormat, "", who.c_str(), decoded.c_str(), "n/a",
                    num(c.num("frozen_s"), 2).c_str(), num(c.num("nacks_sent")).c_str(),
                    num(c.num("plis_sent")).c_str(), num(c.num("key_frames_encoded")).c_str(),
                    num(c.num("video_start_ms")).c_str(),
                    pair(c.num("g2g_median_ms"), c.num("g2g_p95_ms")).c_str(), "n/a", "n/a");
    }
}

void printResults(const Rate& rate, int expected) {
    for (const ZarnRun& z : rate.zarn) {
        std::printf("RESULT side=zarnrtc codec=%s transport=%s loss=%g ok=%d",
                    z.variant.codec.c_str(), z.variant.dtls ? "dtls-srtp" : "rtp", rate.percent,
                    z.ok ? 1 : 0);
        if (!z.ok) {
            std::string why = z.error;
            std::replace(why.begin(), why.end(), ' ', '_');
            std::printf(" why=%s\n", why.c_str());
            continue;
        }
        std::printf(
            " expected=%d frames=%d clean=%d damaged=%d unreadable=%d stamped=%d frozen_s=%.3f "
            "frozen_whole_s=%.3f freezes=%d nacks_sent=%s plis_sent=%s key_frames_sent=%s "
            "nacks_received=%s retransmitted=%s lost_packets=%s video_start_ms=%s "
            "g2g_median_ms=%s g2g_p95_ms=%s m2e_median_ms=%s clicks_heard=%d call_s=%.1f "
            "udp_seen=%ld udp_dropped=%ld door_cpu_pct=%s monitor_cpu_pct=%s scoring_cpu_pct=%s\n",
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
            z.udp.dropped, num(z.doorCpuPct, 1).c_str(), num(z.monitorCpuPct, 1).c_str(),
            num(z.scoringCpuPct, 1).c_str());
    }
    for (const ChromiumRun& c : rate.chromium) {
        std::printf("RESULT side=chromium codec=%s loss=%g", c.codec.c_str(), rate.percent);
        if (c.f.empty()) std::printf(" ok=0 why=%s", c.why.empty() ? "none" : c.why.c_str());
        for (const auto& kv : c.f)
            if (kv.first != "codec") std::printf(" %s=%s", kv.first.c_str(), kv.second.c_str());
        std::printf(" udp_seen=%ld udp_dropped=%ld\n", rate.chromiumUdp.seen,
                    rate.chromiumUdp.dropped);
    }
}

}  // namespace bench
