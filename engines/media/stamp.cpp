// Provisional: replaced by the benchmark's own implementation.
#include "stamp.h"

#include <cmath>
#include <cstdlib>

namespace zarnrtc {
namespace stamp {

namespace {
constexpr int kBits = 80;
constexpr int kPerRow = 40;

uint8_t Crc8(uint64_t a, uint32_t b) {
    uint8_t crc = 0;
    for (int i = 0; i < 72; ++i) {
        int bit = i < 48 ? (a >> i) & 1 : (b >> (i - 48)) & 1;
        uint8_t mix = static_cast<uint8_t>(((crc >> 7) ^ bit) & 1);
        crc = static_cast<uint8_t>(crc << 1);
        if (mix) crc ^= 0x07;
    }
    return crc;
}

int Block(int width) {
    return width / kPerRow;
}

uint8_t Expected(int x, int y, uint32_t frame, int width) {
    int sq = (static_cast<int>(frame) * 8) % (width + 64) - 64;
    if (x >= sq && x < sq + 64 && y >= 100 && y < 164) return 235;
    return static_cast<uint8_t>(40 + (x * 4 / (width > 0 ? width : 1)) * 40);
}
}  // namespace

void Draw(const Picture& p, const Stamp& s) {
    int top = p.width >= kMinWidth && p.height >= kMinHeight ? 2 * Block(p.width) : 0;
    for (int y = 0; y < p.height; ++y)
        for (int x = 0; x < p.width; ++x)
            p.y[y * p.stride_y + x] = Expected(x, y, s.frame, p.width);
    for (int y = 0; y < (p.height + 1) / 2; ++y)
        for (int x = 0; x < (p.width + 1) / 2; ++x) {
            p.u[y * p.stride_u + x] = 128;
            p.v[y * p.stride_v + x] = 128;
        }
    if (!top) return;
    uint64_t time = s.capture_us & ((1ULL << 48) - 1);
    uint32_t frame = s.frame & 0xFFFFFF;
    uint8_t check = Crc8(time, frame);
    int b = Block(p.width);
    for (int i = 0; i < kBits; ++i) {
        int bit = i < 48   ? (time >> i) & 1
                  : i < 72 ? (frame >> (i - 48)) & 1
                           : (check >> (i - 72)) & 1;
        int bx = (i % kPerRow) * b, by = (i / kPerRow) * b;
        for (int y = by; y < by + b; ++y)
            for (int x = bx; x < bx + b; ++x) p.y[y * p.stride_y + x] = bit ? 235 : 16;
    }
}

bool Read(const ConstPicture& p, Stamp* out) {
    if (p.width < kMinWidth || p.height < kMinHeight) return false;
    int b = Block(p.width);
    uint64_t time = 0;
    uint32_t frame = 0;
    uint8_t check = 0;
    for (int i = 0; i < kBits; ++i) {
        int bx = (i % kPerRow) * b, by = (i / kPerRow) * b, sum = 0, n = 0;
        for (int y = by + b / 4; y < by + b - b / 4; ++y)
            for (int x = bx + b / 4; x < bx + b - b / 4; ++x, ++n) sum += p.y[y * p.stride_y + x];
        int bit = n && sum / n > 128;
        if (i < 48)
            time |= static_cast<uint64_t>(bit) << i;
        else if (i < 72)
            frame |= static_cast<uint32_t>(bit) << (i - 48);
        else
            check |= static_cast<uint8_t>(bit << (i - 72));
    }
    if (Crc8(time, frame) != check) return false;
    out->capture_us = time;
    out->frame = frame;
    return true;
}

double Psnr(const ConstPicture& p, uint32_t frame) {
    int top = p.width >= kMinWidth ? 2 * Block(p.width) : 0;
    double err = 0;
    long n = 0;
    for (int y = top; y < p.height; ++y)
        for (int x = 0; x < p.width; ++x, ++n) {
            double d = p.y[y * p.stride_y + x] - Expected(x, y, frame, p.width);
            err += d * d;
        }
    if (!n || err == 0) return 99;
    return 10 * std::log10(255.0 * 255.0 / (err / n));
}

void Clicks(int16_t* samples, size_t count, uint64_t start_us) {
    for (size_t i = 0; i < count; ++i) {
        uint64_t t = start_us + i * 1000000 / kClickRate;
        uint64_t into = t % kClickPeriodUs;
        samples[i] = into < 2000 ? static_cast<int16_t>((i & 2) ? 30000 : -30000) : 0;
    }
}

bool FindClick(const int16_t* samples, size_t count, uint64_t start_us, uint64_t* made_us,
               size_t* offset) {
    for (size_t i = 0; i < count; ++i)
        if (std::abs(samples[i]) > 8000 && (i == 0 || std::abs(samples[i - 1]) < 8000)) {
            uint64_t t = start_us + i * 1000000 / kClickRate;
            *made_us = t / kClickPeriodUs * kClickPeriodUs;
            *offset = i;
            return true;
        }
    return false;
}

}  // namespace stamp
}  // namespace zarnrtc
