// What bench_lossy makes of what it saw: frozen time from frame arrivals, and the
// engines' "stats:" lines (bench/lossy/lossy_figures.h).
#include <gtest/gtest.h>

#include <vector>

#include "lossy_figures.h"

namespace {

// Frames every `period` ms from `from`, `n` of them.
std::vector<double> steady(double from, double period, int n) {
    std::vector<double> v;
    for (int i = 0; i < n; ++i) v.push_back(from + i * period);
    return v;
}

TEST(LossyFigures, FrozenTime) {
    struct Case {
        const char* what;
        std::vector<double> arrivals;
        double endMs;
        int count;
        double excessS, wholeS;
    };
    std::vector<double> gap = steady(0, 66.7, 30);
    for (double t : steady(30 * 66.7 + 1000, 66.7, 30)) gap.push_back(t);  // 1066.7 ms apart
    // After a freeze the decoder hands out what it held at once: intervals near 0
    // must not make the next normal interval a freeze.
    std::vector<double> burst = steady(0, 66.7, 30);
    double t = burst.back() + 600;
    for (int i = 0; i < 8; ++i) burst.push_back(t + i * 0.5);
    for (double s : steady(burst.back() + 66.7, 66.7, 20)) burst.push_back(s);
    std::vector<double> start = {0, 0.8, 1.0};  // the first pictures come out together
    for (double s : steady(67.7, 66.7, 60)) start.push_back(s);
    std::vector<double> jittery;
    for (int i = 0; i < 100; ++i) jittery.push_back(i * 66.7 + (i % 2 ? 40 : 0));
    const Case cases[] = {
        {"steady 15 fps", steady(0, 66.7, 150), 150 * 66.7, 0, 0, 0},
        {"one gap of a second", gap, gap.back() + 66.7, 1, (1066.7 - 66.7) / 1000, 1.0667},
        {"frames stop a second before the end", steady(0, 66.7, 30), 29 * 66.7 + 1000, 1,
         (1000 - 66.7) / 1000, 1.0},
        {"a burst after a freeze", burst, burst.back() + 66.7, 1, (600 - 66.7) / 1000, 0.6},
        {"jitter of 40 ms is no freeze", jittery, jittery.back() + 66.7, 0, 0, 0},
        {"a burst at the start", start, start.back() + 66.7, 0, 0, 0},
        {"no frame", {}, 15000, 0, 0, 0},
    };
    for (const Case& c : cases) {
        bench::Freeze f = bench::FrozenTime(c.arrivals, c.endMs, 66.7);
        EXPECT_EQ(f.count, c.count) << c.what;
        EXPECT_NEAR(f.excessS, c.excessS, 0.02) << c.what;
        EXPECT_NEAR(f.wholeS, c.wholeS, 0.02) << c.what;
    }
}

TEST(LossyFigures, StatsLines) {
    bench::SideStats side;
    const char* lines[] = {
        "timeline 12.000 ms  7f  stats: video sent_packets=10 nacks_received=1",
        "timeline 13.000 ms  7f  stats: video sent_packets=20 key_frames_sent=2 rtt_ms=n/a",
        "stats: audio click made_us=1000000 heard_us=1045000",
        "stats: audio click made_us=1500000 heard_us=1555000",
        "stats: audio click made_us=2000000",  // half a line: no figure
        "stats: audio jitter_ms=3.5",
        "stats:",
        "nothing here",
        "stats: =5 x=1",
    };
    for (const char* text : lines) {
        bench::StatsLine line;
        if (bench::ParseStats(text, &line)) side.add(line);
    }
    // The last line of a kind counts, whole: a key it lacks is not reported.
    EXPECT_EQ(side.get("video", "sent_packets"), 20);
    EXPECT_EQ(side.get("video", "key_frames_sent"), 2);
    EXPECT_EQ(side.get("video", "nacks_received"), -1);
    EXPECT_EQ(side.get("video", "rtt_ms"), -1);
    EXPECT_EQ(side.get("audio", "jitter_ms"), 3.5);
    EXPECT_EQ(side.get("audio click", "made_us"), -1);
    EXPECT_EQ(side.clicks, 2);
    EXPECT_EQ(side.mouthToEarMs.median(), 50);
    EXPECT_EQ(side.last.size(), 2u);

    auto r = bench::ParseResult("RESULT codec=VP8 ok=1 why=chromium:_gone frames_decoded=221");
    EXPECT_EQ(r["codec"], "VP8");
    EXPECT_EQ(r["frames_decoded"], "221");
    EXPECT_TRUE(bench::ParseResult("CHROMIUM Chrome/1 RESULT a=1").empty());
}

}  // namespace
