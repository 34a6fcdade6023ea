#include "lossy_figures.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <deque>
#include <sstream>

#include <time.h>

#include "stamp.h"

namespace bench {

int64_t MonotonicUs() {
    // steady_clock is CLOCK_MONOTONIC: the clock the door stamps its pictures with,
    // shared by every process of the machine.
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void StampSink::OnFrame(libwebrtc::scoped_refptr<libwebrtc::RTCVideoFrame> frame) {
    FrameRecord r;
    r.arrivalUs = MonotonicUs();
    if (!frame) return;
    zarnrtc::stamp::ConstPicture p;
    p.y = frame->DataY(), p.u = frame->DataU(), p.v = frame->DataV();
    p.stride_y = frame->StrideY(), p.stride_u = frame->StrideU(), p.stride_v = frame->StrideV();
    p.width = frame->width(), p.height = frame->height();
    zarnrtc::stamp::Stamp s;
    timespec before{}, after{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &before);
    r.readable = zarnrtc::stamp::Read(p, &s);
    if (r.readable) {
        r.frame = s.frame;
        r.captureUs = s.capture_us;
        r.psnr = zarnrtc::stamp::Psnr(p, s.frame);
    }
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &after);
    scoringNs_ += (after.tv_sec - before.tv_sec) * 1000000000LL + (after.tv_nsec - before.tv_nsec);
    std::lock_guard<std::mutex> lock(mutex_);
    records_.push_back(r);
}

std::vector<FrameRecord> StampSink::take() {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<FrameRecord> out;
    out.swap(records_);
    return out;
}

Freeze FrozenTime(const std::vector<double>& arrivalsMs, double endMs, double nominalMs) {
    Freeze f;
    if (arrivalsMs.empty()) return f;
    std::deque<double> window;
    double sum = 0, avg = nominalMs;
    auto interval = [&](double d) {
        if (d > std::max(3 * avg, avg + 150)) {
            ++f.count;
            f.excessS += (d - avg) / 1000;
            f.wholeS += d / 1000;
            return;
        }
        window.push_back(d);
        sum += d;
        if (window.size() > 30) {
            sum -= window.front();
            window.pop_front();
        }
        avg = sum / double(window.size());
    };
    for (size_t i = 1; i < arrivalsMs.size(); ++i) interval(arrivalsMs[i] - arrivalsMs[i - 1]);
    // A picture that stopped before the call ended is frozen until the end.
    if (endMs > arrivalsMs.back()) interval(endMs - arrivalsMs.back());
    return f;
}

bool ParseStats(const std::string& text, StatsLine* out) {
    size_t at = text.find("stats: ");
    if (at == std::string::npos) return false;
    std::istringstream words(text.substr(at + 7));
    StatsLine line;
    std::string w;
    while (words >> w) {
        size_t eq = w.find('=');
        if (eq == std::string::npos) {
            if (line.values.empty()) line.kind += (line.kind.empty() ? "" : " ") + w;
            continue;
        }
        const std::string value = w.substr(eq + 1);
        char* end = nullptr;
        double v = std::strtod(value.c_str(), &end);
        if (!value.empty() && end && *end == '\0') line.values[w.substr(0, eq)] = v;
    }
    if (line.kind.empty()) return false;
    *out = line;
    return true;
}

void SideStats::add(const StatsLine& line) {
    if (line.kind == "audio click") {
        auto made = line.values.find("made_us"), heard = line.values.find("heard_us");
        if (made != line.values.end() && heard != line.values.end()) {
            ++clicks;
            mouthToEarMs.add((heard->second - made->second) / 1000);
        }
        return;
    }
    last[line.kind] = line.values;
}

double SideStats::get(const std::string& kind, const std::string& key) const {
    auto k = last.find(kind);
    if (k == last.end()) return -1;
    auto v = k->second.find(key);
    return v == k->second.end() ? -1 : v->second;
}

std::map<std::string, std::string> ParseResult(const std::string& line) {
    std::map<std::string, std::string> out;
    if (line.rfind("RESULT ", 0) != 0) return out;
    std::istringstream words(line.substr(7));
    std::string w;
    while (words >> w) {
        size_t eq = w.find('=');
        if (eq != std::string::npos) out[w.substr(0, eq)] = w.substr(eq + 1);
    }
    return out;
}

}  // namespace bench
