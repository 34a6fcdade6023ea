// A video sink that counts what it is given: frames, size, the time of the first,
// and (when asked) the first and last picture. Frames arrive on a media thread;
// the application reads the figures from its own.
#ifndef ZARNRTC_EXAMPLES_PHONE_FRAME_SINK_H
#define ZARNRTC_EXAMPLES_PHONE_FRAME_SINK_H

#include <functional>
#include <mutex>
#include <string>

#include "snapshot.h"
#include "videosink.h"

// What a sink saw during one call.
struct FrameFigures {
    long frames = 0;
    long firstMs = -1;  // -1: none yet
    int width = 0, height = 0;
    std::string size() const { return std::to_string(width) + "x" + std::to_string(height); }
};

class FrameSink : public zarnrtc::VideoSink {
  public:
    // `now` gives the application's clock in milliseconds.
    FrameSink(std::function<long()> now, bool keepPictures)
        : now_(std::move(now)), keep_(keepPictures) {}

    void OnFrame(libwebrtc::scoped_refptr<libwebrtc::RTCVideoFrame> frame) override {
        if (!frame) return;
        long t = now_();
        std::lock_guard<std::mutex> lock(m_);
        if (figures_.frames == 0) {
            figures_.firstMs = t;
            figures_.width = frame->width();
            figures_.height = frame->height();
            if (keep_) first_ = copyFrame(frame.get());
        }
        ++figures_.frames;
        if (keep_ && t - lastCopyMs_ >= 500) {  // the last frame, refreshed twice a second
            last_ = copyFrame(frame.get());
            lastCopyMs_ = t;
        }
    }

    // A new call: the figures start again (pictures of the last call are kept until
    // the new one has its own).
    void startCall() {
        std::lock_guard<std::mutex> lock(m_);
        figures_ = FrameFigures();
        lastCopyMs_ = -1000000;
    }
    FrameFigures figures() {
        std::lock_guard<std::mutex> lock(m_);
        return figures_;
    }
    Picture first() {
        std::lock_guard<std::mutex> lock(m_);
        return first_;
    }
    Picture last() {
        std::lock_guard<std::mutex> lock(m_);
        return last_.width ? last_ : first_;
    }

  private:
    const std::function<long()> now_;
    const bool keep_;
    std::mutex m_;
    FrameFigures figures_;
    long lastCopyMs_ = -1000000;
    Picture first_, last_;
};

#endif
