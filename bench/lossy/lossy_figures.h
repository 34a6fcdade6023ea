// What bench_lossy measures of one call, and how: the monitor's sink reads every
// remote frame's stamp (engines/media/stamp.h) as it arrives; the engines' own
// per-call statistics come as "stats: ..." lines of their timelines.
#ifndef ZARNRTC_BENCH_LOSSY_FIGURES_H
#define ZARNRTC_BENCH_LOSSY_FIGURES_H

#include <cstdint>
#include <map>
#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "stats.h"
#include "videosink.h"

namespace bench {

int64_t MonotonicUs();

// One remote frame as the monitor's sink saw it.
struct FrameRecord {
    int64_t arrivalUs = 0;  // monotonic, before anything else is done with the frame
    bool readable = false;  // its stamp checked
    uint32_t frame = 0;
    uint64_t captureUs = 0;
    double psnr = -1;  // against the picture its frame number must show; -1 unreadable
};

// The monitor's VideoSink. OnFrame runs on the call's decoder thread (the SDK's render
// adapter, one frame at a time); take() on the benchmark's main thread. records_ is
// owned by mutex_.
class StampSink : public zarnrtc::VideoSink {
  public:
    void OnFrame(libwebrtc::scoped_refptr<libwebrtc::RTCVideoFrame> frame) override;
    // Everything recorded since the last take().
    std::vector<FrameRecord> take();
    // CPU spent reading stamps and comparing pictures so far: the benchmark's, not
    // the engine's.
    double scoringSeconds() const { return scoringNs_.load() / 1e9; }

  private:
    std::atomic<int64_t> scoringNs_{0};
    std::mutex mutex_;
    std::vector<FrameRecord> records_;
};

// Frozen time from frame arrivals (ms, ascending) up to the end of the call: an
// interval longer than three times the running average and than the average plus
// 150 ms is a freeze (Chromium's rule: a burst of frames right after a freeze, with
// intervals near 0, must not make every interval after it a freeze). The average starts at the
// nominal frame period and follows the last 30 intervals that were not freezes (as Chromium's
// figure does). `excessS` sums each freeze's excess over the average, `wholeS` its whole interval
// (what Chromium's totalFreezesDuration sums).
struct Freeze {
    int count = 0;
    double excessS = 0, wholeS = 0;
};
Freeze FrozenTime(const std::vector<double>& arrivalsMs, double endMs, double nominalMs);

// "stats: video key=value ..." and "stats: audio click made_us=N heard_us=M": the
// words before the first key=value are the kind ("video", "audio click").
struct StatsLine {
    std::string kind;
    std::map<std::string, double> values;
};
// False when `text` has no "stats: " or no kind. Values that are not numbers are
// skipped.
bool ParseStats(const std::string& text, StatsLine* out);

// The engine's statistics of one side of one call: the last line of each kind, and
// every click heard.
struct SideStats {
    std::map<std::string, std::map<std::string, double>> last;  // kind -> values
    Samples mouthToEarMs;
    int clicks = 0;
    void add(const StatsLine& line);
    // -1 when the engine did not report it.
    double get(const std::string& kind, const std::string& key) const;
};

// "RESULT a=1 b=x ..." -> {a: "1", b: "x"}; empty when the line is not one.
std::map<std::string, std::string> ParseResult(const std::string& line);

}  // namespace bench

#endif
