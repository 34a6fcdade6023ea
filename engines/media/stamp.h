// The stand-in camera's stamped picture and the stand-in microphone's clicks: what
// the latency and loss benchmarks send, and how they read it back at the far end.
// Pure functions, no GStreamer: the media engine draws with them, benchmarks read.
//
// Picture: the top rows carry the frame number and the capture time (monotonic
// clock, microseconds) as black and white blocks; below them a picture that is a
// function of the frame number only, so a receiver can draw what frame n must look
// like and tell a clean decode from a damaged one.
// Sound: silence with a click whose onset is at every multiple of kClickPeriodUs of
// the monotonic clock, so the far end knows when each click was made.
#ifndef ZARNRTC_MEDIA_STAMP_H
#define ZARNRTC_MEDIA_STAMP_H

#include <cstddef>
#include <cstdint>

namespace zarnrtc {
namespace stamp {

// An I420 picture in memory (planes and strides as a decoder hands them out).
struct Picture {
    uint8_t* y = nullptr;
    uint8_t* u = nullptr;
    uint8_t* v = nullptr;
    int stride_y = 0, stride_u = 0, stride_v = 0;
    int width = 0, height = 0;
};
struct ConstPicture {
    const uint8_t* y = nullptr;
    const uint8_t* u = nullptr;
    const uint8_t* v = nullptr;
    int stride_y = 0, stride_u = 0, stride_v = 0;
    int width = 0, height = 0;
};

struct Stamp {
    uint32_t frame = 0;       // 24 bits are carried
    uint64_t capture_us = 0;  // 48 bits are carried (about 8.9 years of uptime)
};

// The smallest picture that carries a stamp (narrower ones are drawn unstamped).
constexpr int kMinWidth = 320;
constexpr int kMinHeight = 120;

// Draws the whole picture of frame `s.frame`, stamp included.
void Draw(const Picture& p, const Stamp& s);
// Reads the stamp back; false when it cannot be read (its check fails).
bool Read(const ConstPicture& p, Stamp* out);
// How far the picture below the stamp is from what frame `frame` must look like:
// PSNR of the luma in dB (99 for identical). A clean decode of a modest bit rate
// scores well above kDamagedBelowDb; a picture built on a lost reference well below
// (640x480 at 512 kbit/s, H264 and VP8 at the engine's settings: clean 56 dB and up,
// one lost P-frame 22 dB and down until the next key frame; docs/benchmarks.md).
double Psnr(const ConstPicture& p, uint32_t frame);
constexpr double kDamagedBelowDb = 35.0;

// Sound: 8 kHz mono S16.
constexpr uint64_t kClickPeriodUs = 500 * 1000;
constexpr int kClickRate = 8000;
// Writes `count` samples starting at `start_us` (the monotonic time of the first
// one): silence, and a click where a multiple of kClickPeriodUs falls.
void Clicks(int16_t* samples, size_t count, uint64_t start_us);
// The onset of a click within `count` samples that start at `start_us`, as the
// monotonic time the click was made (the multiple of kClickPeriodUs it belongs
// to) and the offset of its first loud sample; false when there is none. Needs
// the latency to be under kClickPeriodUs. The onset counts only after 10 ms of
// quiet among the samples given (so the middle of a click is never taken for one):
// a receiver searches each buffer with the last 10 ms of the previous one in front.
bool FindClick(const int16_t* samples, size_t count, uint64_t start_us, uint64_t* made_us,
               size_t* offset);

}  // namespace stamp
}  // namespace zarnrtc

#endif
