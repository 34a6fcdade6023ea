// Cost of one frame through the render adapter into a sink, against calling the
// sink directly. Prints both in ns and the adapter's share.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>

#include "fake_media.h"
#include "video_render_impl.h"

namespace {

class Sink : public zarnrtc::VideoSink {
public:
    void OnFrame(libwebrtc::scoped_refptr<libwebrtc::RTCVideoFrame> frame) override {
        benchmark::DoNotOptimize(frame.get());
        ++count;
    }
    long count = 0;
};

void DirectSink(benchmark::State& state) {
    Sink sink;
    zarnrtc::VideoSink* target = &sink;
    auto frame = zarnrtc::fake::makeFrame(640, 480);
    for (auto _ : state) target->OnFrame(frame);
}
BENCHMARK(DirectSink);

void ThroughAdapter(benchmark::State& state) {
    Sink sink;
    zarnrtc::VideoRenderImpl adapter(&sink);
    zarnrtc::VideoRender* renderer = &adapter;  // as the media engine calls it
    auto frame = zarnrtc::fake::makeFrame(640, 480);
    for (auto _ : state) renderer->renderFrame(frame);
}
BENCHMARK(ThroughAdapter);

class Collector : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const auto& r : runs) ns[r.benchmark_name()] = r.GetAdjustedRealTime();
    }
    std::map<std::string, double> ns;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    Collector collector;
    benchmark::RunSpecifiedBenchmarks(&collector);
    double direct = collector.ns["DirectSink"];
    double adapter = collector.ns["ThroughAdapter"];
    if (direct > 0 && adapter > 0) {
        std::printf("\nframe into sink, direct:          %7.1f ns\n", direct);
        std::printf("frame through VideoRenderImpl:    %7.1f ns\n", adapter);
        std::printf("adapter overhead:                 %7.1f ns per frame (ratio %.2f, target < 25 ns)\n",
                    adapter - direct, adapter / direct);
    }
    return 0;
}
