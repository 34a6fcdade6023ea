#include "stamp.h"

#include <cmath>

namespace zarnrtc {
namespace stamp {
namespace {

// The stamp: 2 rows of 40 square blocks, 80 bits, most significant first: the frame
// number (24), the capture time (48), a CRC-8 of those 72 bits.
constexpr int kBlocksPerRow = 40;
constexpr int kBlockRows = 2;
constexpr int kBits = kBlocksPerRow * kBlockRows;
constexpr int kPayloadBytes = 9;  // 24 + 48 bits
constexpr uint8_t kBlack = 16, kWhite = 235, kNeutral = 128;
// A block is read from the average of its middle; an average between these two is
// neither black nor white and the stamp is not read (a smear, not a bit).
constexpr int kReadBlackBelow = 96, kReadWhiteAbove = 155;

// The scene below the stamp (luma, and chroma where it is not neutral).
constexpr uint8_t kBackgroundY = 96;
// The moving objects carry a texture that moves with them and that intra prediction
// cannot guess cheaply: an encoder predicts them from the previous picture, so a
// lost reference shows. Their step per frame is half a texture period: a picture
// predicted from the wrong reference has the texture inverted.
constexpr uint8_t kSquareLight = 235, kSquareDark = 16;                     // a chequered square
constexpr uint8_t kBallY = 81, kBallDarkY = 41, kBallU = 90, kBallV = 240;  // red stripes
struct Bar {
    uint8_t y, u, v;
};
// BT.601 75 % colour bars, static: most of each P-frame is skipped blocks.
constexpr Bar kBars[] = {{180, 128, 128}, {162, 44, 142}, {131, 156, 44}, {112, 72, 58},
                         {84, 184, 198},  {65, 100, 212}, {35, 212, 114}, {16, 128, 128}};
constexpr int kBarCount = sizeof(kBars) / sizeof(kBars[0]);

// Pictures too small or too flat to carry the stamp are drawn without it.
int StampHeight(int width, int height) {
    if (width < kMinWidth || height < kMinHeight) return 0;
    int rows = kBlockRows * (width / kBlocksPerRow);
    return rows <= height / 4 ? rows : 0;
}

// Where everything of frame `frame` is: a function of the frame number and the size.
// Sizes scale with the width (64 px square moving 8 px a frame at 640).
struct Scene {
    int width = 0, height = 0, top = 0;
    int barsTop = 0;                                     // colour bars from here to the bottom
    int square = 0, squareX = 0, squareY = 0, cell = 0;  // moving right, wrapping
    int ball = 0, ballX = 0, ballY = 0, stripe = 0;      // moving down within [top, barsTop)

    Scene(int w, int h, uint32_t frame) : width(w), height(h), top(StampHeight(w, h)) {
        int area = height - top;
        barsTop = height - area / 4;
        int free = barsTop - top;  // rows for the moving objects
        square = Even(Clamp(width / 10, 2, free / 2));
        int step = Even(Clamp(width / 80, 2, 64));
        cell = step;
        squareX = int((uint64_t(frame) * step) % uint64_t(width));
        squareY = top + (free / 2 - square) / 2;
        ball = Even(Clamp(width / 13, 2, free / 3));
        int ballStep = Even(Clamp(width / 100, 2, 64));
        stripe = ballStep;
        int span = free - ball > 0 ? free - ball : 1;
        ballY = top + int((uint64_t(frame) * ballStep) % uint64_t(span));
        ballX = width * 3 / 4;
    }
    static int Clamp(int v, int lo, int hi) {
        return v < lo ? lo : (v > hi ? (hi < lo ? lo : hi) : v);
    }
    static int Even(int v) { return v & ~1; }

    // 0 outside, 1 on a light cell, 2 on a dark one.
    int InSquare(int x, int y) const {
        if (y < squareY || y >= squareY + square) return 0;
        int dx = x - squareX;
        if (dx < 0) dx += width;
        if (dx >= square) return 0;
        return ((dx / cell + (y - squareY) / cell) & 1) + 1;
    }
    int InBall(int x, int y) const {
        if (y < ballY || y >= ballY + ball || x < ballX || x >= ballX + ball) return 0;
        return (((y - ballY) / stripe) & 1) + 1;
    }
    const Bar& BarAt(int x) const { return kBars[int(int64_t(x) * kBarCount / width)]; }

    uint8_t Luma(int x, int y) const {
        if (y >= barsTop) return BarAt(x).y;
        if (int b = InBall(x, y)) return b == 1 ? kBallY : kBallDarkY;
        if (int q = InSquare(x, y)) return q == 1 ? kSquareLight : kSquareDark;
        return kBackgroundY;
    }
    // Chroma of the 2x2 block whose top left luma sample is (x, y).
    void Chroma(int x, int y, uint8_t* u, uint8_t* v) const {
        *u = *v = kNeutral;
        if (y >= barsTop) {
            *u = BarAt(x).u;
            *v = BarAt(x).v;
        } else if (InBall(x, y)) {
            *u = kBallU;
            *v = kBallV;
        }
    }
};

uint8_t Crc8(const uint8_t* data, int n) {
    uint8_t crc = 0xff;  // not 0: an all-black stamp area must not check
    for (int i = 0; i < n; ++i) {
        crc ^= data[i];
        for (int b = 0; b < 8; ++b) crc = uint8_t(crc & 0x80 ? (crc << 1) ^ 0x07 : crc << 1);
    }
    return crc;
}

void Pack(const Stamp& s, uint8_t out[kPayloadBytes + 1]) {
    uint64_t frame = s.frame & 0xffffffu;
    uint64_t us = s.capture_us & 0xffffffffffffull;
    for (int i = 0; i < 3; ++i) out[i] = uint8_t(frame >> (8 * (2 - i)));
    for (int i = 0; i < 6; ++i) out[3 + i] = uint8_t(us >> (8 * (5 - i)));
    out[kPayloadBytes] = Crc8(out, kPayloadBytes);
}

bool Valid(const ConstPicture& p) {
    return p.y && p.width > 0 && p.height > 0 && p.stride_y >= p.width;
}

}  // namespace

void Draw(const Picture& p, const Stamp& s) {
    if (!p.y || p.width <= 0 || p.height <= 0 || p.stride_y < p.width) return;
    const Scene scene(p.width, p.height, s.frame);
    const int top = scene.top;
    if (top > 0) {
        uint8_t bytes[kPayloadBytes + 1];
        Pack(s, bytes);
        const int block = p.width / kBlocksPerRow;
        for (int y = 0; y < top; ++y) {
            uint8_t* row = p.y + size_t(y) * p.stride_y;
            const int first = (y / block) * kBlocksPerRow;
            for (int x = 0; x < p.width; ++x) {
                int c = x / block;
                if (c >= kBlocksPerRow) {
                    row[x] = kBackgroundY;  // the columns right of the last block
                    continue;
                }
                int bit = first + c;
                row[x] = (bytes[bit / 8] >> (7 - bit % 8)) & 1 ? kWhite : kBlack;
            }
        }
    }
    for (int y = top; y < p.height; ++y) {
        uint8_t* row = p.y + size_t(y) * p.stride_y;
        for (int x = 0; x < p.width; ++x) row[x] = scene.Luma(x, y);
    }
    const int cw = (p.width + 1) / 2, ch = (p.height + 1) / 2;
    if (!p.u || !p.v || p.stride_u < cw || p.stride_v < cw) return;
    for (int cy = 0; cy < ch; ++cy) {
        uint8_t* u = p.u + size_t(cy) * p.stride_u;
        uint8_t* v = p.v + size_t(cy) * p.stride_v;
        for (int cx = 0; cx < cw; ++cx) {
            if (2 * cy < top) {
                u[cx] = v[cx] = kNeutral;
            } else {
                scene.Chroma(2 * cx, 2 * cy, &u[cx], &v[cx]);
            }
        }
    }
}

bool Read(const ConstPicture& p, Stamp* out) {
    if (!Valid(p) || StampHeight(p.width, p.height) == 0) return false;
    const int block = p.width / kBlocksPerRow;
    const int margin = block / 4;  // the middle half of a block, away from its edges
    const int side = block - 2 * margin;
    uint8_t bytes[kPayloadBytes + 1] = {};
    for (int bit = 0; bit < kBits; ++bit) {
        const int x0 = (bit % kBlocksPerRow) * block + margin;
        const int y0 = (bit / kBlocksPerRow) * block + margin;
        unsigned sum = 0;
        for (int y = y0; y < y0 + side; ++y) {
            const uint8_t* row = p.y + size_t(y) * p.stride_y + x0;
            for (int x = 0; x < side; ++x) sum += row[x];
        }
        const unsigned avg = sum / unsigned(side * side);
        if (avg >= unsigned(kReadWhiteAbove)) {
            bytes[bit / 8] |= uint8_t(1u << (7 - bit % 8));
        } else if (avg > unsigned(kReadBlackBelow)) {
            return false;
        }
    }
    if (Crc8(bytes, kPayloadBytes) != bytes[kPayloadBytes]) return false;
    if (out) {
        out->frame = (uint32_t(bytes[0]) << 16) | (uint32_t(bytes[1]) << 8) | bytes[2];
        uint64_t us = 0;
        for (int i = 0; i < 6; ++i) us = (us << 8) | bytes[3 + i];
        out->capture_us = us;
    }
    return true;
}

double Psnr(const ConstPicture& p, uint32_t frame) {
    if (!Valid(p)) return 0;
    const Scene scene(p.width, p.height, frame);
    uint64_t sse = 0, n = 0;
    for (int y = scene.top; y < p.height; ++y) {
        const uint8_t* row = p.y + size_t(y) * p.stride_y;
        for (int x = 0; x < p.width; ++x) {
            int d = int(row[x]) - int(scene.Luma(x, y));
            sse += unsigned(d * d);
        }
        n += unsigned(p.width);
    }
    if (n == 0) return 0;
    if (sse == 0) return 99;
    double db = 10.0 * std::log10(255.0 * 255.0 * double(n) / double(sse));
    return db < 99 ? db : 99;
}

// ---------------------------------------------------------------------- sound --

namespace {
constexpr uint64_t kSampleUs = 1000000 / kClickRate;  // 125
constexpr uint64_t kClickUs = 2000;
constexpr uint64_t kClickHalfPeriodUs = 500;  // a 1 kHz square wave
constexpr int16_t kClickLevel = 32000;
// Found: the first sample at least this loud after kQuietUs below it.
constexpr int kLoud = 8000;
constexpr uint64_t kQuietUs = 10000;
}  // namespace

void Clicks(int16_t* samples, size_t count, uint64_t start_us) {
    if (!samples) return;
    for (size_t i = 0; i < count; ++i) {
        uint64_t phase = (start_us + i * kSampleUs) % kClickPeriodUs;
        int16_t v = 0;
        if (phase < kClickUs) v = (phase / kClickHalfPeriodUs) % 2 ? -kClickLevel : kClickLevel;
        samples[i] = v;
    }
}

bool FindClick(const int16_t* samples, size_t count, uint64_t start_us, uint64_t* made_us,
               size_t* offset) {
    if (!samples) return false;
    const size_t quiet_needed = size_t(kQuietUs / kSampleUs);
    size_t quiet = 0;
    for (size_t i = 0; i < count; ++i) {
        const int s = samples[i];
        if (s >= kLoud || s <= -kLoud) {
            if (quiet >= quiet_needed) {
                const uint64_t at = start_us + i * kSampleUs;
                if (made_us) *made_us = at - at % kClickPeriodUs;
                if (offset) *offset = i;
                return true;
            }
            quiet = 0;
        } else {
            ++quiet;
        }
    }
    return false;
}

}  // namespace stamp
}  // namespace zarnrtc
